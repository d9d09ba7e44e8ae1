#pragma once

#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <vxsched/Table.h>

// Tells which task a start is made for. The add-in hands on a program and a parameter only; the table
// in the file, which a tick saves when all its starts are made, still holds the due times.
//
// Of several due tasks with the same program and parameter it is the first in the table that no
// earlier start of the tick was for. That is the order in which a tick goes through the table, except
// that it turns back after a task that runs once: then such twins may be taken for each other.
//
// A process that loads the library in the middle of a tick moves the due times on in the file, not in
// the tick; so a task that is not due by the table is looked up in the one before as well.
//
// For one thread at a time.
class CDueTasks {
public:
    struct TTask {
        std::string name;
        std::optional<std::chrono::sys_seconds> due;  // none when it was not due by the table
    };

    // Of the table in the working directory, read without the store mutex: the caller is a part of
    // the tick, which holds it. None when the table holds no such task or cannot be read.
    std::optional<TTask> Find(const std::string& program, const std::string& parameter);

    // The same of given tasks. `state` is any value that is another one after the file was written.
    std::optional<TTask> Find(const std::vector<vxsched::TTaskEntry>& tasks,
                              const std::string& state, vxsched::TTime now,
                              const std::string& program, const std::string& parameter);

private:
    struct TTableSeen {
        std::string state;
        std::vector<vxsched::TTaskEntry> tasks;
        std::set<std::size_t> started;  // positions in the table
    };

    static std::optional<TTask> FindDue(TTableSeen& table, vxsched::TTime now,
                                        const std::string& program, const std::string& parameter);

    TTableSeen current;
    TTableSeen before;
};
