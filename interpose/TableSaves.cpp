// Interposed open(), stat(), read(), write() and close(), which make the add-in's saves of the
// table atomic, for programs that load the add-in.
//
// The add-in rewrites its file in place. A kill or a full disk would leave a partial table, which
// the next reader takes for a damaged one and resets. Here, what it writes goes to a temporary
// file, which is renamed to the table on close(), and only if every write succeeded. A reader sees
// the old table or the new one. Where no temporary file can be made, or not with the owner and mode
// of the table, the table is rewritten in place.
//
// If a read fails, the add-in's list is stale or empty; its saves are discarded until a read
// succeeds.
//
// All of them act on the add-in's accesses only, which they recognise by its spelling of the path
// and by the descriptors that result; other calls go straight to the next definition. The add-in
// makes its accesses under the store mutex, on the thread that ticks or makes an exported call.

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

// The temporary file of the save in progress. There is at most one, since the store mutex is held
// during a save; so the members that are not atomic belong to the thread that saves.
std::atomic<int> gDescriptor{-1};
char gName[64];
bool gIsComplete = false;

// The descriptor by which the add-in is reading the table, and whether its last attempt failed.
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

int NextOpen(const char* path, int flags, mode_t mode) {
    static auto* const next = NextDefinition<int(const char*, int, ...)>("open");
    return next(path, flags, mode);
}

int NextClose(int descriptor) {
    static auto* const next = NextDefinition<int(int)>("close");
    const int result = next(descriptor);
    return result == -1 && errno == EINTR ? 0 : result;  // Linux closes it all the same
}

// The add-in's read opens the file without O_TRUNC and O_CREAT, by this spelling of the path. The
// program itself uses other spellings.
bool IsTableRead(const char* path, int flags) {
    return (flags & (O_TRUNC | O_CREAT)) == 0 && std::strcmp(path, cTable) == 0;
}

bool IsTableSave(const char* path, int flags) {
    return (flags & O_TRUNC) != 0 && std::strcmp(path, cTable) == 0;
}

// Gives the temporary file the owner and mode of the table or, if there is none, the mode that the
// add-in asks for. False if that fails, or if the table is a link or has several: a rename would
// replace the link.
bool CopyPermissions(int descriptor, mode_t mode) {
    struct stat status {};
    if (lstat(cTable, &status) == -1)
        return errno == ENOENT && fchmod(descriptor, mode & 0777) == 0;
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           fchown(descriptor, status.st_uid, status.st_gid) == 0 &&
           fchmod(descriptor, status.st_mode & 07777) == 0;
}

int OpenNewTable(int flags, mode_t mode) {
    // A table that this process may not write must not be replaced either.
    if (access(cTable, W_OK) == -1 && errno != ENOENT)
        return -1;
    std::snprintf(gName, sizeof gName, "%s.save-%d", cTable, static_cast<int>(getpid()));
    const int descriptor = NextOpen(gName, flags | O_CREAT | O_NOFOLLOW, mode);
    if (descriptor != -1 && CopyPermissions(descriptor, mode))
        return descriptor;
    if (descriptor != -1) {
        NextClose(descriptor);
        unlink(gName);
    }
    return -1;
}

// A missing table is not a failed read: there is nothing to lose.
int OpenForReading(int flags, mode_t mode) {
    const int descriptor = NextOpen(cTable, flags, mode);
    if (descriptor == -1 && errno == EINTR)
        return descriptor;  // the add-in tries again
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

// Called by the add-in and the program. Differs for the table's path: opening it to save opens a
// temporary file or, after a failed read, /dev/null; if no temporary file can be made, the table
// itself. Opening it to read notes whether that succeeds. Fails only as the next open() does; errno
// is its own.
INTERPOSED int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const bool hasMode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    const auto mode = hasMode ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    if (IsTableRead(path, flags))
        return OpenForReading(flags, mode);
    if (gHasReadFailed && IsTableSave(path, flags))
        return NextOpen("/dev/null", O_WRONLY | O_CLOEXEC, 0);
    if (gDescriptor == -1 && IsTableSave(path, flags)) {
        const int descriptor = OpenNewTable(flags, mode);
        if (descriptor != -1) {
            gIsComplete = true;
            gDescriptor = descriptor;
            return descriptor;
        }
    }
    return NextOpen(path, flags, mode);
}

// Called by the add-in before it reads the table, and by the program. Result and errno are those of
// the next stat(). A failure for the table's path other than ENOENT counts as a failed read.
INTERPOSED int stat(const char* path, struct stat* status) noexcept {
    static auto* const next = NextDefinition<int(const char*, struct stat*)>("stat");
    const int result = next(path, status);
    if (result == -1 && std::strcmp(path, cTable) == 0) {
        if (errno == ENOENT)
            gHasReadFailed = false;
        else
            ReadFailed();
    }
    return result;
}

// Called by the add-in and the program. Result and errno are those of the next read(). A failure on
// the table other than EINTR counts as a failed read.
INTERPOSED ssize_t read(int descriptor, void* bytes, size_t count) {
    static auto* const next = NextDefinition<ssize_t(int, void*, size_t)>("read");
    const ssize_t result = next(descriptor, bytes, count);
    if (result == -1 && errno != EINTR && descriptor != -1 && descriptor == gReading)
        ReadFailed();
    return result;
}

// Called by the add-in and the program. Result and errno are those of the next write(). A failure
// on the temporary file other than EINTR makes close() discard it.
INTERPOSED ssize_t write(int descriptor, const void* bytes, size_t count) {
    static auto* const next = NextDefinition<ssize_t(int, const void*, size_t)>("write");
    const ssize_t written = next(descriptor, bytes, count);
    if (written == -1 && errno != EINTR && descriptor == gDescriptor)
        gIsComplete = false;
    return written;
}

// Called by the add-in and the program. Unlike libc's it succeeds on EINTR, since the descriptor is
// closed then. For a temporary file it also renames it to the table, or removes it if a write
// failed or an exception ended the save; if the rename fails, it returns -1 with its errno, and the
// old table stays.
INTERPOSED int close(int descriptor) {
    if (descriptor != -1 && descriptor == gReading) {
        gReading = -1;
        const int result = NextClose(descriptor);
        if (result == -1)
            ReadFailed();
        return result;
    }
    if (descriptor == -1 || descriptor != gDescriptor)
        return NextClose(descriptor);
    gDescriptor = -1;
    int result = NextClose(descriptor);
    // During stack unwinding the add-in closes a file that it has not written to the end.
    const bool isComplete = gIsComplete && std::uncaught_exceptions() == 0;
    if (result == 0 && isComplete)
        result = rename(gName, cTable);
    if (result != 0 || !isComplete) {
        const int error = errno;
        unlink(gName);
        errno = error;
    }
    return result;
}
