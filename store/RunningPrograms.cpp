#include <vxsched/RunningPrograms.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string_view>

#include "base/CDeadline.h"
#include "base/CDescriptor.h"
#include "base/Processes.h"
#include "base/SameFile.h"
#include "store/Layout.h"

namespace vxsched {

namespace {

namespace fs = std::filesystem;

// An exec takes microseconds between the new executable and its arguments, and longer if other
// processes have the processor.
constexpr std::chrono::seconds cExecLimit(5);
constexpr std::chrono::milliseconds cPause(1);

// Iterates over the processes in /proc, with as few system calls as possible: there may be
// thousands.
class CProcesses {
public:
    CProcesses() : directory(opendir("/proc")) { FindKernelThreads(); }
    ~CProcesses() {
        if (directory != nullptr)
            closedir(directory);
    }
    CProcesses(const CProcesses&) = delete;
    CProcesses& operator=(const CProcesses&) = delete;

    // The next process that is not a kernel thread; empty after the last.
    std::optional<pid_t> Next() {
        while (const dirent* const entry = directory == nullptr ? nullptr : readdir(directory)) {
            name = entry->d_name;
            const std::optional<pid_t> id = ParseProcess(name);
            if (id && !std::binary_search(kernelThreads.begin(), kernelThreads.end(), *id))
                return id;
        }
        return {};
    }

    // The arguments of that process, its path first, each with a zero byte after it; empty if it
    // cannot be read or has none. Valid until the next call of a member. A process that has just
    // been launched is waited for: whoever launched it continues before it has its arguments.
    std::string_view CommandLine() {
        std::string_view line = Read(name + "/cmdline");
        while (line.empty() && IsInExec() && execLimit.Pause(cPause))
            line = Read(name + "/cmdline");
        // It may have got its arguments just before it was not in its exec any more.
        return line.empty() ? Read(name + "/cmdline") : line;
    }

private:
    // Kernel threads and zombies have no executable.
    bool IsInExec() const {
        struct stat program {};
        if (fstatat(dirfd(directory), (name + "/exe").c_str(), &program, 0) == -1)
            return false;
        const std::optional<TProcessStat> stat = ReadProcessStat(fs::path("/proc") / name);
        return stat && stat->environmentEnd == 0;
    }

    // Kernel threads are often the majority of the processes, and none has a command line. Their
    // parent is kthreadd, process 2; containers have none.
    void FindKernelThreads() {
        if (directory == nullptr || Read("2/comm") != "kthreadd\n" || !Read("2/cmdline").empty())
            return;
        std::string_view left = Read("2/task/2/children");
        for (pid_t id = 0; !left.empty();) {
            const auto [end, error] = std::from_chars(left.data(), left.data() + left.size(), id);
            if (error != std::errc())
                break;
            kernelThreads.push_back(id);
            left.remove_prefix(static_cast<std::size_t>(end - left.data()));
            left.remove_prefix(std::min(left.find_first_not_of(' '), left.size()));
        }
        std::sort(kernelThreads.begin(), kernelThreads.end());
    }

    // Valid until the next call.
    std::string_view Read(const std::string& path) {
        const CDescriptor file(openat(dirfd(directory), path.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.IsOpen())
            return {};
        std::size_t length = 0;
        ssize_t count = 0;
        // One read() returns the whole file, unless it fills the buffer.
        while ((count = read(file.Get(), buffer.data() + length, buffer.size() - length)) > 0) {
            length += static_cast<std::size_t>(count);
            if (length < buffer.size())
                break;
            buffer.resize(2 * buffer.size());
        }
        return std::string_view(buffer).substr(0, length);
    }

    DIR* directory;
    const CDeadline execLimit{cExecLimit};  // for all of the processes
    std::vector<pid_t> kernelThreads;
    std::string name;
    std::string buffer = std::string(1 << 13, '\0');
};

// Takes the last argument off a command line, which is not empty.
std::string_view TakeLast(std::string_view& line) {
    if (line.ends_with('\0'))
        line.remove_suffix(1);
    const std::size_t begin = line.rfind('\0') + 1;  // 0 for the only argument
    const std::string_view last = line.substr(begin);
    line = line.substr(0, begin);
    return last;
}

// Whether the arguments before a program's path are those of its runner, which has the program as
// its child.
bool IsRunner(std::string_view line) {
    if (line.ends_with('\0'))
        line.remove_suffix(1);
    return line.substr(line.rfind('/') + 1) == cRunnerProgram;
}

}  // namespace

CRunningPrograms::CRunningPrograms() {
    CProcesses all;
    while (const std::optional<pid_t> id = all.Next()) {
        std::string_view line = all.CommandLine();
        const std::string_view parameter = line.empty() ? line : TakeLast(line);
        if (line.empty())
            continue;
        const std::string_view program = TakeLast(line);
        if (IsRunner(line))
            continue;
        processes.emplace(parameter, TProcess{*id, std::string(program), !line.empty()});
    }
}

std::vector<pid_t> CRunningPrograms::Find(const std::string& program,
                                          const std::string& parameter) const {
    const auto [begin, end] = processes.equal_range(parameter);
    struct stat file {};
    if (begin == end || stat(program.c_str(), &file) != 0)
        return {};
    std::vector<pid_t> found;
    for (auto entry = begin; entry != end; ++entry) {
        const TProcess& process = entry->second;
        if (process.hasInterpreter ? process.program == program
                                   : IsSameFile(ProcessDirectory(process.id) / "exe", file))
            found.push_back(process.id);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<pid_t> FindRunning(const std::string& program, const std::string& parameter) {
    return CRunningPrograms().Find(program, parameter);
}

}  // namespace vxsched
