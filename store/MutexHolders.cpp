#include "store/MutexHolders.h"

#include <CEvent.h>
#include <fmt/format.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <sstream>
#include <string_view>
#include <system_error>
#include <vector>

#include "base/Processes.h"
#include "base/RegularFile.h"
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

// A host waits for one descriptor under the mutex: for a reader of its log that has stalled, and for
// the report of a program's runner. Its loops wait for more.
constexpr std::uint64_t cFewestOfALoop = 2;

struct TContent {
    std::string bytes;
    int error = 0;  // 0, or an errno
};

TContent Read(const fs::path& path) {
    TContent content;
    if (!ReadRegularFile(path, std::numeric_limits<std::uint64_t>::max(), content.bytes))
        content = {.bytes = "", .error = errno};
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
        if (const auto number = ParseProcess(entry->path().filename().string()))
            numbers.push_back(*number);
    }
    return numbers;
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
        if (name == cHostProgram)
            return EUser::cHost;
        if (name == cChangeProgram)
            return EUser::cClient;
        if (name.starts_with(cAddInFile))
            user = EUser::cDirect;
        else if ((name == cCommandProgram || name.starts_with(cClientLibrary)) &&
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
    void Report(pid_t process, const TProcessStat& stat, TPossibleHolder::EReason reason) {
        const bool isBetter = !found || (found->reason == TPossibleHolder::cUnreadable &&
                                         reason != TPossibleHolder::cUnreadable);
        if (isBetter)
            found = TPossibleHolder{process, stat.name, reason};
    }

    // Of a process that has ended meanwhile, files are missing: it holds nothing.
    void Examine(pid_t process, bool wasLast) {
        const fs::path directory = ProcessDirectory(process);
        const std::optional<TProcessStat> stat = ReadProcessStat(directory);
        if (!stat || stat->IsKernelThread() || !SharesIpcNamespace(directory))
            return;
        const TContent maps = Read(directory / "maps");
        if (IsForbidden(maps.error)) {
            if (!stat->HasEnded())
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
        const std::optional<TProcessStat> stat = ReadProcessStat(directory);
        if (!stat || stat->HasEnded())
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
                       (user == EUser::cHost && arguments[1] >= cFewestOfALoop);
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
    constexpr char cAsRoot[] = "run \"vxsched repair\" as root";
    if (holder.process == 0)
        return fmt::format(
            "a process that is not visible here may hold it; {} where all processes are visible",
            cAsRoot);
    const std::string process = fmt::format("process {} ({})", holder.process, holder.program);
    switch (holder.reason) {
        case TPossibleHolder::cUnreadable:
            return fmt::format("{} may hold it, and this user may not inspect it; {}", process,
                               cAsRoot);
        case TPossibleHolder::cStopped:
            return fmt::format("{} is stopped and may hold it; continue or end that process",
                               process);
        default:
            return fmt::format("{} may hold it; wait for that process, or end it", process);
    }
}

}  // namespace vxsched
