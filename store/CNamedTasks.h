#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// The tasks of a table in its order, found by name in constant time. Of several tasks of one name the
// first is found, as by the add-in's functions. For one thread.
class CNamedTasks {
public:
    explicit CNamedTasks(std::vector<TTaskEntry> listed);

    // Null if there is none. Valid until a task is added; its name must stay.
    TTaskEntry* Find(std::string_view name);

    // Adds a task at the end.
    void Add(TTaskEntry task);

    // There must be a task of that name, and for a rename none of the new one.
    void Remove(std::string_view name);
    void Rename(std::string_view name, const std::string& newName);

    // In the table's order.
    std::vector<TTaskEntry> Tasks() const;

private:
    void Index(std::size_t index);

    std::vector<std::optional<TTaskEntry>> tasks;                       // a removed one is empty
    std::unordered_map<std::string, std::vector<std::size_t>> indices;  // ascending
};

}  // namespace vxsched
