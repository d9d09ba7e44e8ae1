#include "store/CWriterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include <vxsched/Error.h>

namespace vxsched {

// The system has no wait with an end for this lock, so it is asked again and again.
static constexpr std::chrono::milliseconds cPause(5);

CWriterLock::CWriterLock(const std::filesystem::path& directory,
                         std::chrono::milliseconds lockTimeout) {
    const std::filesystem::path files = directory / "files";
    descriptor = open(files.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1 && (errno == ENOENT || errno == ENOTDIR))
        throw CError(EError::cFailed,
                     "there is no folder " + files.string() +
                         ": no host has run in this directory; name the host's directory, or "
                         "create the folder to begin a table");
    if (descriptor == -1)
        throw SystemError("cannot open " + files.string(), errno);
    const auto end = std::chrono::steady_clock::now() + lockTimeout;
    while (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        const int error = errno;
        if (error == EWOULDBLOCK && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(cPause);
            continue;
        }
        close(descriptor);
        if (error != EWOULDBLOCK)
            throw SystemError("cannot lock " + files.string(), error);
        throw CError(EError::cBusy, "others have been changing the table of " + directory.string() +
                                        " for " + std::to_string(lockTimeout.count()) +
                                        " ms; nothing was changed; try again");
    }
}

CWriterLock::~CWriterLock() {
    close(descriptor);
}

}  // namespace vxsched
