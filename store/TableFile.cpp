#include "store/TableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <system_error>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "base/CDescriptor.h"
#include "base/RegularFile.h"
#include "base/Sync.h"
#include "base/WriteAll.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// A hundred thousand tasks of ten thousand bytes each.
constexpr std::uint64_t cMostBytes = std::uint64_t{1} << 30;

// Removes a temporary file at the end of the scope; after a rename() there is none left.
class CTemporary {
public:
    explicit CTemporary(fs::path where) : path(std::move(where)) {}
    ~CTemporary() { unlink(path.c_str()); }
    CTemporary(const CTemporary&) = delete;
    CTemporary& operator=(const CTemporary&) = delete;

private:
    const fs::path path;
};

void Write(int descriptor, std::string_view bytes, const fs::path& path) {
    if (!WriteAll(descriptor, bytes))
        throw SystemError("cannot write " + path.string(), errno);
}

void RequireTarget(const fs::path& path) {
    if (!IsLinkToNothing(path))
        return;
    std::error_code ignored;
    throw MakeError(EError::cFailed,
                    "{} is unavailable: it is a link to {}, which does not exist; mount or restore "
                    "the target, or remove the link",
                    path.string(), fs::read_symlink(path, ignored).string());
}

// The status of the table, or of its directory if there is no table.
std::optional<struct stat> StatusOf(const fs::path& table) {
    struct stat status {};
    if (stat(table.c_str(), &status) == 0 || stat(table.parent_path().c_str(), &status) == 0)
        return status;
    return {};
}

void RequireSynced(bool isSynced, const fs::path& path) {
    if (!isSynced)
        throw SystemError("cannot sync " + path.string(), errno);
}

// Gives a file the owner and the group of `like`. False if only the superuser may do that; a member of
// the group that the store is open to gives it the group.
bool GiveTo(const struct stat& like, int descriptor) {
    if (fchown(descriptor, like.st_uid, like.st_gid) == 0)
        return true;
    static_cast<void>(!fchown(descriptor, static_cast<uid_t>(-1), like.st_gid));
    return false;
}

enum class EReplace { cKeepOwner, cAsPermitted };

// Writes a temporary file, gives it the owner of `like` and the mode, and renames it to `target`.
// Returns false, and changes nothing, with cKeepOwner and if it may not give the file to that owner.
bool Replace(const fs::path& target, std::string_view bytes, const std::optional<struct stat>& like,
             mode_t mode, EReplace how, const char* suffix = cReplacementSuffix) {
    const fs::path fresh = target.string() + suffix + std::to_string(getpid());
    const CDescriptor descriptor(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!descriptor.IsOpen())
        throw SystemError("cannot write " + fresh.string(), errno);
    const CTemporary temporary(fresh);
    Write(descriptor.Get(), bytes, fresh);
    if (like && !GiveTo(*like, descriptor.Get()) && how == EReplace::cKeepOwner)
        return false;
    fchmod(descriptor.Get(), mode);
    RequireSynced(SyncFile(descriptor.Get()), fresh);
    if (rename(fresh.c_str(), target.c_str()) == -1)
        throw SystemError("cannot replace " + target.string(), errno);
    SyncDirectory(target.parent_path().c_str());
    return true;
}

// Of a table that exists, or that is to be made.
mode_t ModeOfTable(const fs::path& table, const fs::path& directory) {
    struct stat status {};
    return stat(table.c_str(), &status) == 0 && S_ISREG(status.st_mode) ? status.st_mode & 0777
                                                                        : NewTableMode(directory);
}

void WriteAt(int descriptor, std::string_view bytes, std::size_t offset, const fs::path& path) {
    if (!WriteAllAt(descriptor, bytes, static_cast<off_t>(offset)))
        throw SystemError("cannot write " + path.string(), errno);
}

}  // namespace

fs::path TableFile(const fs::path& directory) {
    return directory / cTableFile;
}

bool IsLinkToNothing(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) &&
           access(path.c_str(), F_OK) == -1 && errno == ENOENT;
}

std::string ReadBytes(const fs::path& file) {
    const CDescriptor descriptor = OpenRegularFile(file.c_str(), O_RDONLY);
    if (descriptor.IsOpen())
        return ReadBytes(descriptor.Get(), file);
    if (errno == cNotAFile)
        throw MakeError(EError::cFailed,
                        "cannot read {}: it is not a regular file; move it away, and copy a backup "
                        "there if there is one",
                        file.string());
    if (errno != ENOENT)
        throw SystemError("cannot read " + file.string(), errno);
    RequireTarget(file.parent_path());
    RequireTarget(file);
    return std::string(8, '\0');
}

std::string ReadBytes(int descriptor, const fs::path& file) {
    std::string bytes;
    if (ReadRegularFile(descriptor, cMostBytes, bytes))
        return bytes;
    if (errno != EFBIG)
        throw SystemError("cannot read " + file.string(), errno);
    std::error_code ignored;
    throw MakeError(EError::cFailed,
                    "cannot read {}: it has {} bytes, and no table has more than {}; replace it by "
                    "a valid table",
                    file.string(), fs::file_size(file, ignored), cMostBytes);
}

std::string ReadTableBytes(const fs::path& directory) {
    return ReadBytes(TableFile(directory));
}

bool IsValidTable(std::string_view bytes) {
    try {
        DecodeTable(bytes, TTime());
        return true;
    } catch (const CError&) {
        return false;
    }
}

std::string TableState(const fs::path& directory) {
    struct stat status {};
    if (stat(TableFile(directory).c_str(), &status) != 0)
        return "";
    return std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec) +
           ' ' + std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size);
}

static bool TryToReplaceBy(const fs::path& directory, std::string_view bytes, const char* suffix) {
    std::error_code ignored;
    const fs::path file = TableFile(directory);
    RequireTarget(file);
    const fs::path target = fs::exists(file, ignored) ? fs::canonical(file, ignored) : file;
    const std::optional<struct stat> status = StatusOf(target);
    // A table that is made anew has no owner to keep.
    const EReplace how =
        fs::exists(target, ignored) ? EReplace::cKeepOwner : EReplace::cAsPermitted;
    if (Replace(target, bytes, status, ModeOfTable(target, directory), how, suffix))
        return true;
    // Another name of the file is a copy that has to stay, see ReplaceDamaged().
    if (status->st_nlink > 1)
        throw SystemError("cannot keep the owner of " + target.string(), EPERM);
    return false;
}

bool TryToReplaceTable(const fs::path& directory, std::string_view bytes) {
    return TryToReplaceBy(directory, bytes, cReplacementSuffix);
}

static bool HasSeveralNames(const fs::path& table) {
    struct stat status {};
    return stat(table.c_str(), &status) == 0 && status.st_nlink > 1;
}

bool TryToSaveTasks(const fs::path& directory, std::string_view bytes) {
    return !HasSeveralNames(TableFile(directory)) && TryToReplaceTable(directory, bytes);
}

bool TryToSaveTable(const fs::path& directory, std::string_view bytes) {
    return !HasSeveralNames(TableFile(directory)) && TryToReplaceBy(directory, bytes, cSaveSuffix);
}

void OverwriteTable(const fs::path& directory, std::string_view bytes) {
    const fs::path file = TableFile(directory);
    const CDescriptor descriptor = OpenRegularFile(file.c_str(), O_WRONLY);
    if (!descriptor.IsOpen())
        throw SystemError("cannot write " + file.string(), errno);
    OverwriteTable(descriptor.Get(), bytes, file);
}

void ReplaceTable(const fs::path& directory, std::string_view bytes) {
    if (!TryToReplaceTable(directory, bytes))
        OverwriteTable(directory, bytes);
}

void ReplaceOrOverwriteTable(const fs::path& directory, std::string_view bytes) {
    try {
        ReplaceTable(directory, bytes);
    } catch (const CError&) {
        OverwriteTable(directory, bytes);
    }
}

void OverwriteTable(int descriptor, std::string_view bytes, const fs::path& file) {
    constexpr std::size_t cCount = sizeof(std::uint64_t);  // of tasks, at the beginning of the file
    const auto size = static_cast<off_t>(bytes.size());
    if (fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size) == -1 && errno != EOPNOTSUPP)
        throw SystemError("cannot allocate space for " + file.string(), errno);
    // More tasks than any file has bytes: until the last step the file counts as damaged, not as a
    // table of old and new bytes. So each step is on the disk before the next.
    const std::string damaged(cCount, std::numeric_limits<char>::max());
    WriteAt(descriptor, damaged, 0, file);
    RequireSynced(SyncData(descriptor), file);
    WriteAt(descriptor, bytes.substr(cCount), cCount, file);
    if (ftruncate(descriptor, size) == -1)
        throw SystemError("cannot truncate " + file.string(), errno);
    RequireSynced(SyncData(descriptor), file);
    WriteAt(descriptor, bytes.substr(0, cCount), 0, file);
    RequireSynced(SyncData(descriptor), file);
}

void RenameToTable(const fs::path& file, const fs::path& directory) {
    const fs::path table = TableFile(directory);
    chmod(file.c_str(), ModeOfTable(table, directory));
    if (rename(file.c_str(), table.c_str()) == -1)
        throw SystemError("cannot replace " + table.string() + " by " + file.string(), errno);
    SyncDirectory(table.parent_path().c_str());
}

void WriteNewFile(const fs::path& file, std::string_view bytes, const fs::path& directory) {
    Replace(file, bytes, StatusOf(TableFile(directory)), PrivateMode(directory),
            EReplace::cAsPermitted);
}

void RemoveLeftovers(const fs::path& directory) {
    for (const char* const place : {cFilesDirectory, cSnapshotDirectory}) {
        std::error_code error;
        for (fs::directory_iterator entry(directory / place, error);
             !error && entry != fs::directory_iterator(); entry.increment(error)) {
            const std::string name = entry->path().filename().string();
            if (name.starts_with(cTableName) &&
                (name.find(cReplacementSuffix) != std::string::npos ||
                 name.find(cSaveSuffix) != std::string::npos))
                unlink(entry->path().c_str());
        }
    }
}

}  // namespace vxsched
