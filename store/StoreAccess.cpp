#include "store/StoreAccess.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "store/Layout.h"

namespace vxsched {

namespace {

// The group that the store is open to.
std::optional<gid_t> GroupWithAccess(const std::filesystem::path& directory) {
    struct stat store {};
    struct stat files {};
    const bool isOpen = stat(directory.c_str(), &store) == 0 &&
                        stat((directory / cFilesDirectory).c_str(), &files) == 0 &&
                        (store.st_mode & S_IXGRP) != 0 && (files.st_mode & S_IWGRP) != 0;
    return isOpen ? std::optional(files.st_gid) : std::nullopt;
}

}  // namespace

mode_t PrivateMode(const std::filesystem::path& directory) {
    return GroupWithAccess(directory) ? 0660 : 0600;
}

int MakePrivateDirectory(const std::filesystem::path& path, const std::filesystem::path& store) {
    if (mkdir(path.c_str(), 0700) == -1)
        return errno == EEXIST ? 0 : errno;
    // Not by mkdir(), whose mode the umask narrows.
    if (PrivateMode(store) != 0600)
        chmod(path.c_str(), 0770);
    return 0;
}

bool MayUse(uid_t user, const std::filesystem::path& directory) {
    struct stat store {};
    if (user == 0 || user == geteuid() ||
        (stat(directory.c_str(), &store) == 0 && store.st_uid == user))
        return true;
    const std::optional<gid_t> group = GroupWithAccess(directory);
    if (!group)
        return false;
    const std::vector<gid_t> groups = GroupsOf(user, static_cast<gid_t>(-1));
    return std::find(groups.begin(), groups.end(), *group) != groups.end();
}

std::vector<gid_t> GroupsOf(uid_t user, gid_t group) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 1 << 14> strings{};
    if (getpwuid_r(user, &entry, strings.data(), strings.size(), &found) != 0 || found == nullptr)
        return {group};
    std::vector<gid_t> groups(1);
    auto count = static_cast<int>(groups.size());
    while (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) == -1)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

}  // namespace vxsched
