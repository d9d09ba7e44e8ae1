#pragma once

#include <string>
#include <utility>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// What a task is, as the options of `create` that make it: "command" or "shell", the options of its job, and
// "every" unless it has a calendar. Times and pauses are none of them. In the order in which a person reads
// them; not safe for a terminal.
using TTaskFields = std::vector<std::pair<std::string, std::string>>;

TTaskFields FieldsOf(const std::string& directory, const TTaskEntry& task);

// A field whose values differ; an empty string stands for none.
struct TFieldChange {
    std::string field;
    std::string before;
    std::string after;
};

// What it takes to get from one task's fields to another's.
std::vector<TFieldChange> Difference(const TTaskFields& before, const TTaskFields& after);

}  // namespace vxsched
