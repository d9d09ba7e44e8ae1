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

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t cBlock = 1 << 16;
// Ten thousand bytes a task, for a hundred thousand of them.
constexpr std::uint64_t cMostBytes = std::uint64_t{1} << 30;

class CDescriptor {
public:
    CDescriptor(const fs::path& path, int flags, mode_t mode)
        : number(open(path.c_str(), flags | O_CLOEXEC, mode)) {}
    ~CDescriptor() {
        if (number != -1)
            close(number);
    }
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Number() const { return number; }

private:
    int number;
};

// Leaves no half-made file behind.
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

// Before memory is taken for it.
void RequireASize(std::uint64_t size, const fs::path& file) {
    if (size > cMostBytes)
        throw CError(EError::cFailed,
                     "cannot read " + file.string() + ": it has " + std::to_string(size) +
                         " bytes, and no table has more than " + std::to_string(cMostBytes) +
                         "; put a sound one in its place");
}

// Of the table, or of its folder as long as there is none.
std::optional<struct stat> StatusOf(const fs::path& table) {
    struct stat status {};
    if (stat(table.c_str(), &status) == 0 || stat(table.parent_path().c_str(), &status) == 0)
        return status;
    return {};
}

// Writes a new file and gives it the name `target`, with the rights of `like`.
void Replace(const fs::path& target, std::string_view bytes, const std::optional<struct stat>& like,
             bool keepOwner) {
    const fs::path fresh = target.string() + ".new-" + std::to_string(getpid());
    const CDescriptor descriptor(fresh, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, 0600);
    if (descriptor.Number() == -1)
        throw SystemError("cannot write " + fresh.string(), errno);
    const CTemporary temporary(fresh);
    WriteAll(descriptor.Number(), bytes, fresh);
    if (like && fchown(descriptor.Number(), like->st_uid, like->st_gid) == -1 && keepOwner)
        throw SystemError("cannot leave " + target.string() + " to its owner", errno);
    // A folder's: the owner is to be the same, the rights are a file's.
    fchmod(descriptor.Number(), like && S_ISREG(like->st_mode) ? like->st_mode & 0777 : 0644);
    if (rename(fresh.c_str(), target.c_str()) == -1)
        throw SystemError("cannot replace " + target.string(), errno);
}

// Into the file as it is, of which nothing is changed unless there is room for all.
void Overwrite(const fs::path& path, std::string_view bytes) {
    const CDescriptor descriptor(path, O_WRONLY, 0);
    const auto size = static_cast<off_t>(bytes.size());
    struct stat former {};
    if (descriptor.Number() == -1 || fstat(descriptor.Number(), &former) == -1)
        throw SystemError("cannot write " + path.string(), errno);
    if (size > former.st_size && fallocate(descriptor.Number(), FALLOC_FL_KEEP_SIZE, 0, size) == -1)
        throw SystemError("cannot make room for " + path.string(), errno);
    WriteAll(descriptor.Number(), bytes, path);
    if (ftruncate(descriptor.Number(), size) == -1)
        throw SystemError("cannot cut off " + path.string(), errno);
}

}  // namespace

fs::path TableFile(const fs::path& directory) {
    return directory / "files" / "scheduler.dat";
}

fs::path BackupFile(const fs::path& directory) {
    return directory / "files" / "scheduler.dat.before";
}

std::string ReadBytes(const fs::path& file) {
    const CDescriptor descriptor(file, O_RDONLY, 0);
    if (descriptor.Number() == -1) {
        if (errno == ENOENT)
            return std::string(8, '\0');
        throw SystemError("cannot read " + file.string(), errno);
    }
    struct stat status {};
    const bool hasSize = fstat(descriptor.Number(), &status) == 0 && S_ISREG(status.st_mode);
    if (hasSize)
        RequireASize(static_cast<std::uint64_t>(status.st_size), file);
    // A byte more than there is said to be, so that the end is seen at once.
    std::string bytes(hasSize ? static_cast<std::size_t>(status.st_size) + 1 : cBlock, '\0');
    std::size_t length = 0;
    ssize_t count = 0;
    while ((count = read(descriptor.Number(), bytes.data() + length, bytes.size() - length)) != 0) {
        if (count == -1 && errno != EINTR)
            throw SystemError("cannot read " + file.string(), errno);
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
        RequireASize(length, file);
        if (length == bytes.size())
            bytes.resize(length + cBlock);
    }
    bytes.resize(length);
    return bytes;
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
