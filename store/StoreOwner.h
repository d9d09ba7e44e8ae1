#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <vector>

namespace vxsched {

// The user as whom the superuser works on a store. The scheduling process of a store runs as its
// owner; the owner decides what the store's names refer to, links included. A superuser who opened
// them as such would read and write whatever the owner had them point to.
struct TStoreOwner {
    uid_t user;
    std::vector<gid_t> groups;  // the main one first
};

// Finds the owner of the store in `directory`. Empty unless this process is the superuser's and the
// store another user's. Opens the components of the path, `files/` and the table one after the other;
// what does not exist is skipped. Throws CError (cNoAccess), only under the superuser: one of them is
// a link that the superuser has not made; or the directory, `files/` or the table may be written by
// others than its owner, or has another owner than the directory.
std::optional<TStoreOwner> FindForeignOwner(const std::filesystem::path& directory);

// Has this process be the foreign owner of a store from now on, if it has one, with the groups and
// the environment that a login would have: it cannot become the superuser again, and what it
// launches learns nothing of the superuser's environment. Kept are LANG, LC_..., TZ and
// VXSCHED_NO_SYNC. Returns whether there is such an owner. The owner may not inspect this process:
// not its memory, which still has the superuser's environment, and not its descriptors. Throws as
// FindForeignOwner() does. To be called while the process has one thread.
bool BecomeForeignOwner(const std::filesystem::path& directory);

}  // namespace vxsched
