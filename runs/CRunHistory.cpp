#include "runs/CRunHistory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>

#include "base/CDeadline.h"
#include "base/CDescriptor.h"
#include "base/OpenToAppend.h"
#include "base/RotatedFile.h"
#include "base/SameFile.h"
#include "base/Sync.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cFilesDirectory;
using vxsched::cHistoryFile;
using vxsched::MakePrivate;

namespace {

// Another writer needs microseconds. One that is stopped must not keep the host from its launches.
constexpr std::chrono::seconds cLockTimeout(1);

// Each rotation by another writer costs one. After that the line goes to what is history.jsonl.1 by
// now, unless that has been removed as well.
constexpr int cMostAttempts = 100;

// The history, to append to. Only who holds its lock rotates it, or removes a partial line.
struct TOpened {
    CDescriptor file;  // closed if it cannot be opened, because of `whyNot`
    bool isLocked = false;
    std::string whyNot;
};

bool Lock(const CDescriptor& file, const CDeadline& deadline) {
    while (flock(file.Get(), LOCK_EX | LOCK_NB) == -1) {
        if (errno != EWOULDBLOCK || !deadline.Pause(std::chrono::milliseconds(1)))
            return false;
    }
    return true;
}

bool IsCurrent(const CDescriptor& file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && vxsched::IsSameFile(cHistoryFile, status);
}

// Whether no reader finds the file. A file system that counts no links has it all the same.
bool IsRotatedAway(const CDescriptor& file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && status.st_nlink == 0 && !IsCurrent(file);
}

// Appends a line. Returns the reason of a failure, or an empty string.
std::string Append(const TOpened& opened, const std::string& line) {
    const int file = opened.file.Get();
    struct stat before {};
    if (fstat(file, &before) != 0)
        return std::strerror(errno);
    if (before.st_size == 0)
        MakePrivate(file, ".");
    const ssize_t count = write(file, line.data(), line.size());
    if (count == static_cast<ssize_t>(line.size()))
        return "";
    const int error = count == -1 ? errno : ENOSPC;
    if (count > 0 && opened.isLocked && ftruncate(file, before.st_size) != 0)
        return std::strerror(errno);
    return std::strerror(error);
}

// Whether a power failure has left a part of a line, which the next record must not be joined to.
bool EndsWithinALine() {
    const CDescriptor file(open(cHistoryFile, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    char last = '\n';
    if (file.IsOpen() && lseek(file.Get(), -1, SEEK_END) != -1)
        static_cast<void>(!read(file.Get(), &last, 1));
    return last != '\n';
}

}  // namespace

// Opens the file for a line of `size` bytes, after a rotation if there is no room for it.
static TOpened Open(std::uint64_t limit, std::size_t size, const CDeadline& deadline,
                    const std::function<void(const std::string&)>& warn) {
    for (int attempt = 1;; ++attempt) {
        TOpened opened;
        opened.file =
            OpenToAppend(cHistoryFile, O_NOFOLLOW, 0600, EAppendable::cFile, opened.whyNot);
        if (!opened.file.IsOpen())
            return opened;
        opened.isLocked = Lock(opened.file, deadline);
        if (opened.isLocked && IsCurrent(opened.file) && !RotateBeyond(cHistoryFile, limit, size))
            warn(fmt::format("cannot rename {}: {}; it grows beyond its size limit", cHistoryFile,
                             std::strerror(errno)));
        // It has been renamed, by this process or by the one that had the lock.
        if (IsCurrent(opened.file) || attempt == cMostAttempts)
            return opened;
    }
}

bool CRunHistory::Add(const TRunRecord& record) {
    if (limit == 0)
        return true;
    const std::lock_guard<std::mutex> lock(mutex);
    const std::string line = JsonLine(record);
    const CDeadline deadline(isHeldUp ? std::chrono::seconds(0) : cLockTimeout);
    TOpened opened;
    std::string whyNot;
    // A file that is not locked, or was given up as the current one, may have been rotated twice before
    // the write. What is written again is in no other file: the removed one is gone.
    do {
        opened = Open(limit, line.size(), deadline, warn);
        // Without the lock the part of a line may be one that another writer is writing: the record is
        // cut in two whatever this one does.
        whyNot = opened.file.IsOpen() ? Append(opened, (EndsWithinALine() ? "\n" : "") + line)
                                      : opened.whyNot;
    } while (whyNot.empty() && IsRotatedAway(opened.file));
    isHeldUp = !opened.isLocked;
    if (!whyNot.empty())
        warn(fmt::format("cannot write to {}: {}; lost the record {}", cHistoryFile, whyNot,
                         line.substr(0, line.size() - 1)));
    return whyNot.empty();
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
