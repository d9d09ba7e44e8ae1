#pragma once

#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "cli/commands/Commands.h"
#include "cli/exchange/TaskFile.h"

namespace vxsched {

// The tasks of files as a table would have them.

// A file of tasks that was read.
struct TTaskSource {
    std::string name;  // for messages
    TTaskFile file;
};

// Reads a file, standard input for "-", or the *.toml files of a directory by their names. Throws CError
// (cRefused) if one of them cannot be read, or a directory has none.
std::vector<TTaskSource> ReadTaskSources(const std::string& path);

// A task that a file wants.
struct TWantedTask {
    TTaskEntry entry;         // name, program, parameter and period
    std::optional<TTime> at;  // a due time, on whose grid all others are
    std::optional<bool> paused;
    std::string where;  // of the file: "tasks.toml:7:8"
};

// The tasks of all files in their order, or what is wrong with them, each with its place.
struct TWantedTasks {
    std::vector<TWantedTask> tasks;
    std::vector<std::string> errors;
};

TWantedTasks FindWantedTasks(const TCommon& common, const std::vector<TTaskSource>& sources);

// When the task would be launched first, if it were made now; empty if there is no launch any more: a file
// keeps a task that runs once, or until some time, when that is past.
std::optional<TTime> FirstDue(const TWantedTask& task, TTime now);

}  // namespace vxsched
