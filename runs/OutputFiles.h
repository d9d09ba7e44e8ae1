#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "runs/COutputFile.h"

// The files of runs' outputs: files/output/TASK/ID.log, TASK the task's name as FileNameOf() encodes
// it. The ids of later runs are greater, as far as the clock goes forward. Paths are relative to the
// store's directory. All block for disk access only; any thread may call them.

// The path of the output of a run of a task, or of a launch of which no task is known.
std::string OutputPathOf(const std::optional<std::string>& task, const std::string& id);

// Makes the file of an output in the working directory, as COutputFile has it, after RemoveOldOutputs()
// has made room for it. Blocks for a second at most while other runs of the task begin.
COutputFile MakeOutputFile(const std::optional<std::string>& task, const std::string& id,
                           std::uint64_t size,
                           std::function<void(const std::string&)> logWarning = {});

// Removes the oldest outputs of a task in the working directory, so that ten are left. The latest is
// kept, and those that are still being written; there may be more than ten of these. So is what this
// user cannot remove.
void RemoveOldOutputs(const std::optional<std::string>& task);

// Removes the outputs in the working directory of tasks that are not among `tasks`, if all of a task's
// are older than 30 days and none is still being written: the task was removed, or has another name.
void RemoveOutputsOfOthers(const std::set<std::string>& tasks);

// The id of the last run of a task in the working directory whose output is kept; empty if there is
// none.
std::string FindLatestOutput(const std::optional<std::string>& task);

namespace vxsched {

struct TOutput {
    std::string id;    // of the run
    std::string path;  // relative to the store's directory
};

// The kept outputs of a task in the store of a directory, the latest first.
std::vector<TOutput> FindOutputs(const std::string& directory, const std::string& task);

}  // namespace vxsched
