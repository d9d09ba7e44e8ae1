#include "store/MutexHolders.h"

#include <CEvent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/CDescriptor.h"
#include "store/Layout.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// What a process has to do with the mutex. It determines which waits show that a thread holds
// nothing.
enum class EUser {
    cNone,
    cDirect,  // loaded the add-in, or is unknown: any other wait may be made under the mutex
    cHost,    // vxschedd
    cClient   // a process with the client library, vxsched or vxsched-change
};

// The log waits under any lock for a reader that has stalled: for one descriptor and one second.
constexpr std::uint64_t cLogDescriptors = 1;
constexpr std::uint64_t cLogTimeout = 1000;

struct TContent {
    std::string bytes;
    int error = 0;  // 0, or an errno
};

TContent Read(const fs::path& path) {
    TContent content;
    const CDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::array<char, 1 << 14> block{};
    ssize_t count = -1;
    while (file.IsOpen() && (count = read(file.Get(), block.data(), block.size())) > 0)
        content.bytes.append(block.data(), static_cast<std::size_t>(count));
    if (count == -1)
        content.error = errno;
    return content;
}

bool IsForbidden(int error) {
    return error == EACCES || error == EPERM;
}

std::vector<pid_t> NumbersIn(const fs::path& directory) {
    std::vector<pid_t> numbers;
    std::error_code error;
    for (fs::directory_iterator entry(directory, error);
         !error && entry != fs::directory_iterator(); entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        pid_t number = 0;
        const auto [end, wrong] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (wrong == std::errc() && end == name.data() + name.size())
            numbers.push_back(number);
    }
    return numbers;
}

fs::path DirectoryOf(pid_t process) {
    return fs::path("/proc") / std::to_string(process);
}

// The fields of a "stat" file: name, state and flags, which every user may read.
struct TStat {
    std::string name;
    char state = 0;
    unsigned int flags = 0;
};

std::optional<TStat> ReadStat(const fs::path& directory) {
    const std::string line = Read(directory / "stat").bytes;
    const std::size_t begin = line.find('(');
    const std::size_t end = line.rfind(')');
    if (begin == std::string::npos || end == std::string::npos)
        return {};
    TStat stat;
    stat.name = line.substr(begin + 1, end - begin - 1);
    std::istringstream words(line.substr(end + 1));
    std::string skipped;
    words >> stat.state;
    for (int field = 0; field < 5; ++field)
        words >> skipped;
    words >> stat.flags;
    return stat;
}

bool IsKernelThread(const TStat& stat) {
    constexpr unsigned int cKernelThread = 0x00200000;
    return (stat.flags & cKernelThread) != 0;
}

// Its operations are undone by then.
bool HasEnded(const TStat& stat) {
    return stat.state == 'Z' || stat.state == 'X';
}

// The file name of a path, without the mark of a file that was replaced since.
std::string_view FileName(std::string_view path) {
    constexpr std::string_view cDeleted = " (deleted)";
    if (path.ends_with(cDeleted))
        path.remove_suffix(cDeleted.size());
    return path.substr(path.rfind('/') + 1);
}

// The use of the mutex that a list of mapped files shows.
EUser UserOf(const std::string& maps) {
    EUser user = EUser::cNone;
    std::istringstream lines(maps);
    for (std::string line; std::getline(lines, line);) {
        if (line.find('/') == std::string::npos)
            continue;
        const std::string_view name = FileName(line);
        if (name == "vxschedd")
            return EUser::cHost;
        if (name == "vxsched-change")
            return EUser::cClient;
        if (name.starts_with("libVantrixScheduler.so"))
            user = EUser::cDirect;
        else if ((name == "vxsched" || name.starts_with("libvxsched-client.so")) &&
                 user == EUser::cNone)
            user = EUser::cClient;
    }
    return user;
}

// Finds who may hold the mutex among the threads of one process after the other.
class CSearch {
public:
    explicit CSearch(const TMutexState& mutexState)
        : state(mutexState),
          sets{mutexState.set, CEvent::UseOf(cStopEventName).set,
               CEvent::UseOf(cTaskChangedEventName).set} {}

    std::optional<TPossibleHolder> Run() {
        const bool wasUsed = state.lastUsed != TTime();
        if (state.lastProcess != 0) {
            Examine(state.lastProcess, true);
        } else if (wasUsed || access("/proc/1", F_OK) == -1) {
            // The last user is in another PID namespace, or /proc shows only this user's processes.
            found = TPossibleHolder{0, "", TPossibleHolder::cUnreadable};
        }
        for (const pid_t process : NumbersIn("/proc")) {
            if (found && found->reason != TPossibleHolder::cUnreadable)
                break;
            Examine(process, false);
        }
        return found;
    }

private:
    void Report(pid_t process, const TStat& stat, TPossibleHolder::EReason reason) {
        const bool isBetter = !found || (found->reason == TPossibleHolder::cUnreadable &&
                                         reason != TPossibleHolder::cUnreadable);
        if (isBetter)
            found = TPossibleHolder{process, stat.name, reason};
    }

    bool IsInThisNamespace(const fs::path& directory) const {
        struct stat own {};
        struct stat other {};
        // One that cannot be read is taken for this one.
        return stat("/proc/self/ns/ipc", &own) != 0 ||
               stat((directory / "ns/ipc").c_str(), &other) != 0 ||
               (own.st_dev == other.st_dev && own.st_ino == other.st_ino);
    }

    // Of a process that has ended meanwhile, files are missing: it holds nothing.
    void Examine(pid_t process, bool wasLast) {
        const fs::path directory = DirectoryOf(process);
        const std::optional<TStat> stat = ReadStat(directory);
        if (!stat || IsKernelThread(*stat) || !IsInThisNamespace(directory))
            return;
        const TContent maps = Read(directory / "maps");
        if (IsForbidden(maps.error)) {
            if (!HasEnded(*stat))
                Report(process, *stat, TPossibleHolder::cUnreadable);
            return;
        }
        EUser user = UserOf(maps.bytes);
        // A process that is ending has no memory any more, but its operations may not be undone
        // yet. Nor does it matter what program was the last to operate on the mutex.
        if (user == EUser::cNone && (maps.bytes.empty() || wasLast))
            user = EUser::cDirect;
        if (user == EUser::cNone)
            return;
        for (const pid_t thread : NumbersIn(directory / "task")) {
            if (thread != gettid())
                ExamineThread(process, directory / "task" / std::to_string(thread), user);
        }
    }

    void ExamineThread(pid_t process, const fs::path& directory, EUser user) {
        const TContent call = Read(directory / "syscall");
        const std::optional<TStat> stat = ReadStat(directory);
        if (!stat || HasEnded(*stat))
            return;
        if (stat->state == 'T' || stat->state == 't')
            return Report(process, *stat, TPossibleHolder::cStopped);
        if (call.error != 0 && call.error != ESRCH)
            return Report(process, *stat, TPossibleHolder::cUnreadable);
        if (!HoldsNothing(call.bytes, user))
            Report(process, *stat, TPossibleHolder::cMayHold);
    }

    // `call`: "running", or the number of the system call in which the thread is blocked, and its
    // arguments.
    bool HoldsNothing(const std::string& call, EUser user) const {
        std::istringstream words(call);
        long number = -1;
        std::array<std::uint64_t, 3> arguments{};
        words >> std::dec >> number >> std::hex;
        for (std::uint64_t& argument : arguments)
            words >> argument;
        if (words.fail())
            return false;
        switch (number) {
            case SYS_semop:
            case SYS_semtimedop:
                return std::any_of(sets.begin(), sets.end(), [&](int set) {
                    return set != -1 && static_cast<int>(arguments[0]) == set;
                });
            case SYS_poll:
            case SYS_ppoll:
                // The loops of a host's main thread and of its guard.
                return user == EUser::cClient ||
                       (user == EUser::cHost &&
                        (arguments[1] != cLogDescriptors || arguments[2] != cLogTimeout));
            // A client that waits for its change process, for a lock or for a launched program.
            // Under the mutex it does this only in a change, for which it would need the writer
            // lock.
            case SYS_clock_nanosleep:
            case SYS_nanosleep:
            case SYS_wait4:
            case SYS_waitid:
            case SYS_select:
            case SYS_pselect6:
            case SYS_epoll_wait:
            case SYS_epoll_pwait:
                return user == EUser::cClient;
            default:
                return false;
        }
    }

    const TMutexState state;
    const std::array<int, 3> sets;
    std::optional<TPossibleHolder> found;
};

}  // namespace

std::optional<TPossibleHolder> FindPossibleHolder(const TMutexState& state) {
    return CSearch(state).Run();
}

std::string Describe(const TPossibleHolder& holder) {
    constexpr char cAsRoot[] = "; run \"vxsched repair\" as root";
    if (holder.process == 0)
        return std::string("a process that is not visible here may hold it") + cAsRoot +
               " where all processes are visible";
    const std::string process =
        "process " + std::to_string(holder.process) + " (" + holder.program + ')';
    switch (holder.reason) {
        case TPossibleHolder::cUnreadable:
            return process + " may hold it, and this user may not inspect it" + cAsRoot;
        case TPossibleHolder::cStopped:
            return process + " is stopped and may hold it; continue or end that process";
        default:
            return process + " may hold it; wait for that process, or end it";
    }
}

}  // namespace vxsched
