#include "store/StoreOwner.h"

#include <fcntl.h>
#include <grp.h>
#include <paths.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// A user's entry in the user database. For one that is not there, as whom nobody can log in, what
// matters to a program.
struct TUser {
    std::optional<gid_t> group;
    std::string name;
    std::string home = "/";
    std::string shell = "/bin/sh";
};

TUser FindUser(uid_t user) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 1 << 14> strings{};
    if (getpwuid_r(user, &entry, strings.data(), strings.size(), &found) != 0 || found == nullptr)
        return {.group = {}, .name = std::to_string(user)};
    TUser known{.group = found->pw_gid, .name = found->pw_name, .home = found->pw_dir};
    if (*found->pw_shell != '\0')
        known.shell = found->pw_shell;
    return known;
}

// As a login or a service manager would set them; for a user without an entry in the user database,
// the group of the directory.
std::vector<gid_t> GroupsOf(const struct stat& status) {
    const TUser user = FindUser(status.st_uid);
    if (!user.group)
        return {status.st_gid};
    std::vector<gid_t> groups(1);
    auto count = static_cast<int>(groups.size());
    while (getgrouplist(user.name.c_str(), *user.group, groups.data(), &count) == -1)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

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

// Opens one component of a path and checks it. A link is followed only if the superuser made it, in
// a store that is the superuser's so far. Closed if there is nothing.
CDescriptor OpenStep(int parent, const char* name, const fs::path& path,
                     std::optional<struct stat>& first) {
    struct stat status {};
    CDescriptor step(openat(parent, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    const bool isLink = step.IsOpen() && fstat(step.Get(), &status) == 0 && S_ISLNK(status.st_mode);
    if (isLink && (status.st_uid != 0 || (first && first->st_uid != 0)))
        throw MakeError(EError::cNoAccess,
                        "{} is a symbolic link of user {}, which is not followed for the "
                        "superuser; work as the owner of the store",
                        path.string(), status.st_uid);
    if (isLink)
        step = CDescriptor(openat(parent, name, O_PATH | O_CLOEXEC));
    if (!step.IsOpen() && errno == ENOENT)
        return step;
    if (!step.IsOpen() || fstat(step.Get(), &status) == -1)
        throw SystemError("cannot open " + path.string(), errno);
    if (!first)
        first = status;
    if (status.st_uid != first->st_uid)
        throw MakeError(EError::cNoAccess,
                        "{} belongs to user {}, and the store to user {}; the superuser works on a "
                        "store of one owner only: run chown, or work as the owner of the store",
                        path.string(), status.st_uid, first->st_uid);
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        throw MakeError(EError::cNoAccess,
                        "{} may be written by others than its owner (mode {:04o}); the superuser "
                        "does not work on such a store: run chmod go-w {}, or work as the owner",
                        path.string(), status.st_mode & 07777U, path.string());
    return step;
}

}  // namespace

std::optional<TStoreOwner> FindForeignOwner(const fs::path& directory) {
    if (geteuid() != 0)
        return {};
    // A name that ends with a slash would be followed.
    const fs::path last = directory.has_filename() ? directory : directory.parent_path();
    std::optional<struct stat> status;
    const CDescriptor store = OpenStep(AT_FDCWD, last.c_str(), last, status);
    if (!store.IsOpen())
        return {};
    const CDescriptor files =
        OpenStep(store.Get(), cFilesDirectory, last / cFilesDirectory, status);
    if (files.IsOpen())
        OpenStep(files.Get(), cTableName, last / cTableFile, status);
    if (status->st_uid == 0)
        return {};
    return TStoreOwner{status->st_uid, GroupsOf(*status)};
}

bool BecomeForeignOwner(const fs::path& directory) {
    const std::optional<TStoreOwner> owner = FindForeignOwner(directory);
    if (!owner)
        return false;
    if (setgroups(owner->groups.size(), owner->groups.data()) == -1 ||
        setgid(owner->groups.front()) == -1 || setuid(owner->user) == -1)
        throw SystemError(
            "cannot become user " + std::to_string(owner->user) + ", who owns the store", errno);
    TakeEnvironmentOf(owner->user);
    return true;
}

}  // namespace vxsched
