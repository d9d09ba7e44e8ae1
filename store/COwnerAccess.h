#pragma once

#include <sys/types.h>

#include <filesystem>
#include <vector>

namespace vxsched {

// While an object exists, the thread that made it accesses files as the owner of the store would,
// with the owner's groups (see FindForeignOwner(), whose errors the constructor throws). For a
// library in the superuser's process, which goes on as the superuser afterwards. Under any other
// user, in a store of the superuser's own, and within the life of another object of the same
// thread, it does nothing.
//
// It changes what the kernel checks accesses to files with (setfsuid) and the thread's groups, and
// nothing else: signals, other threads and the process's own identity stay as they are.
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
