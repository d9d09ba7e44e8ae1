#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

// The files of runs' outputs: files/output/TASK/ID.log, TASK the task's name as FileNameOf() encodes
// it. The ids of later runs are greater, as far as the clock goes forward. Paths are relative to the
// store's directory. All block for disk access only; any thread may call them.

// The path of the output of a run of a task, or of a launch of which no task is known.
std::string OutputPathOf(const std::optional<std::string>& task, const std::string& id);

// Returns that path, and makes its directory in the working directory; removes the oldest outputs there, so that the last
// ten are there with this one, and those of runs that go on. What cannot be made or removed is left:
// opening the file fails then, or there are more.
std::string PrepareOutputFile(const std::optional<std::string>& task, const std::string& id);

// Removes the outputs in the working directory of tasks that are not among `tasks`, if all of a task's
// are older than 30 days and none of its runs goes on: the task was removed, or has another name.
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
