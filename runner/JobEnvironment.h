#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "base/Users.h"
#include "jobs/Job.h"

// The environment of the program of a job, each variable once: that of cron for a user, with LANG and
// TZ of this process; VXSCHED_TASK and VXSCHED_DUE, unless `task` or `due` is null; what the job's files
// of variables have, in their order; and what the job names. Blocks for disk access. Throws
// CLaunchError: a file cannot be read, is another user's than one of `owners`, is open to others than
// its owner, or has a line that is no variable.
std::vector<std::string> EnvironmentOf(const vxsched::TJob& job, const TUser& user,
                                       const std::vector<uid_t>& owners, const char* task,
                                       const char* due);
