#include "client/RunningPrograms.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>

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

bool Runs(const std::filesystem::path& process, const std::string& program, const struct stat& file,
          const std::string& parameter) {
    const std::vector<std::string> arguments = ArgumentsOf(process);
    if (arguments.size() < 2 || arguments.back() != parameter)
        return false;
    if (arguments.size() == 2)
        return IsSameFile(process / "exe", file);
    // A script: its interpreter is what runs.
    return arguments[arguments.size() - 2] == program;
}

}  // namespace

std::vector<pid_t> FindRunning(const std::string& program, const std::string& parameter) {
    struct stat file {};
    if (stat(program.c_str(), &file) != 0)
        return {};
    std::vector<pid_t> found;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename().string();
        pid_t process = 0;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
        if (error == std::errc() && end == name.data() + name.size() &&
            Runs(entry.path(), program, file, parameter))
            found.push_back(process);
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace vxsched
