#include "store/CWriterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "base/CDeadline.h"
#include "base/ShellWord.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

CWriterLock::CWriterLock(const std::filesystem::path& directory,
                         std::chrono::milliseconds lockTimeout) {
    const std::filesystem::path files = directory / cFilesDirectory;
    descriptor = CDescriptor(open(files.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!descriptor.IsOpen() && (errno == ENOENT || errno == ENOTDIR))
        throw MakeError(
            EError::cFailed,
            "there is no directory {}: no host has run there; set --directory or "
            "VXSCHED_DIRECTORY to the host's working directory, or run mkdir {} to begin a table",
            AbsolutePath(files), ShellWord(AbsolutePath(files)));
    if (!descriptor.IsOpen())
        throw SystemError("cannot open " + files.string(), errno);
    const CDeadline deadline(lockTimeout);
    while (flock(descriptor.Get(), LOCK_EX | LOCK_NB) == -1) {
        if (errno != EWOULDBLOCK)
            throw SystemError("cannot lock " + files.string(), errno);
        if (!deadline.Pause())
            throw MakeError(EError::cBusy,
                            "the writer lock of {} is held by other processes and did not become "
                            "free within {} ms",
                            AbsolutePath(directory), lockTimeout.count());
    }
}

std::optional<TSetOwner> CWriterLock::OwnerForSets() const {
    struct stat status {};
    if (fstat(descriptor.Get(), &status) == -1)
        throw SystemError("cannot read the owner of the directory \"files\"", errno);
    if (geteuid() != 0 && geteuid() == status.st_uid)
        return {};
    return TSetOwner{status.st_uid, status.st_gid};
}

}  // namespace vxsched
