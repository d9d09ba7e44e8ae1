#include "host/startup/CDirectoryLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "base/CDeadline.h"
#include "host/CHostError.h"
#include "store/Layout.h"

using vxsched::cLockFile;

static std::string HolderOf(int descriptor) {
    char content[32];
    const ssize_t length = pread(descriptor, content, sizeof content, 0);
    const std::string holder(content, length > 0 ? static_cast<std::size_t>(length) : 0);
    return holder.substr(0, holder.find('\n'));
}

// A zombie counts as ended: its parent just has not collected it.
static bool HasEnded(const std::string& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string stat;
    if (!std::getline(file, stat))
        return kill(static_cast<pid_t>(std::strtol(process.c_str(), nullptr, 10)), 0) == -1 &&
               errno == ESRCH;
    return stat.find(") Z ") != std::string::npos || stat.find(") X ") != std::string::npos;
}

// Whether the lock is held by a leftover of a killed host. A host that is killed during a launch
// leaves a process that is about to become the program. It inherited the lock and holds it until
// its exec, and has created its launch record by then, so waiting for it also means that the next
// host sees the record.
static bool IsLeftOver(const std::string& holder) {
    return !holder.empty() && holder.find_first_not_of("0123456789") == std::string::npos &&
           HasEnded(holder);
}

// Takes the lock; returns 0 or the error number. A host that was killed a moment ago may still hold
// the lock and cannot be distinguished from a running one, so this waits a little for any holder.
static int Lock(int descriptor, const std::string& holder) {
    const CDeadline forAnyHolder(std::chrono::seconds(1));
    const CDeadline forLeftOver(std::chrono::seconds(5));
    while (flock(descriptor, LOCK_EX | LOCK_NB) == -1) {
        const int error = errno;
        if (error != EWOULDBLOCK || !(IsLeftOver(holder) ? forLeftOver : forAnyHolder).Pause())
            return error;
    }
    return 0;
}

CDirectoryLock::CDirectoryLock(const std::string& directory)
    : locked(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)),
      file(open(cLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (!file.IsOpen())
        throw CHostError(cNoDirectory,
                         fmt::format("cannot open {}/{}: {}. Run vxschedd as a user with write "
                                     "permission.",
                                     directory, cLockFile, std::strerror(errno)));
    std::string holder = HolderOf(file.Get());
    int error = Lock(file.Get(), holder);
    if (error == 0)
        error = Lock(locked.Get(), holder);
    if (error == EWOULDBLOCK)
        throw CHostError(
            cSecondHost,
            fmt::format("another host runs in {} (process {}). Stop it first, or choose "
                        "another directory with --directory.",
                        directory, holder.empty() ? "unknown" : holder));
    if (error != 0)
        throw CHostError(cNoDirectory, fmt::format("cannot lock {}/{}: {}. Choose a directory on "
                                                   "a file system that supports flock.",
                                                   directory, cLockFile, std::strerror(error)));
    // Clients of other PID namespaces ask for this one: an flock() cannot be asked for.
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    fcntl(file.Get(), F_OFD_SETLK, &lock);
    struct stat ipcNamespace {};
    stat("/proc/self/ns/ipc", &ipcNamespace);
    holder = fmt::format("{}\n{}\n", getpid(), ipcNamespace.st_ino);
    // Only messages need the process and only these clients the namespace, so a full disk is no
    // reason not to run.
    if (ftruncate(file.Get(), 0) == 0)
        static_cast<void>(pwrite(file.Get(), holder.data(), holder.size(), 0) == -1);
}
