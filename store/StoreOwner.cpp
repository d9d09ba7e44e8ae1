#include "store/StoreOwner.h"

#include <fcntl.h>
#include <grp.h>
#include <paths.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "base/ShellWord.h"
#include "base/Users.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

bool IsKept(std::string_view variable) {
    constexpr std::string_view cKept[] = {"LANG=", "LC_", "TZ=", "VXSCHED_NO_SYNC="};
    return std::any_of(std::begin(cKept), std::end(cKept),
                       [&](std::string_view beginning) { return variable.starts_with(beginning); });
}

// Gives this process the environment of a login.
void TakeEnvironmentOf(uid_t id) {
    std::vector<std::string> kept;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (IsKept(*variable))
            kept.emplace_back(*variable);
    }
    clearenv();
    for (const std::string& variable : kept) {
        const std::size_t sign = variable.find('=');
        setenv(variable.substr(0, sign).c_str(), variable.c_str() + sign + 1, 1);
    }
    const TUser user = FindUser(id);
    setenv("USER", user.name.c_str(), 1);
    setenv("LOGNAME", user.name.c_str(), 1);
    setenv("HOME", user.home.c_str(), 1);
    setenv("SHELL", user.shell.c_str(), 1);
    setenv("PATH", _PATH_DEFPATH, 1);
}

// Opens one component of a path. A link is followed only if the superuser made it, and if the store,
// as far as it is known, is the superuser's. Closed if there is nothing.
CDescriptor OpenComponent(int parent, const char* name, const fs::path& path,
                          bool isInForeignStore) {
    struct stat status {};
    CDescriptor component(openat(parent, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const bool isLink =
        component.IsOpen() && fstat(component.Get(), &status) == 0 && S_ISLNK(status.st_mode);
    if (isLink && (status.st_uid != 0 || isInForeignStore))
        throw MakeError(EError::cNoAccess,
                        "{} is a symbolic link of user {}, which is not followed for the "
                        "superuser; work as the owner of the store",
                        path.string(), status.st_uid);
    if (isLink)
        component = CDescriptor(openat(parent, name, O_PATH | O_CLOEXEC));
    if (!component.IsOpen() && errno != ENOENT)
        throw SystemError("cannot open " + path.string(), errno);
    return component;
}

// Opens the directory, the table or what is between them, and checks it. Closed if there is nothing.
CDescriptor OpenStep(int parent, const char* name, const fs::path& path,
                     std::optional<struct stat>& first) {
    struct stat status {};
    CDescriptor step = OpenComponent(parent, name, path, first && first->st_uid != 0);
    if (!step.IsOpen())
        return step;
    if (fstat(step.Get(), &status) == -1)
        throw SystemError("cannot open " + path.string(), errno);
    // Anything else in the place of the table is refused by whoever opens it as a file.
    if (!S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode))
        return step;
    if (!first)
        first = status;
    if (status.st_uid != first->st_uid)
        throw MakeError(EError::cNoAccess,
                        "{} belongs to user {}, and the store to user {}; the superuser works on a "
                        "store of one owner only: run chown, or work as the owner of the store",
                        path.string(), status.st_uid, first->st_uid);
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw MakeError(
            EError::cNoAccess,
            "{} may be written by others than its owner (mode {:04o}); the superuser "
            "does not work on such a store: work as the owner, or take it from its group and "
            "others by chmod go-w {}",
            path.string(), status.st_mode & 07777U, ShellWord(path.string()));
    return step;
}

}  // namespace

std::optional<TStoreOwner> FindForeignOwner(const fs::path& directory) {
    if (geteuid() != 0)
        return {};
    // One after the other: the system would follow a link before the last one, and before a slash.
    std::vector<fs::path> components(directory.begin(), directory.end());
    std::erase(components, fs::path());
    CDescriptor parent(open(".", O_PATH | O_CLOEXEC));
    fs::path path;
    for (std::size_t index = 0; index + 1 < components.size() && parent.IsOpen(); ++index) {
        path /= components[index];
        parent = OpenComponent(parent.Get(), components[index].c_str(), path, false);
    }
    if (components.empty() || !parent.IsOpen())
        return {};
    path /= components.back();
    std::optional<struct stat> status;
    const CDescriptor store = OpenStep(parent.Get(), components.back().c_str(), path, status);
    if (!store.IsOpen())
        return {};
    const CDescriptor files =
        OpenStep(store.Get(), cFilesDirectory, path / cFilesDirectory, status);
    if (files.IsOpen())
        OpenStep(files.Get(), cTableName, path / cTableFile, status);
    if (!status || status->st_uid == 0)
        return {};
    return TStoreOwner{status->st_uid, GroupsOf(status->st_uid, status->st_gid)};
}

bool BecomeForeignOwner(const fs::path& directory) {
    const std::optional<TStoreOwner> owner = FindForeignOwner(directory);
    if (!owner)
        return false;
    if (setgroups(owner->groups.size(), owner->groups.data()) == -1 ||
        setgid(owner->groups.front()) == -1 || setuid(owner->user) == -1)
        throw SystemError(
            "cannot become user " + std::to_string(owner->user) + ", who owns the store", errno);
    // The kernel has just done so, unless fs.suid_dumpable permits it.
    prctl(PR_SET_DUMPABLE, 0);
    TakeEnvironmentOf(owner->user);
    return true;
}

}  // namespace vxsched
