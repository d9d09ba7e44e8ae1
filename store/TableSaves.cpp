// The hook of COpen that makes the add-in's saves of the table atomic.
//
// The add-in rewrites its file in place. A kill or a full disk would leave a partial table, which
// the next reader takes for a damaged one and resets. Here, what it writes goes to a temporary
// file, which is renamed to the table when it is closed, and only if every write succeeded. A
// reader sees the old table or the new one. The file is flushed to the disk before the rename, and
// its name afterwards, so that this holds after a power failure as well.
//
// If a read fails, the add-in's list is stale or empty; its saves are discarded until a read
// succeeds. A FIFO or a device in place of the table is such a failure, and so is a link to
// nothing: that table cannot be reached, and a save would create another one.

#include "store/TableSaves.h"

#include <VXC_FileHook.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>

#include "base/DynamicSymbols.h"
#include "base/RegularFile.h"
#include "base/Sync.h"
#include "scheduler/TaskFields.h"
#include "store/Layout.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// The hook gets the path as the add-in spells it.
static_assert(std::string_view(cTableFile) == cTaskFile);

bool IsTable(const char* path) {
    return std::strcmp(path, cTableFile) == 0;
}

// The temporary file of the save in progress. There is at most one, since the store mutex is held
// during a save.
std::atomic<int> gTemporary{-1};
// Likewise the table, while it is rewritten in place.
std::atomic<int> gInPlace{-1};

std::atomic<bool> gHasReadFailed{false};
std::atomic<void (*)()> gReadFailureListener{nullptr};

void ReadFailed(int error) {
    gHasReadFailed = true;
    errno = error;
    if (const auto listener = gReadFailureListener.load())
        listener();
    errno = error;
}

// The path of this process's temporary file.
class CTemporaryPath {
public:
    CTemporaryPath() {
        std::snprintf(path, sizeof path, "%s%s%d", cTableFile, cSaveSuffix,
                      static_cast<int>(getpid()));
    }
    operator const char*() const { return path; }

private:
    char path[64];
};

// Linux closes a file all the same when close() is interrupted.
int Close(int descriptor) {
    const int result = close(descriptor);
    return result == -1 && errno == EINTR ? 0 : result;
}

// Gives the temporary file the owner and mode of the table or, if there is none, the mode that the
// add-in asks for. False if that fails, or if the table is a link or has several: a rename would
// replace the link.
bool CopyPermissions(int descriptor, mode_t mode) {
    struct stat status {};
    if (lstat(cTableFile, &status) == -1)
        return errno == ENOENT && fchmod(descriptor, mode & 0777) == 0;
    return S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           fchown(descriptor, status.st_uid, status.st_gid) == 0 &&
           fchmod(descriptor, status.st_mode & 07777) == 0;
}

// Opens the temporary file; -1 if the table has to be rewritten in place.
int OpenTemporary(int flags, mode_t mode) {
    // A table that this process may not write must not be replaced either.
    if (access(cTableFile, W_OK) == -1 && errno != ENOENT)
        return -1;
    const CTemporaryPath path;
    const int descriptor = open(path, flags | O_CREAT | O_NOFOLLOW, mode);
    if (descriptor != -1 && CopyPermissions(descriptor, mode))
        return descriptor;
    if (descriptor != -1) {
        Close(descriptor);
        unlink(path);
    }
    return -1;
}

// Opens the table itself. A FIFO or a device of its name is refused: the add-in would wait for its
// other end, or lose its tasks in it, with the store mutex held.
int OpenTable(int flags, mode_t mode) {
    return OpenRegularFile(cTableFile, flags, mode).Release();
}

int OpenToSave(int flags, mode_t mode) {
    if (!gHasReadFailed && IsLinkToNothing(cTableFile))
        ReadFailed(ENOENT);
    if (gHasReadFailed)
        return open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (gTemporary != -1)
        return cVXC_OpenAsUsual;
    const int descriptor = OpenTemporary(flags, mode);
    if (descriptor == -1) {
        gInPlace = OpenTable(flags, mode);
        return gInPlace;
    }
    gTemporary = descriptor;
    return descriptor;
}

// A missing table is not a failed read: there is nothing to lose. The missing target of a link may
// hold tasks.
int OpenToRead(int flags, mode_t mode) {
    const int descriptor = OpenTable(flags, mode);
    if (descriptor == -1 && errno == EINTR)
        return descriptor;  // COpen tries again
    const int error = errno;
    if (descriptor == -1 && (error != ENOENT || IsLinkToNothing(cTableFile)))
        ReadFailed(error);
    else
        gHasReadFailed = false;
    return descriptor;
}

int OpenFile(const char* path, int flags, unsigned int mode) {
    if (!IsTable(path))
        return cVXC_OpenAsUsual;
    if ((flags & O_TRUNC) != 0)
        return OpenToSave(flags, mode);
    return (flags & O_CREAT) != 0 ? cVXC_OpenAsUsual : OpenToRead(flags, mode);
}

int CloseSave(int descriptor, bool isComplete) {
    gTemporary = -1;
    const CTemporaryPath path;
    const int syncError = isComplete && !SyncFile(descriptor) ? errno : 0;
    int result = Close(descriptor);
    if (result == 0 && syncError != 0) {
        errno = syncError;
        result = -1;
    }
    if (result == 0 && isComplete)
        result = rename(path, cTableFile);
    if (result == 0 && isComplete) {
        SyncDirectory(cFilesDirectory);
        return result;
    }
    const int error = errno;
    unlink(path);
    errno = error;
    return result;
}

// If the close of a table that was rewritten in place fails, the add-in empties its list: that must
// not be saved either.
int CloseFile(int descriptor, bool isComplete) {
    if (descriptor == gTemporary)
        return CloseSave(descriptor, isComplete);
    if (descriptor == gInPlace) {
        gInPlace = -1;
        SyncFile(descriptor);
    }
    const int result = Close(descriptor);
    if (result == -1)
        ReadFailed(errno);
    return result;
}

constexpr VXC_FileHook cHook{.open = OpenFile, .readFailed = ReadFailed, .close = CloseFile};

constexpr char cConstructor[] = "_ZN5COpenC1EPKcij";  // COpen(const char*, int, unsigned int)

bool IsOfCOpen(std::string_view symbol) {
    return symbol.starts_with("_ZN5COpen") || symbol.starts_with("_ZNK5COpen");
}

// The library or program that holds an address; without a name if there is none.
Dl_info ObjectOf(const void* address) {
    Dl_info object{};
    dladdr(address, &object);
    return object;
}

}  // namespace

void SaveTableInOneStep() {
    VXC_SetFileHook(&cHook);
}

void NoteFileStatus(const char* path, int error) {
    if (error == 0 || !IsTable(path))
        return;
    if (error == ENOENT && !IsLinkToNothing(cTableFile))
        gHasReadFailed = false;
    else
        ReadFailed(error);
}

void SetReadFailureListener(void (*listener)()) {
    gReadFailureListener = listener;
}

// The dynamic linker searches the program and its libraries before the add-in and the libraries
// that it brings. So the search from here finds what the add-in will be bound to, as long as it
// leaves the symbol undefined.
std::string WhySavesAreNotInOneStep(const std::string& path) {
    std::set<std::string> used{cConstructor};
    if (path.find('/') != std::string::npos) {
        std::optional<TDynamicSymbols> symbols;
        try {
            symbols = ReadDynamicSymbols(path);
        } catch (const std::system_error&) {
            // The load reports it.
        }
        if (symbols && !symbols->undefined.contains(cConstructor))
            return "it does not leave COpen to libvxcsupport";
        if (symbols)
            used = std::move(symbols->undefined);
    }
    const Dl_info ours = ObjectOf(reinterpret_cast<const void*>(VXC_SetFileHook));
    for (const std::string& symbol : used) {
        if (!IsOfCOpen(symbol))
            continue;
        const void* const definition = dlsym(RTLD_DEFAULT, symbol.c_str());
        if (definition == nullptr)
            return std::string("it uses ") + symbol + ", which " + ours.dli_fname + " lacks";
        const Dl_info object = ObjectOf(definition);
        if (object.dli_fbase != ours.dli_fbase)
            return std::string("it opens its files with the COpen of ") + object.dli_fname +
                   " instead of that of " + ours.dli_fname;
    }
    return "";
}

}  // namespace vxsched
