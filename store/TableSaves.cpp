// The hook of COpen that makes the add-in's saves of the table atomic.
//
// The add-in rewrites its file in place. A kill or a full disk would leave a partial table, which
// the next reader takes for a damaged one and resets. Here, what it writes goes to a temporary
// file, which is renamed to the table when it is closed, and only if every write succeeded. A
// reader sees the old table or the new one. The file is flushed to the disk before the rename, and
// its name afterwards, so that this holds after a power failure as well.
//
// A direct client's load sets the store mutex free under its holder, so another process may save
// in the middle of a tick or of a change. What the add-in reads is therefore a copy, taken while
// nobody writes; and what others have saved since that copy is merged into what the add-in saves.
//
// If a read fails, the add-in's list is stale or empty; its saves are discarded until a read
// succeeds. A FIFO or a device in place of the table is such a failure, and so is a link to
// nothing: that table cannot be reached, and a save would create another one.

#include "store/TableSaves.h"

#include <VXC_FileHook.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include <vxsched/SchedulingProcess.h>
#include "base/CDescriptor.h"
#include "base/DynamicSymbols.h"
#include "base/RegularFile.h"
#include "base/Sync.h"
#include "base/WriteAll.h"
#include "scheduler/TaskFields.h"
#include "store/CFormerTable.h"
#include "store/CReadLease.h"
#include "store/Layout.h"
#include "store/MergeChanges.h"
#include "store/StoreAccess.h"
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

// The table that the add-in's list shows: as it was read or saved last, empty if that is unknown.
// Under the store mutex.
std::string gKnown;
// Of gKnown, for threads that may not hold the mutex any more.
std::atomic<std::size_t> gKnownHash{0};

std::size_t HashOf(std::string_view bytes) {
    return std::hash<std::string_view>()(bytes);
}

// Returns what was known before.
std::string Know(std::string bytes) {
    gKnownHash = HashOf(bytes);
    return std::exchange(gKnown, std::move(bytes));
}

std::atomic<bool> gHasReadFailed{false};
std::atomic<void (*)()> gReadFailureListener{nullptr};
std::atomic<void (*)()> gSaveListener{nullptr};

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
// add-in asks for, wider in a store that is open to a group. False if that fails, or if the table is
// a link or has several: a rename would replace the link.
bool CopyPermissions(int descriptor, mode_t mode) {
    struct stat status {};
    if (lstat(cTableFile, &status) == -1)
        return errno == ENOENT && fchmod(descriptor, (mode & 0777) | NewTableMode(".")) == 0;
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
    const int descriptor = open(path, (flags & ~O_ACCMODE) | O_RDWR | O_CREAT | O_NOFOLLOW, mode);
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
    if (const auto listener = gSaveListener.load())
        listener();
    const int descriptor = OpenTemporary(flags, mode);
    if (descriptor == -1) {
        gInPlace = OpenTable(flags, mode);
        return gInPlace;
    }
    gTemporary = descriptor;
    return descriptor;
}

// Returns a file in memory with the same bytes; closed on failure.
CDescriptor CopyOf(std::string_view bytes) {
    CDescriptor copy(memfd_create(cTableName, MFD_CLOEXEC));
    return copy.IsOpen() && WriteAllAt(copy.Get(), bytes, 0) ? std::move(copy) : CDescriptor();
}

// Returns a copy of an open table, or, where that fails, the table itself.
int OpenCopy(CDescriptor table) {
    try {
        const CReadLease nobodyWrites(table.Get());
        Know(ReadBytes(table.Get(), cTableFile));
        if (CDescriptor copy = CopyOf(gKnown); copy.IsOpen())
            return copy.Release();
    } catch (const std::exception&) {
        // The add-in's own read fails as well, or succeeds now.
    }
    Know("");
    lseek(table.Get(), 0, SEEK_SET);
    return table.Release();
}

// A missing table is not a failed read: there is nothing to lose. The missing target of a link may
// hold tasks. A table that this process may not write is not read either.
int OpenToRead(int flags, mode_t mode) {
    CDescriptor table;
    if (faccessat(AT_FDCWD, cTableFile, W_OK, AT_EACCESS) == 0)
        table = CDescriptor(OpenTable((flags & ~O_ACCMODE) | O_RDONLY, mode));
    if (!table.IsOpen() && errno == EINTR)
        return -1;  // COpen tries again
    const int error = errno;
    if (!table.IsOpen() && (error != ENOENT || IsLinkToNothing(cTableFile))) {
        ReadFailed(error);
        return -1;
    }
    gHasReadFailed = false;
    errno = error;
    return table.IsOpen() ? OpenCopy(std::move(table)) : -1;
}

int OpenFile(const char* path, int flags, unsigned int mode) {
    if (!IsTable(path))
        return cVXC_OpenAsUsual;
    if ((flags & O_TRUNC) != 0)
        return OpenToSave(flags, mode);
    return (flags & O_CREAT) != 0 ? cVXC_OpenAsUsual : OpenToRead(flags, mode);
}

// A save that is about to replace the table.
struct TSave {
    std::string bytes;  // as the add-in wrote them
    bool isMerged = false;
    std::unique_ptr<CFormerTable> former;  // null if it cannot be read
};

bool Rewrite(int descriptor, std::string_view bytes) {
    return ftruncate(descriptor, 0) == 0 && WriteAllAt(descriptor, bytes, 0) &&
           SyncFile(descriptor);
}

// Merges what others have saved since the add-in read the table into its save, and flushes it.
// False, with errno, if it cannot be written.
bool Complete(int descriptor, TSave& save) {
    if (!SyncFile(descriptor))
        return false;
    try {
        lseek(descriptor, 0, SEEK_SET);
        save.bytes = ReadBytes(descriptor, cTableFile);
        save.former = std::make_unique<CFormerTable>(".");
        const std::string merged = MergeChanges(gKnown, save.bytes, save.former->Bytes());
        save.isMerged = merged != save.bytes;
        return !save.isMerged || Rewrite(descriptor, merged);
    } catch (const std::exception&) {
        // Without the memory for it, or the former table, the save is made as it is.
        save = {};
        return true;
    }
}

// Has the table, which is replaced by now, hold what others have written into the former one.
void Settle(TSave& save) {
    const std::string before = Know(std::move(save.bytes));
    try {
        std::optional<std::string> written;
        if (save.former)
            written = save.former->WrittenSince();
        if (written)
            ReplaceMerged(".", save.former->BaseOfOthers(before), *written, TryToSaveTable);
        // The add-in's list lacks it.
        if (written || save.isMerged)
            AnnounceChange();
    } catch (const std::exception&) {
        // The add-in's save is made.
    }
}

int CloseSave(int descriptor, bool isComplete) {
    gTemporary = -1;
    const CTemporaryPath path;
    TSave save;
    bool isGood = isComplete && Complete(descriptor, save);
    int error = errno;
    const int closed = Close(descriptor);
    if (isGood && (closed == -1 || rename(path, cTableFile) == -1)) {
        isGood = false;
        error = errno;
    }
    if (!isGood) {
        unlink(path);
        errno = error;
        return isComplete ? -1 : closed;
    }
    SyncDirectory(cFilesDirectory);
    Settle(save);
    return 0;
}

// If the close of a table that was rewritten in place fails, the add-in empties its list: that must
// not be saved either.
int CloseFile(int descriptor, bool isComplete) {
    if (descriptor == gTemporary)
        return CloseSave(descriptor, isComplete);
    if (descriptor == gInPlace) {
        gInPlace = -1;
        if (!SyncFile(descriptor))
            ReportSyncFailure(cTableFile);
        Know("");  // the list shows this table now
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

void SetSaveListener(void (*listener)()) {
    gSaveListener = listener;
}

bool ListShows(std::string_view table) {
    return gKnownHash == HashOf(table);
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
