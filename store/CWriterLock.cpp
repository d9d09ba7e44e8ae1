#include "store/CWriterLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include <vxsched/Error.h>
#include "store/Layout.h"

namespace vxsched {

// flock() has no timeout, so the lock is polled.
static constexpr std::chrono::milliseconds cPause(5);

CWriterLock::CWriterLock(const std::filesystem::path& directory,
                         std::chrono::milliseconds lockTimeout) {
    const std::filesystem::path files = directory / cFilesDirectory;
    descriptor = open(files.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1 && (errno == ENOENT || errno == ENOTDIR))
        throw CError(EError::cFailed,
                     "there is no directory " + files.string() +
                         ": no host has run here; give the host's working directory, or create it "
                         "to begin a table");
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
        throw CError(EError::cBusy,
                     "the writer lock of " + directory.string() +
                         " is held by other processes and did not become free within " +
                         std::to_string(lockTimeout.count()) +
                         " ms; nothing was changed; try again, or with a longer lock timeout");
    }
}

CWriterLock::~CWriterLock() {
    close(descriptor);
}

}  // namespace vxsched
