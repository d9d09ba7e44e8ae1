#include "store/TableFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <system_error>

#include <vxsched/Error.h>
#include "base/CDescriptor.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t cBlock = 1 << 16;
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

void WriteAll(int descriptor, std::string_view bytes, const fs::path& path) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count > 0)
            bytes.remove_prefix(static_cast<std::size_t>(count));
        else if (errno != EINTR)
            throw SystemError("cannot write " + path.string(), errno);
    }
}

// Checked before memory is allocated for the file.
void RequireSize(std::uint64_t size, const fs::path& file) {
    if (size > cMostBytes)
        throw CError(EError::cFailed,
                     "cannot read " + file.string() + ": it has " + std::to_string(size) +
                         " bytes, and no table has more than " + std::to_string(cMostBytes) +
                         "; replace it by a valid table");
}

void RequireTarget(const fs::path& path) {
    if (!IsLinkToNothing(path))
        return;
    std::error_code ignored;
    throw CError(EError::cFailed, path.string() + " is unavailable: it is a link to " +
                                      fs::read_symlink(path, ignored).string() +
                                      ", which does not exist; mount or restore the target, or "
                                      "remove the link");
}

// The status of the table, or of its directory if there is no table.
std::optional<struct stat> StatusOf(const fs::path& table) {
    struct stat status {};
    if (stat(table.c_str(), &status) == 0 || stat(table.parent_path().c_str(), &status) == 0)
        return status;
    return {};
}

// Writes a temporary file, gives it the owner and mode of `like`, and renames it to `target`. With
// `keepOwner` it fails if it may not give the file to that owner.
void Replace(const fs::path& target, std::string_view bytes, const std::optional<struct stat>& like,
             bool keepOwner) {
    const fs::path fresh = target.string() + ".new-" + std::to_string(getpid());
    const CDescriptor descriptor(
        open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!descriptor.IsOpen())
        throw SystemError("cannot write " + fresh.string(), errno);
    const CTemporary temporary(fresh);
    WriteAll(descriptor.Get(), bytes, fresh);
    if (like && fchown(descriptor.Get(), like->st_uid, like->st_gid) == -1 && keepOwner)
        throw SystemError("cannot keep the owner of " + target.string(), errno);
    // Where `like` is a directory, only its owner is taken over.
    fchmod(descriptor.Get(), like && S_ISREG(like->st_mode) ? like->st_mode & 0777 : 0644);
    if (rename(fresh.c_str(), target.c_str()) == -1)
        throw SystemError("cannot replace " + target.string(), errno);
}

// Overwrites the file in place. Its space is allocated first, so that a full disk changes nothing.
void Overwrite(const fs::path& path, std::string_view bytes) {
    const CDescriptor descriptor(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    const auto size = static_cast<off_t>(bytes.size());
    struct stat former {};
    if (!descriptor.IsOpen() || fstat(descriptor.Get(), &former) == -1)
        throw SystemError("cannot write " + path.string(), errno);
    if (size > former.st_size && fallocate(descriptor.Get(), FALLOC_FL_KEEP_SIZE, 0, size) == -1)
        throw SystemError("cannot allocate space for " + path.string(), errno);
    WriteAll(descriptor.Get(), bytes, path);
    if (ftruncate(descriptor.Get(), size) == -1)
        throw SystemError("cannot truncate " + path.string(), errno);
}

}  // namespace

fs::path TableFile(const fs::path& directory) {
    return directory / "files" / "scheduler.dat";
}

fs::path BackupFile(const fs::path& directory) {
    return directory / "files" / "scheduler.dat.before";
}

bool IsLinkToNothing(const fs::path& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) &&
           access(path.c_str(), F_OK) == -1 && errno == ENOENT;
}

std::string ReadBytes(const fs::path& file) {
    const CDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.IsOpen()) {
        if (errno != ENOENT)
            throw SystemError("cannot read " + file.string(), errno);
        RequireTarget(file.parent_path());
        RequireTarget(file);
        return std::string(8, '\0');
    }
    struct stat status {};
    const bool hasSize = fstat(descriptor.Get(), &status) == 0 && S_ISREG(status.st_mode);
    if (hasSize)
        RequireSize(static_cast<std::uint64_t>(status.st_size), file);
    // One byte more than the size, so that the first read() finds the end.
    std::string bytes(hasSize ? static_cast<std::size_t>(status.st_size) + 1 : cBlock, '\0');
    std::size_t length = 0;
    ssize_t count = 0;
    while ((count = read(descriptor.Get(), bytes.data() + length, bytes.size() - length)) != 0) {
        if (count == -1 && errno != EINTR)
            throw SystemError("cannot read " + file.string(), errno);
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
        RequireSize(length, file);
        if (length == bytes.size())
            bytes.resize(length + cBlock);
    }
    bytes.resize(length);
    return bytes;
}

std::string ReadTableBytes(const fs::path& directory) {
    const fs::path file = TableFile(directory);
    // Opening a FIFO would wait for a writer, without limit and with the store mutex held.
    std::error_code ignored;
    if (fs::is_other(file, ignored))
        throw CError(EError::cFailed,
                     "cannot read " + file.string() + ": it is not a file; move it away");
    return ReadBytes(file);
}

std::string TableState(const fs::path& directory) {
    struct stat status {};
    if (stat(TableFile(directory).c_str(), &status) != 0)
        return "";
    return std::to_string(status.st_ctim.tv_sec) + '.' + std::to_string(status.st_ctim.tv_nsec) +
           ' ' + std::to_string(status.st_ino) + ' ' + std::to_string(status.st_size);
}

void ReplaceTable(const fs::path& directory, std::string_view bytes) {
    std::error_code ignored;
    const fs::path file = TableFile(directory);
    RequireTarget(file);
    const fs::path target = fs::exists(file, ignored) ? fs::canonical(file, ignored) : file;
    Replace(target, bytes, StatusOf(target), true);
}

void ReplaceOrOverwriteTable(const fs::path& directory, std::string_view bytes) {
    try {
        ReplaceTable(directory, bytes);
    } catch (const CError&) {
        Overwrite(TableFile(directory), bytes);
    }
}

void WriteNewFile(const fs::path& file, std::string_view bytes, const fs::path& directory) {
    Replace(file, bytes, StatusOf(TableFile(directory)), false);
}

void RemoveLeftovers(const fs::path& directory) {
    std::error_code error;
    for (fs::directory_iterator entry(directory / "files", error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.starts_with("scheduler.dat") &&
            (name.find(".new-") != std::string::npos || name.find(".save-") != std::string::npos))
            unlink(entry->path().c_str());
    }
}

void WriteBackup(const fs::path& directory, std::string_view bytes) {
    Replace(BackupFile(directory), bytes, StatusOf(TableFile(directory)), false);
}

}  // namespace vxsched
