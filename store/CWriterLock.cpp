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

CLoadTurn::CLoadTurn(const std::filesystem::path& directory, std::chrono::milliseconds patience) {
    const std::filesystem::path folder = directory / "files";
    descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1 && (errno == ENOENT || errno == ENOTDIR))
        throw CClientError(EError::cFailed,
                           "there is no folder " + folder.string() +
                               ": no host has run in this directory; name the host's directory, or "
                               "create the folder to begin a table");
    if (descriptor == -1)
        throw SystemError("cannot open " + folder.string(), errno);
    const auto end = std::chrono::steady_clock::now() + patience;
    while (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        const int error = errno;
        if (error == EWOULDBLOCK && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(cPause);
            continue;
        }
        close(descriptor);
        if (error != EWOULDBLOCK)
            throw SystemError("cannot lock " + folder.string(), error);
        throw CClientError(EError::cBusy, "others have been changing the table of " +
                                              directory.string() + " for " +
                                              std::to_string(patience.count()) +
                                              " ms; nothing was changed; try again");
    }
}

CLoadTurn::~CLoadTurn() {
    close(descriptor);
}

}  // namespace vxsched
