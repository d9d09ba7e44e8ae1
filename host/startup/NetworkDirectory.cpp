#include "host/startup/NetworkDirectory.h"

#include <fmt/format.h>
#include <sys/vfs.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "store/Layout.h"

namespace {

struct TFileSystem {
    std::uint32_t magic;
    const char* name;
};

// Those that several machines may have mounted, by statfs(2). Behind FUSE may be any.
constexpr TFileSystem cOfNetworks[] = {
    {0x6969, "NFS"},      {0x517b, "SMB"},       {0xff534d42, "CIFS"},   {0xfe534d42, "SMB"},
    {0x00c36400, "Ceph"}, {0x5346414f, "AFS"},   {0x6b414653, "AFS"},    {0x73757245, "Coda"},
    {0x01161970, "GFS2"}, {0x7461636f, "OCFS2"}, {0x0bd00bd0, "Lustre"}, {0x19830326, "BeeGFS"},
    {0x47504653, "GPFS"}, {0xaad7aaea, "PanFS"}, {0x01021997, "9P"},     {0x65735546, "FUSE"},
};

const TFileSystem* FindNetwork(const std::string& path) {
    struct statfs status {};
    if (statfs(path.c_str(), &status) == -1)
        return nullptr;
    const auto* const found =
        std::find_if(std::begin(cOfNetworks), std::end(cOfNetworks), [&](const TFileSystem& one) {
            return one.magic == static_cast<std::uint32_t>(status.f_type);
        });
    return found == std::end(cOfNetworks) ? nullptr : found;
}

}  // namespace

std::string WhyNotOnNetwork(const std::string& directory) {
    for (const std::string& path : {directory, directory + '/' + vxsched::cFilesDirectory}) {
        if (const TFileSystem* const found = FindNetwork(path))
            return fmt::format(
                "{} is on a file system that several machines may use ({}), where the directory "
                "lock may not keep a host on another machine away: each task would be launched "
                "twice. Choose a "
                "directory on a disk of this machine or, if a cluster manager runs vxschedd on one "
                "machine at a time, give --network-directory.",
                path, found->name);
    }
    return "";
}
