#include <vxsched/SchedulingProcess.h>

#include <CEvent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "base/Processes.h"
#include "base/RegularFile.h"
#include "base/SameFile.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

bool MayInspect(pid_t process) {
    struct stat status {};
    return stat((ProcessDirectory(process) / "cwd").c_str(), &status) == 0;
}

// Whether a process is of a user who may use the store. Any other who may read the directory could
// lock it, or work in it, to be taken for its scheduling process; so could one by a set-user-ID
// program, which has that user as its real one.
bool MayScheduleIn(const fs::path& directory, pid_t process) {
    const std::vector<uid_t> users = UsersOf(process);
    return !users.empty() && std::all_of(users.begin(), users.end(),
                                         [&](uid_t user) { return MayUse(user, directory); });
}

// The process that holds an flock() on the file. Trying to take the lock would show that, too, but
// would keep out a host that starts up at that moment.
std::optional<pid_t> LockHolder(const fs::path& store, const struct stat& directory) {
    struct stat status {};
    if (stat((store / cLockFile).c_str(), &status) != 0)
        return {};
    const std::string inode = ':' + std::to_string(status.st_ino);
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream words(line);
        std::string number, kind, strength, access, process, which;
        words >> number >> kind >> strength >> access >> process >> which;
        // Inode numbers are unique within one file system only, so the process has to work in the
        // directory as well, and to be a host, if this user may inspect it.
        const std::optional<pid_t> holder = ParseProcess(process);
        if (kind == "FLOCK" && which.ends_with(inode) && holder && MayScheduleIn(store, *holder) &&
            (IsSameFile(ProcessDirectory(*holder) / "cwd", directory) || !MayInspect(*holder)) &&
            MapsFile(*holder, cHostProgram).value_or(true))
            return holder;
    }
    return {};
}

bool HasSeveralThreads(pid_t process) {
    std::error_code ignored;
    const fs::directory_iterator threads(ProcessDirectory(process) / "task", ignored);
    return std::distance(begin(threads), end(threads)) > 1;
}

std::optional<pid_t> FindHostIn(const fs::path& store, const struct stat& directory) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
        const std::optional<pid_t> process = ParseProcess(entry.path().filename().string());
        if (process && IsSameFile(entry.path() / "cwd", directory) &&
            MayScheduleIn(store, *process) && MapsFile(*process, cAddInFile).value_or(false) &&
            HasSeveralThreads(*process))
            return process;
    }
    return {};
}

// A host that /proc/locks does not show, since it runs in another PID namespace. Its lock is asked
// for, and not tried. Its file has its IPC namespace in the second line.
std::optional<TSchedulingProcess> FindUnseenHost(const fs::path& file) {
    const CDescriptor descriptor = OpenRegularFile(file.c_str(), O_RDONLY);
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (!descriptor.IsOpen() || fcntl(descriptor.Get(), F_OFD_GETLK, &lock) == -1 ||
        lock.l_type != F_WRLCK)  // a shared lock needs no write permission: it is nobody's host
        return {};
    std::ifstream content(file);
    std::string process;
    ino_t ipcNamespace = 0;
    struct stat own {};
    const bool isKnown = static_cast<bool>(content >> process >> ipcNamespace) &&
                         stat("/proc/self/ns/ipc", &own) == 0;
    return TSchedulingProcess{0, !isKnown || own.st_ino == ipcNamespace, true};
}

// Throws CError (cNoAccess) if this user cannot see the lock of a host.
void RequireAccessToLock(const fs::path& directory) {
    struct stat status {};
    if (stat((directory / cLockFile).c_str(), &status) == -1 && errno == EACCES)
        throw MakeError(EError::cNoAccess,
                        "cannot determine whether a scheduling process runs: cannot enter {}: "
                        "{}; run this as the owner of the store",
                        (directory / cFilesDirectory).string(), std::strerror(EACCES));
}

void Signal(const char* name, bool manualReset) {
    try {
        CEvent(name, manualReset).SetEvent();
    } catch (const std::system_error& error) {
        throw SystemError(std::string("cannot signal the event \"") + name + '"',
                          error.code().value());
    }
}

}  // namespace

std::string TSchedulingProcess::Name() const {
    return process == 0 ? "a process of another PID namespace"
                        : "process " + std::to_string(process);
}

std::optional<TSchedulingProcess> FindSchedulingProcess(const fs::path& directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0) {
        RequireAccessToLock(directory);
        return {};
    }
    std::optional<pid_t> process = LockHolder(directory, status);
    const bool holdsLock = process.has_value();
    if (!process)
        process = FindHostIn(directory, status);
    if (process)
        return TSchedulingProcess{*process, SharesIpcNamespace(ProcessDirectory(*process)),
                                  holdsLock};
    RequireAccessToLock(directory);
    return FindUnseenHost(directory / cLockFile);
}

void WakeSchedulingProcess() {
    Signal(cStopEventName, false);
}

void AnnounceChange() {
    Signal(cTaskChangedEventName, true);
}

}  // namespace vxsched
