#include "runs/COutputFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "base/FileLock.h"
#include "base/RegularFile.h"
#include "base/WriteAll.h"
#include "store/StoreAccess.h"

namespace fs = std::filesystem;

// RemoveUnwrittenOutput() may remove a file before its writer has locked it.
static constexpr int cMostTries = 10;

static CDescriptor CreateAt(const fs::path& path) {
    CDescriptor directory(open(".", O_PATH | O_CLOEXEC));
    int follow = 0;
    for (const fs::path& name : path.parent_path()) {
        directory = CDescriptor(
            openat(directory.Get(), name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | follow));
        if (!directory.IsOpen())
            return directory;
        follow = O_NOFOLLOW;
    }
    return CDescriptor(openat(directory.Get(), path.filename().c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

static bool IsRemoved(const CDescriptor& file) {
    struct stat status {};
    return fstat(file.Get(), &status) == 0 && status.st_nlink == 0;
}

COutputFile::COutputFile(const std::string& outputPath, std::uint64_t size,
                         std::function<void(const std::string&)> logWarning)
    : path(outputPath), warn(std::move(logWarning)), header{.size = size} {
    if (size == 0)
        return;
    Create();
    if (!file.IsOpen() || !WriteHeader())
        Fail();
}

void COutputFile::Create() {
    for (int tries = 0; tries < cMostTries; ++tries) {
        file = CreateAt(path);
        if (!file.IsOpen())
            return;
        // Where the file system has no locks, the file is not kept from removal.
        LockForWriting(file, F_OFD_SETLKW);
        if (!IsRemoved(file))
            break;
    }
    vxsched::MakePrivate(file.Get(), ".");
}

void COutputFile::Fail() {
    error = std::strerror(errno);
    if (warn)
        warn(fmt::format(
            "cannot keep the output in {}: {}. The program goes on; what it writes after "
            "{} bytes is only counted.",
            path, error, header.written));
}

bool COutputFile::WriteHeader() {
    return WriteAllAt(file.Get(), EncodeOutputHeader(header), 0);
}

void COutputFile::Append(std::string_view bytes) {
    count += bytes.size();
    while (header.size > 0 && error.empty() && !bytes.empty()) {
        // A reader finds the other three quarters while one is overwritten.
        const std::string_view part = bytes.substr(0, std::max<std::uint64_t>(header.size / 4, 1));
        bytes.remove_prefix(part.size());
        if (!Write(part))
            Fail();
    }
}

// Writes at most the ring's size. A reader must not take bytes that are being overwritten for output,
// so these are given up first.
bool COutputFile::Write(std::string_view bytes) {
    const std::uint64_t begin = header.written % header.size;
    const std::size_t toTheEnd = std::min<std::uint64_t>(bytes.size(), header.size - begin);
    const auto place = [](std::uint64_t inRing) {
        return static_cast<off_t>(cOutputHeaderSize + inRing);
    };
    header.claimed = header.written + bytes.size();
    if (header.claimed > header.size && !WriteHeader())
        return false;
    if (!WriteAllAt(file.Get(), bytes.substr(0, toTheEnd), place(begin)) ||
        !WriteAllAt(file.Get(), bytes.substr(toTheEnd), place(0)))
        return false;
    header.written = header.claimed;
    return WriteHeader();
}

// The file of an output, locked if nobody writes it. What is no file, nobody writes.
static bool LockUnwritten(const std::string& path, CDescriptor& file) {
    file = OpenRegularFile(path.c_str(), O_WRONLY | O_NOFOLLOW);
    if (!file.IsOpen())
        return errno == ELOOP || errno == EISDIR || errno == cNotAFile || errno == ENOENT;
    return LockForWriting(file, F_OFD_SETLK) || (errno != EAGAIN && errno != EACCES);
}

bool IsOutputWritten(const std::string& path) {
    CDescriptor file;
    return !LockUnwritten(path, file);
}

bool RemoveUnwrittenOutput(const std::string& path) {
    // The lock is held meanwhile, so that no writer takes it in between.
    CDescriptor file;
    std::error_code error;
    return LockUnwritten(path, file) && (fs::remove(path, error) || !error);
}
