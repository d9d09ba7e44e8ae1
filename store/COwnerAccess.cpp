#include "store/COwnerAccess.h"

#include <grp.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

#include "store/Layout.h"

namespace vxsched {

namespace {

// libc's setgroups() sets the groups of all threads.
void SetGroupsOfThread(const std::vector<gid_t>& groups) {
    syscall(SYS_setgroups, groups.size(), groups.data());
}

std::vector<gid_t> GroupsOfThread() {
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (!groups.empty() && getgroups(count, groups.data()) != count)
        groups.clear();
    return groups;
}

// The user's groups, the main one first, as a login or a service manager would set them; for a user
// without an entry in the user database, the group of the directory.
std::vector<gid_t> GroupsOf(const struct stat& files) {
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 1 << 14> strings{};
    if (getpwuid_r(files.st_uid, &entry, strings.data(), strings.size(), &found) != 0 ||
        found == nullptr)
        return {files.st_gid};
    std::vector<gid_t> groups(1);
    auto count = static_cast<int>(groups.size());
    while (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) == -1)
        groups.resize(static_cast<std::size_t>(count));
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

}  // namespace

COwnerAccess::COwnerAccess(const std::filesystem::path& directory) {
    struct stat files {};
    if (geteuid() != 0 || stat((directory / cFilesDirectory).c_str(), &files) != 0 ||
        files.st_uid == 0)
        return;
    const std::vector<gid_t> groups = GroupsOf(files);
    isActing = true;
    ownGroups = GroupsOfThread();
    SetGroupsOfThread(groups);
    setfsgid(groups.front());
    setfsuid(files.st_uid);  // drops the superuser's capabilities for files as well
}

COwnerAccess::~COwnerAccess() {
    if (!isActing)
        return;
    setfsuid(geteuid());
    setfsgid(getegid());
    SetGroupsOfThread(ownGroups);
}

}  // namespace vxsched
