#include "runner/Execution.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "base/Users.h"
#include "runner/CLaunchError.h"
#include "runner/JobEnvironment.h"
#include "store/Layout.h"

using vxsched::cFilesDirectory;
using vxsched::TJob;

TExecution InheritedExecution() {
    TExecution execution;
    for (char* const* variable = environ; *variable != nullptr; ++variable)
        execution.environment.emplace_back(*variable);
    return execution;
}

// The owner of the store in the working directory, whose are the lines of its jobs.
static uid_t FindOwnerOfStore() {
    struct stat status {};
    if (stat(cFilesDirectory, &status) == -1)
        throw CLaunchError(
            errno, fmt::format("cannot examine {}: {}", cFilesDirectory, std::strerror(errno)));
    return status.st_uid;
}

static uid_t UserOf(const TJob& job) {
    if (job.user.empty())
        return geteuid();
    if (const std::optional<uid_t> user = FindUserId(job.user))
        return *user;
    throw CLaunchError(EINVAL, fmt::format("--user {}: there is no such user", job.user));
}

static gid_t GroupOf(const TJob& job, const TUser& user) {
    if (job.group.empty() && job.user.empty())
        return getegid();
    if (job.group.empty() && user.group)
        return *user.group;
    if (job.group.empty())
        throw CLaunchError(
            EINVAL, fmt::format("--user {}: the user database has no such user, and so no group of "
                                "that user; name one by --group",
                                job.user));
    if (const std::optional<gid_t> group = FindGroupId(job.group))
        return *group;
    throw CLaunchError(EINVAL, fmt::format("--group {}: there is no such group", job.group));
}

// Whoever can write the store could have any line run as anybody.
static void RequirePermission(const TJob& job) {
    const std::string wanted = job.user.empty() ? "--group " + job.group : "--user " + job.user;
    if (geteuid() != 0)
        throw CLaunchError(
            EPERM, fmt::format("{}: the launcher runs as user {}, and only root may run a job as "
                               "another user or group",
                               wanted, FindUser(geteuid()).name));
    if (const uid_t owner = FindOwnerOfStore(); owner != 0)
        throw CLaunchError(
            EPERM, fmt::format("{}: the store's directory {} belongs to user {}, and a job runs as "
                               "another user or group only in a store that root owns",
                               wanted, cFilesDirectory, FindUser(owner).name));
}

TExecution ExecutionOf(const TJob& job, const char* task, const char* due) {
    const uid_t id = UserOf(job);
    const TUser user = FindUser(id);
    const gid_t group = GroupOf(job, user);
    TExecution execution;
    execution.userName = user.name;
    if (id != geteuid() || group != getegid())
        RequirePermission(job);
    const bool isNamed = !job.user.empty() || !job.group.empty();
    if (isNamed && geteuid() == 0)
        execution.identity = {.user = id, .group = group, .groups = GroupsOf(id, group)};
    execution.isHome = job.directory.empty() && !job.user.empty();
    execution.directory = execution.isHome ? user.home : job.directory;
    execution.umask = job.umask;
    std::vector<uid_t> owners = {0, id};
    if (!job.environmentFiles.empty() && job.user.empty())
        owners.push_back(FindOwnerOfStore());
    execution.environment = EnvironmentOf(job, user, owners, task, due);
    return execution;
}
