#include "host/startup/CDirectoryLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "host/CHostError.h"

static constexpr char cLockFile[] = "files/vxschedd.lock";

static std::string HolderOf(int descriptor) {
    char text[32];
    const ssize_t length = pread(descriptor, text, sizeof text, 0);
    const std::string holder(text, length > 0 ? static_cast<std::size_t>(length) : 0);
    return holder.substr(0, holder.find('\n'));
}

// Also a zombie has ended, whose parent does not ask for it.
static bool HasEnded(const std::string& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string stat;
    if (!std::getline(file, stat))
        return kill(static_cast<pid_t>(std::strtol(process.c_str(), nullptr, 10)), 0) == -1 &&
               errno == ESRCH;
    return stat.find(") Z ") != std::string::npos || stat.find(") X ") != std::string::npos;
}

// A host that was killed in the middle of a start leaves a process behind that is about to become the
// program, and holds the lock until it has: its mark of the start is made by then.
static bool IsLeftOver(const std::string& holder) {
    return !holder.empty() && holder.find_first_not_of("0123456789") == std::string::npos &&
           HasEnded(holder);
}

// A host that was killed this very moment still has the lock, and nothing tells it from one that runs
// on: so a little patience is had with any. 0, or the error number.
static int Lock(int descriptor, const std::string& holder) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point start = TClock::now();
    while (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        const int error = errno;
        const std::chrono::seconds lockTimeout(IsLeftOver(holder) ? 5 : 1);
        if (error != EWOULDBLOCK || TClock::now() - start > lockTimeout)
            return error;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return 0;
}

CDirectoryLock::CDirectoryLock(const std::string& directory)
    : locked(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      file(open(cLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (!file.IsOpen())
        throw CHostError(cNoDirectory,
                         fmt::format("cannot open {}/{}: {}. Run vxschedd as a user who may write "
                                     "there.",
                                     directory, cLockFile, std::strerror(errno)));
    std::string holder = HolderOf(file.Get());
    int error = Lock(file.Get(), holder);
    if (error == 0)
        error = Lock(locked.Get(), holder);
    if (error == EWOULDBLOCK)
        throw CHostError(cSecondHost,
                         fmt::format("another host runs in {} (process {}). Stop it first, or name "
                                     "another directory with --directory.",
                                     directory, holder.empty() ? "unknown" : holder));
    if (error != 0)
        throw CHostError(cNoDirectory, fmt::format("cannot lock {}/{}: {}", directory, cLockFile,
                                                   std::strerror(error)));
    holder = fmt::format("{}\n", getpid());
    // The number is for the message above only: a disk that is full does not keep a host from
    // running.
    if (ftruncate(file.Get(), 0) == 0)
        static_cast<void>(pwrite(file.Get(), holder.data(), holder.size(), 0) == -1);
}
