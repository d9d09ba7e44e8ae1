#pragma once

#include <sys/types.h>

#include <filesystem>
#include <vector>

namespace vxsched {

// While an object exists, the thread that made it accesses files as the owner of the store's
// `files/` would, with the owner's groups: the scheduling process runs as that user, so that it
// launches what that user may execute. Only the superuser can do so; under any other user, in a
// store of the superuser's own, and before there is a store, nothing changes.
//
// It changes what the kernel checks accesses to files with (setfsuid) and the thread's groups, and
// nothing else: signals, other threads and the process's own identity stay as they are. At most one
// object per thread at a time.
class COwnerAccess {
public:
    explicit COwnerAccess(const std::filesystem::path& directory);
    ~COwnerAccess();
    COwnerAccess(const COwnerAccess&) = delete;
    COwnerAccess& operator=(const COwnerAccess&) = delete;

private:
    bool isActing = false;
    std::vector<gid_t> ownGroups;
};

}  // namespace vxsched
