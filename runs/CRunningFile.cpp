#include "runs/CRunningFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/FileLock.h"
#include "base/WriteAll.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cRunningDirectory;

// RecordDeadRunners() may remove a file before its runner has locked it.
static constexpr int cMostCreations = 10;

// How often a run is written, once more if its program begins later, and what its end takes at most
// besides what is known before.
static constexpr int cMostRecords = 3;
static constexpr std::size_t cEndSize = 1024;

static std::string PathOf(const std::string& id) {
    return std::string(cRunningDirectory) + '/' + id;
}

CRunningFile::CRunningFile(const TRunRecord& run) : path(PathOf(run.id)) {
    for (int attempt = 0; attempt < cMostCreations; ++attempt) {
        if (Create(run))
            return;
        if (errno != ENOENT)
            break;
    }
    error = std::strerror(errno);
    if (file.IsOpen())
        unlink(path.c_str());
}

static CDescriptor CreateFile(const std::string& path) {
    return CDescriptor(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

// As it is recorded if its runner dies.
static TRunRecord WithoutEnd(TRunRecord run) {
    run.outcome = TRunRecord::cRunnerDied;
    return run;
}

bool CRunningFile::Create(const TRunRecord& run) {
    file = CreateFile(path);
    if (!file.IsOpen() && errno == ENOENT) {
        vxsched::MakePrivateDirectory(cRunningDirectory, ".");
        file = CreateFile(path);
    }
    // A lock of this process alone: a process that it has just made, and that has not executed its
    // program yet, does not share it.
    if (!file.IsOpen() || !LockForWriting(file, F_SETLKW))
        return false;
    struct stat status {};
    if (fstat(file.Get(), &status) == 0 && status.st_nlink == 0) {
        errno = ENOENT;
        return false;
    }
    errno = vxsched::MakePrivate(file.Get(), ".");
    if (errno != 0)
        return false;
    // How the run ends has room on a disk that is full by then. In one block it has that anyway.
    const int records = cMostRecords + (run.job.empty() ? 0 : 1);
    const off_t room = records * static_cast<off_t>(JsonLine(run).size() + cEndSize);
    if (room > status.st_blksize)
        static_cast<void>(fallocate(file.Get(), FALLOC_FL_KEEP_SIZE, 0, room));
    return Append(WithoutEnd(run));
}

// The last whole line counts.
bool CRunningFile::Append(const TRunRecord& run) {
    return WriteAll(file.Get(), JsonLine(run));
}

void CRunningFile::Update(const TRunRecord& run) {
    if (error.empty())
        Append(WithoutEnd(run));
}

void CRunningFile::Finish(const TRunRecord& run) {
    if (error.empty())
        Append(run);
}

void CRunningFile::Remove() {
    if (error.empty())
        unlink(path.c_str());
}
