// Saves of the table in one step, for a program that loads the add-in. The add-in rewrites its file
// in place; a program that is killed, or a disk that fills up, would leave half a table behind, which
// the next reader takes for a damaged one and resets. A program that exports these functions has the
// add-in's calls of them come here: what it writes goes to a new file, which takes the place of the
// table when it is closed, and only if every write went well. Whoever reads sees the former table or
// the new one.
//
// Where there can be no new file beside the table, or it could not be left to the table's owner, the
// table is rewritten in place as before.
//
// Nor does a table perish because the system failed to let it be read: the add-in then goes on with an
// empty list, or with the one it had, and would save that. Its saves go nowhere until it has read the table.

#include "interpose/TableSaves.h"

#include "interpose/NextDefinition.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

namespace {

constexpr char cTable[] = "files/scheduler.dat";

// The file that is being written in the place of the table. There is one at most: whoever saves holds
// the store mutex.
std::atomic<int> gDescriptor{-1};
char gName[64];
bool gIsWhole = false;

// The table while the add-in reads it, and whether it failed to.
std::atomic<int> gReading{-1};
std::atomic<bool> gHasReadFailed{false};
std::atomic<void (*)()> gReadFailureListener{nullptr};

void ReadFailed() {
    const int error = errno;
    gHasReadFailed = true;
    if (const auto listener = gReadFailureListener.load())
        listener();
    errno = error;
}

int OpenSystems(const char* path, int flags, mode_t mode) {
    static auto* const system = NextDefinition<int(const char*, int, ...)>("open");
    return system(path, flags, mode);
}

int CloseSystems(int descriptor) {
    static auto* const system = NextDefinition<int(int)>("close");
    const int result = system(descriptor);
    return result == -1 && errno == EINTR ? 0 : result;  // it is closed all the same
}

// The add-in opens the file for both to read it. The spelling of the path is its own, too: nobody
// else's reading is meant.
bool IsARead(const char* path, int flags) {
    return (flags & (O_TRUNC | O_CREAT)) == 0 && std::strcmp(path, cTable) == 0;
}

bool IsASave(const char* path, int flags) {
    return (flags & O_TRUNC) != 0 && std::strcmp(path, cTable) == 0;
}

// Rights as the table has them, or as the add-in gives them to a new one.
bool TakeRights(int descriptor, mode_t mode) {
    struct stat status {};
    if (lstat(cTable, &status) == -1)
        return errno == ENOENT && fchmod(descriptor, mode & 0777) == 0;
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           fchown(descriptor, status.st_uid, status.st_gid) == 0 &&
           fchmod(descriptor, status.st_mode & 07777) == 0;
}

int OpenNewTable(int flags, mode_t mode) {
    // A table that may not be written is not replaced either.
    if (access(cTable, W_OK) == -1 && errno != ENOENT)
        return -1;
    std::snprintf(gName, sizeof gName, "%s.save-%d", cTable, static_cast<int>(getpid()));
    const int descriptor = OpenSystems(gName, flags | O_CREAT | O_NOFOLLOW, mode);
    if (descriptor != -1 && TakeRights(descriptor, mode))
        return descriptor;
    if (descriptor != -1) {
        CloseSystems(descriptor);
        unlink(gName);
    }
    return -1;
}

// Without a table there is nothing to lose.
int OpenForReading(int flags, mode_t mode) {
    const int descriptor = OpenSystems(cTable, flags, mode);
    if (descriptor == -1 && errno == EINTR)
        return descriptor;  // it is tried again
    if (descriptor == -1 && errno != ENOENT) {
        ReadFailed();
    } else {
        gReading = descriptor;
        gHasReadFailed = false;
    }
    return descriptor;
}

}  // namespace

void SetReadFailureListener(void (*listener)()) {
    gReadFailureListener = listener;
}

INTERPOSED int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const bool hasMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const auto mode = hasMode ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (IsARead(path, flags))
        return OpenForReading(flags, mode);
    if (gHasReadFailed && IsASave(path, flags))
        return OpenSystems("/dev/null", O_WRONLY | O_CLOEXEC, 0);
    if (gDescriptor == -1 && IsASave(path, flags)) {
        const int descriptor = OpenNewTable(flags, mode);
        if (descriptor != -1) {
            gIsWhole = true;
            gDescriptor = descriptor;
            return descriptor;
        }
    }
    return OpenSystems(path, flags, mode);
}

INTERPOSED int stat(const char* path, struct stat* status) noexcept {
    static auto* const system = NextDefinition<int(const char*, struct stat*)>("stat");
    const int result = system(path, status);
    if (result == -1 && std::strcmp(path, cTable) == 0) {
        if (errno == ENOENT)
            gHasReadFailed = false;
        else
            ReadFailed();
    }
    return result;
}

INTERPOSED ssize_t read(int descriptor, void* bytes, size_t count) {
    static auto* const system = NextDefinition<ssize_t(int, void*, size_t)>("read");
    const ssize_t result = system(descriptor, bytes, count);
    if (result == -1 && errno != EINTR && descriptor != -1 && descriptor == gReading)
        ReadFailed();
    return result;
}

INTERPOSED ssize_t write(int descriptor, const void* bytes, size_t count) {
    static auto* const system = NextDefinition<ssize_t(int, const void*, size_t)>("write");
    const ssize_t written = system(descriptor, bytes, count);
    if (written == -1 && errno != EINTR && descriptor == gDescriptor)
        gIsWhole = false;
    return written;
}

INTERPOSED int close(int descriptor) {
    if (descriptor != -1 && descriptor == gReading) {
        gReading = -1;
        const int result = CloseSystems(descriptor);
        if (result == -1)
            ReadFailed();
        return result;
    }
    if (descriptor == -1 || descriptor != gDescriptor)
        return CloseSystems(descriptor);
    gDescriptor = -1;
    int result = CloseSystems(descriptor);
    // The add-in closes its file also when an exception ends the save early.
    const bool isWhole = gIsWhole && std::uncaught_exceptions() == 0;
    if (result == 0 && isWhole)
        result = rename(gName, cTable);
    if (result != 0 || !isWhole) {
        const int error = errno;
        unlink(gName);
        errno = error;
    }
    return result;
}
