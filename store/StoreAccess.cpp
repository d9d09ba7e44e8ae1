#include "store/StoreAccess.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

#include "base/Users.h"
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
    if (const std::optional<gid_t> group = GroupWithAccess(store)) {
        static_cast<void>(!chown(path.c_str(), static_cast<uid_t>(-1), *group));
        // A service may be denied the bit (RestrictSUIDSGID=); then only the group itself is set.
        if (chmod(path.c_str(), 02770) == -1)
            chmod(path.c_str(), 0770);
    }
    return 0;
}

mode_t NewTableMode(const std::filesystem::path& directory) {
    return GroupWithAccess(directory) ? 0664 : 0644;
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

std::string WhoMayUse(const std::filesystem::path& directory) {
    struct stat store {};
    struct stat files {};
    if (geteuid() == 0 || stat(directory.c_str(), &store) == -1 || store.st_uid == geteuid())
        return "";
    // Another user may not even see `files/`.
    const bool mayGroupWrite =
        stat((directory / cFilesDirectory).c_str(), &files) == -1 || (files.st_mode & S_IWGRP) != 0;
    const std::string owner = "user " + FindUser(store.st_uid).name;
    return (store.st_mode & S_IXGRP) != 0 && mayGroupWrite
               ? owner + " and the group " + NameOfGroup(store.st_gid)
               : owner + " alone";
}

}  // namespace vxsched
