#include "runs/CRunHistory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/CDescriptor.h"
#include "base/OpenToAppend.h"
#include "base/RotatedFile.h"
#include "base/Sync.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cFilesDirectory;
using vxsched::cHistoryFile;
using vxsched::PrivateMode;

// Appends a line to the file. Returns the reason of a failure, or an empty string.
static std::string Append(const std::string& line) {
    std::string whyNot;
    const CDescriptor file =
        OpenToAppend(cHistoryFile, O_NOFOLLOW, 0600, EAppendable::cFile, whyNot);
    if (!file.IsOpen())
        return whyNot;
    struct stat before {};
    if (fstat(file.Get(), &before) != 0)
        return std::strerror(errno);
    // Not by open(), whose mode the umask narrows.
    if (before.st_size == 0)
        fchmod(file.Get(), PrivateMode("."));
    const ssize_t count = write(file.Get(), line.data(), line.size());
    if (count == static_cast<ssize_t>(line.size()))
        return "";
    const int error = count == -1 ? errno : ENOSPC;
    if (count > 0 && ftruncate(file.Get(), before.st_size) != 0)
        return std::strerror(errno);
    return std::strerror(error);
}

// Whether a power failure has left a part of a line, which the next record must not be joined to.
static bool EndsWithinALine() {
    const CDescriptor file(open(cHistoryFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char last = '\n';
    if (file.IsOpen() && lseek(file.Get(), -1, SEEK_END) != -1)
        static_cast<void>(!read(file.Get(), &last, 1));
    return last != '\n';
}

void CRunHistory::Add(const TRunRecord& record) {
    if (limit == 0)
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string recorded = JsonLine(record);
    const std::string line = (EndsWithinALine() ? "\n" : "") + recorded;
    if (!RotateBeyond(cHistoryFile, limit, line.size()))
        warn(fmt::format("cannot rename {}: {}; it grows beyond its size limit", cHistoryFile,
                         std::strerror(errno)));
    if (const std::string whyNot = Append(line); !whyNot.empty())
        warn(fmt::format("cannot write to {}: {}; lost the record {}", cHistoryFile, whyNot,
                         recorded.substr(0, recorded.size() - 1)));
}

void CRunHistory::Sync() {
    if (limit == 0)
        return;
    const std::lock_guard<std::mutex> lock(mutex);
    const CDescriptor file(open(cHistoryFile, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.IsOpen() || !SyncFile(file.Get()))
        warn(
            fmt::format("cannot flush {} to the disk: {}; a power failure may lose its last "
                        "records",
                        cHistoryFile, std::strerror(errno)));
    SyncDirectory(cFilesDirectory);
}
