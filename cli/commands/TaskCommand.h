#pragma once

#include <string>

#include <vxsched/Table.h>
#include "cli/commands/Commands.h"

namespace vxsched {

// What a task executes, as `create` and `edit` put it into the table: a program and its single argument
// as they are if a launch passes them on unchanged, else the runner and the line of a job.

// Of `create`: sets program and parameter of the task, which has its name, in the store of a directory.
// Throws CUsageError for arguments that are none, and CError: cRefused for a user or group as which the
// job could not run, cFailed if the runner is needed and missing.
void CreateCommand(const std::string& directory, TTaskEntry& task, const TTaskArguments& arguments);

// Of `edit`: changes program and parameter of the task, which has its new name already. Throws as
// CreateCommand(), and CError (cRefused) if the task has a parameter that is no job, and options of one
// are to be changed.
void EditCommand(const std::string& directory, TTaskEntry& task, const TTaskArguments& arguments);

// Whether arguments of `edit` change what the task executes.
bool ChangesCommand(const TTaskArguments& arguments);

}  // namespace vxsched
