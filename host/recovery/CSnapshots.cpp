#include "host/recovery/CSnapshots.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <system_error>
#include <vector>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "base/WriteAll.h"
#include "store/Layout.h"
#include "store/TableFile.h"
#include "store/TimestampedFiles.h"

namespace fs = std::filesystem;

static constexpr std::string_view cBeginning = vxsched::cSnapshotPrefix;

static std::system_error Failure(const char* what, const fs::path& path) {
    return {errno, std::generic_category(), fmt::format("cannot {} {}", what, path.string())};
}

static void Write(const fs::path& path, const std::string& bytes) {
    const CDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!file.IsOpen())
        throw Failure("create", path);
    if (!WriteAll(file.Get(), bytes))
        throw Failure("write", path);
    if (fsync(file.Get()) == -1)
        throw Failure("sync", path);
}

CSnapshots::CSnapshots(std::size_t most) : limit(most) {}

fs::path CSnapshots::Directory() {
    return vxsched::cSnapshotDirectory;
}

// Whether the youngest snapshot holds `bytes`; its modification time is then set to now, since
// FindBackup() compares it with that of the backup that clients make. Without this check, a host
// that is restarted over and over would replace all older snapshots with the same table.
static bool RefreshIfYoungest(const std::string& bytes) {
    const std::vector<vxsched::TTimestampedFile> snapshots =
        vxsched::FindTimestamped(CSnapshots::Directory(), cBeginning);
    try {
        if (snapshots.empty() || vxsched::ReadBytes(snapshots.back().path) != bytes)
            return false;
    } catch (const vxsched::CError&) {
        return false;
    }
    return utimensat(AT_FDCWD, snapshots.back().path.c_str(), nullptr, 0) == 0;
}

void CSnapshots::Keep(const std::shared_ptr<const std::string>& bytes) {
    if (limit == 0 || bytes == last || (last && *bytes == *last))
        return;
    if (!last && RefreshIfYoungest(*bytes)) {
        last = bytes;
        return;
    }
    if (mkdir(Directory().c_str(), 0700) == -1 && errno != EEXIST)
        throw Failure("create", Directory());
    const vxsched::TFileTimestamp name =
        vxsched::NextTimestamp(vxsched::FindTimestamped(Directory(), cBeginning), vxsched::Now());
    const fs::path path =
        Directory() / fmt::format("{}{:012}-{:06}", cBeginning, name.time, name.number);
    const fs::path temporary = Directory() / "new";
    try {
        Write(temporary, *bytes);
    } catch (const std::system_error&) {
        unlink(temporary.c_str());
        throw;
    }
    if (rename(temporary.c_str(), path.c_str()) == -1)
        throw Failure("create", path);
    const CDescriptor directory(open(Directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.IsOpen() || fsync(directory.Get()) == -1)
        throw Failure("sync", Directory());
    last = bytes;
    vxsched::RemoveOldest(Directory(), cBeginning, limit);
}
