#pragma once

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// Values of options of a job (jobs/JobOptions.h) by their names, each with those that were given.
using TJobArguments = std::map<std::string, std::vector<std::string>>;

// What a task is to execute, and how. Of an edit, what is not given stays; an omitted string differs
// from "".
struct TJobChange {
    std::optional<std::string> program = {};    // the first word of the command
    std::optional<std::string> parameter = {};  // its single argument
    std::vector<std::string> command = {};      // the program and its arguments
    TJobArguments options = {};                 // a single value "" removes an option

    bool IsEmpty() const;
};

// A command line as of the runner, without a check of what it says: options by name, then the program
// and its arguments, after `--` if there is one. Throws CJobError for what is no option.
TJobChange ReadJobChange(const std::vector<std::string>& words);

// These set program and parameter of a task in the store of a directory: as they are if a launch passes
// them on unchanged, else the runner and the line of a job. They throw CJobError for what is no job,
// and CError: cRefused for a user or group as which the job could not run, cFailed if the runner is
// needed and missing. Block for disk access only.

// Of a new task, which has its name.
void MakeJob(const std::filesystem::path& directory, TTaskEntry& task, const TJobChange& job);

// Of an edited task, which has its new name already. Throws CError (cRefused) also if the task has a
// parameter that is no job, and options of one are to be changed.
void ChangeJob(const std::filesystem::path& directory, TTaskEntry& task, const TJobChange& change);

}  // namespace vxsched
