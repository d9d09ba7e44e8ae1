#include "client/RunningPrograms.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>

namespace vxsched {

namespace {

// The arguments of a process, its own path included; empty for one that cannot be looked into.
std::vector<std::string> ArgumentsOf(const std::filesystem::path& process) {
    std::ifstream file(process / "cmdline", std::ios::binary);
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(file, argument, '\0');)
        arguments.push_back(argument);
    return arguments;
}

bool IsSameFile(const std::filesystem::path& path, const struct stat& wanted) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && status.st_dev == wanted.st_dev &&
           status.st_ino == wanted.st_ino;
}

}  // namespace

CRunningPrograms::CRunningPrograms() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename().string();
        pid_t id = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
        if (error != std::errc() || end != name.data() + name.size())
            continue;
        std::vector<std::string> arguments = ArgumentsOf(entry.path());
        if (arguments.size() >= 2)
            processes.emplace(
                std::move(arguments.back()),
                TProcess{id, std::move(arguments[arguments.size() - 2]), arguments.size() > 2});
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
        const std::filesystem::path folder =
            std::filesystem::path("/proc") / std::to_string(process.id);
        if (process.hasInterpreter ? process.program == program : IsSameFile(folder / "exe", file))
            found.push_back(process.id);
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<pid_t> FindRunning(const std::string& program, const std::string& parameter) {
    return CRunningPrograms().Find(program, parameter);
}

}  // namespace vxsched
