#include "store/COwnerAccess.h"

#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>

#include "store/StoreOwner.h"

namespace vxsched {

namespace {

// libc's setgroups() sets the groups of all threads.
void SetGroupsOfThread(const std::vector<gid_t>& groups) {
    syscall(SYS_setgroups, groups.size(), groups.data());
}

uid_t UserOfThread() {
    return static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));  // changes nothing
}

std::vector<gid_t> GroupsOfThread() {
    const int count = getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<std::size_t>(count) : 0);
    if (!groups.empty() && getgroups(count, groups.data()) != count)
        groups.clear();
    return groups;
}

}  // namespace

COwnerAccess::COwnerAccess(const std::filesystem::path& directory) {
    if (UserOfThread() != geteuid())
        return;
    const std::optional<TStoreOwner> owner = FindForeignOwner(directory);
    if (!owner)
        return;
    isActing = true;
    ownGroups = GroupsOfThread();
    SetGroupsOfThread(owner->groups);
    setfsgid(owner->groups.front());
    setfsuid(owner->user);  // drops the superuser's capabilities for files as well
}

COwnerAccess::~COwnerAccess() {
    if (!isActing)
        return;
    setfsuid(geteuid());
    setfsgid(getegid());
    SetGroupsOfThread(ownGroups);
}

}  // namespace vxsched
