#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "jobs/Job.h"

// As whom a program is executed, if not as this process.
struct TIdentity {
    uid_t user;
    gid_t group;
    std::vector<gid_t> groups;  // the supplementary ones
};

// As whom, where and with what a program is executed.
struct TExecution {
    std::string userName;  // if there is an identity
    std::optional<TIdentity> identity;
    std::string directory;  // empty: this process's
    bool isHome = false;    // whether that is the user's home, since the job names none
    std::optional<mode_t> umask;
    std::vector<std::string> environment;  // all of it, each NAME=VALUE

    // Whether posix_spawn() does all of it.
    bool IsPlain() const { return !identity && directory.empty() && !umask; }
};

// As this process is executed itself.
TExecution InheritedExecution();

// Looks up what the options of a job name. The store is the working directory; `task` and `due` are for
// the program's variables, null: none. Blocks for disk access, and for the user database. Throws
// CLaunchError: there is no such user or file, or this process may not do what the job asks for.
TExecution ExecutionOf(const vxsched::TJob& job, const char* task, const char* due);
