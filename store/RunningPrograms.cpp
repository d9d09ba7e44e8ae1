#include <vxsched/RunningPrograms.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string_view>

namespace vxsched {

namespace {

// The folder /proc, whose files are many: read with as few calls as can be.
class CProcesses {
public:
    CProcesses() : directory(opendir("/proc")) { FindKernelThreads(); }
    ~CProcesses() {
        if (directory != nullptr)
            closedir(directory);
    }
    CProcesses(const CProcesses&) = delete;
    CProcesses& operator=(const CProcesses&) = delete;

    // The next process that is no thread of the kernel's; none behind the last.
    std::optional<pid_t> Next() {
        while (const dirent* const entry = directory == nullptr ? nullptr : readdir(directory)) {
            name = entry->d_name;
            pid_t id = 0;
            const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
            if (error == std::errc() && end == name.data() + name.size() &&
                !std::binary_search(kernelThreads.begin(), kernelThreads.end(), id))
                return id;
        }
        return {};
    }

    // The arguments of that one with a zero byte behind each, its own path included; empty for one
    // that cannot be looked into, or has none. Valid until the next call.
    std::string_view CommandLine() { return Read(name + "/cmdline"); }

private:
    // Often the most of all processes, and none has a command line. Their parent is the kernel's own
    // process 2, which a container has not.
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
        const int file = openat(dirfd(directory), path.c_str(), O_RDONLY | O_CLOEXEC);
        if (file == -1)
            return {};
        std::size_t length = 0;
        ssize_t count = 0;
        // Such a file delivers what there is; only a full buffer may have more behind it.
        while ((count = read(file, text.data() + length, text.size() - length)) > 0) {
            length += static_cast<std::size_t>(count);
            if (length < text.size())
                break;
            text.resize(2 * text.size());
        }
        close(file);
        return std::string_view(text).substr(0, length);
    }

    DIR* directory;
    std::vector<pid_t> kernelThreads;
    std::string name;
    std::string text = std::string(1 << 13, '\0');
};

// Takes the last argument off a command line. It is not empty.
std::string_view TakeLast(std::string_view& line) {
    if (line.ends_with('\0'))
        line.remove_suffix(1);
    const std::size_t start = line.rfind('\0') + 1;  // 0 where there is none before it
    const std::string_view last = line.substr(start);
    line = line.substr(0, start);
    return last;
}

bool IsSameFile(const std::filesystem::path& path, const struct stat& wanted) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
           status.st_ino == wanted.st_ino;
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
        const std::filesystem::path directory =
            std::filesystem::path("/proc") / std::to_string(process.id);
        if (process.hasInterpreter ? process.program == program
                                   : IsSameFile(directory / "exe", file))
            found.push_back(process.id);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<pid_t> FindRunning(const std::string& program, const std::string& parameter) {
    return CRunningPrograms().Find(program, parameter);
}

}  // namespace vxsched
