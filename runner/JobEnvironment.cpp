#include "runner/JobEnvironment.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/CDescriptor.h"
#include "base/RegularFile.h"
#include "runner/CLaunchError.h"

static constexpr char cPath[] = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
static constexpr std::uint64_t cLongestVariables = std::uint64_t{1} << 20U;  // bytes of a file
static constexpr std::string_view cSpace = " \t\r\v\f";

namespace {

// Variables, of which a later one replaces an earlier one of its name.
class CVariables {
public:
    void Set(std::string_view name, std::string_view value) {
        const std::string beginning = std::string(name) + '=';
        std::erase_if(variables,
                      [&](const std::string& one) { return one.starts_with(beginning); });
        variables.push_back(beginning + std::string(value));
    }

    void SetUnlessNull(const char* name, const char* value) {
        if (value != nullptr)
            Set(name, value);
    }

    std::vector<std::string> All() const { return variables; }

private:
    std::vector<std::string> variables;
};

}  // namespace

[[noreturn]] static void RefuseFile(const std::string& path, int error, const std::string& reason) {
    throw CLaunchError(error, fmt::format("--env-file {}: {}", path, reason));
}

// No link in the path is followed: its maker could have this process read a file that is out of the
// maker's reach, for a job of the maker's.
static CDescriptor OpenWithoutLinks(const std::string& path) {
    open_how how{};
    how.flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    CDescriptor file(
        static_cast<int>(syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how)));
    if (!file.IsOpen() && errno == ELOOP)
        RefuseFile(path, ELOOP, "there is a symbolic link in the path; give the path without it");
    if (!file.IsOpen())
        RefuseFile(path, errno, fmt::format("cannot open it: {}", std::strerror(errno)));
    return file;
}

static std::string ReadVariablesFile(const std::string& path, const std::vector<uid_t>& owners) {
    const CDescriptor file = OpenWithoutLinks(path);
    struct stat status {};
    if (fstat(file.Get(), &status) == -1)
        RefuseFile(path, errno, fmt::format("cannot examine it: {}", std::strerror(errno)));
    if (!S_ISREG(status.st_mode))
        RefuseFile(path, cNotAFile, "it is no regular file");
    if (std::find(owners.begin(), owners.end(), status.st_uid) == owners.end())
        RefuseFile(path, EPERM,
                   fmt::format("it belongs to user {}; it has to be root's or the job's user's",
                               FindUser(status.st_uid).name));
    if ((status.st_mode & 077U) != 0)
        RefuseFile(path, EPERM,
                   fmt::format("it is open to others than its owner (mode {:04o}); run chmod 600",
                               status.st_mode & 07777U));
    std::string content;
    if (!ReadRegularFile(file.Get(), cLongestVariables, content))
        RefuseFile(path, errno, fmt::format("cannot read it: {}", std::strerror(errno)));
    return content;
}

static std::string_view Trim(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(cSpace), text.size()));
    return text.substr(0, text.find_last_not_of(cSpace) + 1);
}

static bool IsVariableName(std::string_view name) {
    const auto isDigit = [](char one) { return one >= '0' && one <= '9'; };
    const auto isOfName = [&](char one) {
        return one == '_' || isDigit(one) || (one >= 'a' && one <= 'z') ||
               (one >= 'A' && one <= 'Z');
    };
    return !name.empty() && !isDigit(name.front()) &&
           std::all_of(name.begin(), name.end(), isOfName);
}

static std::string_view Unquote(std::string_view value) {
    const bool isQuoted = value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
                          value.back() == value.front();
    return isQuoted ? value.substr(1, value.size() - 2) : value;
}

static void SetFromFile(CVariables& variables, const std::string& path,
                        const std::vector<uid_t>& owners) {
    const std::string content = ReadVariablesFile(path, owners);
    std::string_view rest = content;
    for (std::size_t number = 1; !rest.empty(); ++number) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        const std::string_view line = Trim(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (line.empty() || line.front() == '#')
            continue;
        const std::size_t sign = std::min(line.find('='), line.size());
        const std::string_view name = Trim(line.substr(0, sign));
        // The line may be a secret; the message does not have it.
        if (sign == line.size() || !IsVariableName(name) || line.find('\0') != line.npos)
            RefuseFile(path, EINVAL, fmt::format("line {} is not NAME=VALUE", number));
        variables.Set(name, Unquote(Trim(line.substr(sign + 1))));
    }
}

std::vector<std::string> EnvironmentOf(const vxsched::TJob& job, const TUser& user,
                                       const std::vector<uid_t>& owners, const char* task,
                                       const char* due) {
    CVariables variables;
    variables.Set("HOME", user.home);
    variables.Set("LOGNAME", user.name);
    variables.Set("USER", user.name);
    // Not the user's own: a system user's refuses everything.
    variables.Set("SHELL", "/bin/sh");
    variables.Set("PATH", cPath);
    for (const char* const inherited : {"LANG", "TZ"})
        variables.SetUnlessNull(inherited, std::getenv(inherited));
    variables.SetUnlessNull("VXSCHED_TASK", task);
    variables.SetUnlessNull("VXSCHED_DUE", due);
    for (const std::string& path : job.environmentFiles)
        SetFromFile(variables, path, owners);
    for (const std::string& variable : job.environment) {
        const std::size_t sign = variable.find('=');
        variables.Set(std::string_view(variable).substr(0, sign),
                      std::string_view(variable).substr(sign + 1));
    }
    return variables.All();
}
