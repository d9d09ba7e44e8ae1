#include "host/startup/CDirectoryLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>

#include "base/CDeadline.h"
#include "base/Processes.h"
#include "host/CHostError.h"
#include "store/Layout.h"

using vxsched::cLockFile;

static std::string HolderOf(int descriptor) {
    char content[32];
    const ssize_t length = pread(descriptor, content, sizeof content, 0);
    const std::string holder(content, length > 0 ? static_cast<std::size_t>(length) : 0);
    return holder.substr(0, holder.find('\n'));
}

// Whether the lock is held by a leftover of a killed host. A host that is killed during a launch
// leaves a process that is about to become the program. It inherited the lock and holds it until
// its exec, and has created its launch record by then, so waiting for it also means that the next
// host sees the record.
static bool IsLeftOver(const std::string& holder) {
    const std::optional<pid_t> process = vxsched::ParseProcess(holder);
    return process && vxsched::HasEnded(*process);
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
      file(open(cLockFile, O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
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
