#include "host/CRunHistory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "host/BoundedFile.h"
#include "host/CDescriptor.h"
#include "host/CHostLog.h"

static constexpr char cHistoryFile[] = "files/history.jsonl";

// 0, or the error number.
static int Append(const std::string& line) {
    const CDescriptor file(
        open(cHistoryFile, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW, 0644));
    struct stat before {};
    if (!file.IsOpen() || fstat(file.Get(), &before) != 0)
        return errno;
    const ssize_t count = write(file.Get(), line.data(), line.size());
    if (count == static_cast<ssize_t>(line.size()))
        return 0;
    const int error = count == -1 ? errno : ENOSPC;
    if (count > 0 && ftruncate(file.Get(), before.st_size) != 0)
        return errno;
    return error;
}

void CRunHistory::Add(const TRunRecord& record) {
    if (limit == 0)
        return;
    const std::string line = JsonLine(record);
    const std::lock_guard<std::mutex> lock(mutex);
    if (!RotateBeyond(cHistoryFile, limit, line.size()))
        LogWarning(fmt::format("cannot move {} away: {}; it grows beyond its size", cHistoryFile,
                               std::strerror(errno)));
    if (const int error = Append(line); error != 0)
        LogWarning(fmt::format("cannot write to {}: {}; lost the record {}", cHistoryFile,
                               std::strerror(error), line));
}
