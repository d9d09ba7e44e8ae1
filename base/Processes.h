// What /proc shows of a process. Every user may read what these functions read, but for the
// namespace of somebody else's process. None of them throws; any thread may call them, and they
// block no longer than a read of /proc takes.

#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vxsched {

// The process whose number `digits` are, all of them; empty for anything else, as for the names in
// /proc that are no processes.
std::optional<pid_t> ParseProcess(std::string_view digits);

// Its directory, /proc/PID.
std::filesystem::path ProcessDirectory(pid_t process);

// What the file "stat" of a process or of a thread shows.
struct TProcessStat {
    std::string name;  // the short one
    char state = 0;
    pid_t parent = 0;
    pid_t group = 0;
    unsigned int flags = 0;
    std::uint64_t start =
        0;  // in clock ticks since the system's; no later process of its number has it
    // The address of the end of its environment variables. 0 while an exec has not given it arguments
    // and variables yet, without memory, and where this user may not inspect the process.
    std::uint64_t environmentEnd = 0;

    bool IsKernelThread() const;

    // The kernel has undone its semaphore operations by then. A zombie counts as ended: its parent
    // just has not collected it.
    bool HasEnded() const { return state == 'Z' || state == 'X'; }
};

// Empty if there is no such process or thread any more. `directory` is its directory in /proc.
std::optional<TProcessStat> ReadProcessStat(const std::filesystem::path& directory);

// The real, effective, saved and file system user of a process; empty if there is no such process any
// more. The owner of its directory in /proc is the effective user only, and not even that for a
// process that may not be inspected.
std::vector<uid_t> UsersOf(pid_t process);

// Whether a process has mapped a file of that name, its program or a library, also one that was
// replaced since; empty if this user may not inspect it, or if it is ending.
std::optional<bool> MapsFile(pid_t process, std::string_view name);

// Whether there is no such process any more, or only its zombie.
bool HasEnded(pid_t process);

// Whether a process of that group runs. Reads all of /proc.
bool IsGroupAlive(pid_t group);

// Whether two processes are in the same IPC namespace, by their directories in /proc. A namespace
// that cannot be read is taken for the same one, which is usual.
bool SharesIpcNamespace(const std::filesystem::path& directory,
                        const std::filesystem::path& own = "/proc/self");

}  // namespace vxsched
