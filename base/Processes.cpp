#include "base/Processes.h"

#include <sys/stat.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <limits>
#include <sstream>
#include <system_error>

#include "base/RegularFile.h"
#include "base/SameFile.h"

namespace vxsched {

std::optional<pid_t> ParseProcess(std::string_view digits) {
    pid_t process = 0;
    const char* const end = digits.data() + digits.size();
    const auto [parsed, error] = std::from_chars(digits.data(), end, process);
    return error == std::errc() && parsed == end && process > 0 ? std::optional(process)
                                                                : std::nullopt;
}

std::filesystem::path ProcessDirectory(pid_t process) {
    return std::filesystem::path("/proc") / std::to_string(process);
}

bool TProcessStat::IsKernelThread() const {
    constexpr unsigned int cKernelThread = 0x00200000;
    return (flags & cKernelThread) != 0;
}

std::optional<TProcessStat> ReadProcessStat(const std::filesystem::path& directory) {
    std::string line;
    if (!ReadRegularFile(directory / "stat", std::numeric_limits<std::uint64_t>::max(), line))
        return {};
    // The name may have blanks and brackets.
    const std::size_t begin = line.find('(');
    const std::size_t end = line.rfind(')');
    if (begin == std::string::npos || end == std::string::npos)
        return {};
    TProcessStat stat;
    stat.name = line.substr(begin + 1, end - begin - 1);
    std::istringstream words(line.substr(end + 1));
    std::string skipped;
    const auto skip = [&](int fields) {
        for (int field = 0; field < fields; ++field)
            words >> skipped;
    };
    words >> stat.state >> stat.parent >> stat.group;
    skip(3);
    words >> stat.flags;
    skip(12);
    words >> stat.start;
    skip(28);
    words >> stat.environmentEnd;
    return stat;
}

std::vector<uid_t> UsersOf(pid_t process) {
    constexpr std::string_view cLabel = "Uid:";
    std::ifstream status(ProcessDirectory(process) / "status");
    std::vector<uid_t> users;
    for (std::string line; users.empty() && std::getline(status, line);) {
        if (!line.starts_with(cLabel))
            continue;
        std::istringstream words(line.substr(cLabel.size()));
        for (uid_t user = 0; words >> user;)
            users.push_back(user);
    }
    return users;
}

std::optional<bool> MapsFile(pid_t process, std::string_view name) {
    constexpr std::string_view cDeleted = " (deleted)";
    const std::string wanted = '/' + std::string(name);
    std::ifstream maps(ProcessDirectory(process) / "maps");
    std::optional<bool> found;
    for (std::string line; !found.value_or(false) && std::getline(maps, line);) {
        std::string_view path = line;
        if (path.ends_with(cDeleted))
            path.remove_suffix(cDeleted.size());
        found = path.ends_with(wanted);
    }
    return found;
}

bool HasEnded(pid_t process) {
    const std::optional<TProcessStat> stat = ReadProcessStat(ProcessDirectory(process));
    return stat ? stat->HasEnded() : kill(process, 0) == -1 && errno == ESRCH;
}

bool IsGroupAlive(pid_t group) {
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        if (!ParseProcess(entry->path().filename().native()))
            continue;
        const std::optional<TProcessStat> stat = ReadProcessStat(entry->path());
        if (stat && stat->group == group && !stat->HasEnded())
            return true;
    }
    return false;
}

bool SharesIpcNamespace(const std::filesystem::path& directory, const std::filesystem::path& own) {
    struct stat ours {};
    struct stat theirs {};
    return stat((own / "ns/ipc").c_str(), &ours) != 0 ||
           stat((directory / "ns/ipc").c_str(), &theirs) != 0 || IsSameFile(ours, theirs);
}

}  // namespace vxsched
