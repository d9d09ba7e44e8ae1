#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include <vxsched/Public.h>

namespace vxsched {

// A snapshot of the system's processes, for finding those that a task has launched. It is read from
// /proc by the constructor, without locks and without any effect; Find() does not see later changes
// of the processes. Processes of other users are found only as far as this user may inspect them.
// Immutable: threads may share one. Do not use it to wait for a program: process ids are reused.
class VXSCHED_PUBLIC CRunningPrograms {
public:
    // Reads the command line of every process. Waits for those that are in the middle of an exec and
    // have no arguments yet, usually microseconds, and up to 5 seconds for all of them. Without /proc
    // it finds none.
    CRunningPrograms();

    // The ids, in ascending order, of the processes that run `program` with the single argument
    // `parameter`, as the launch of a task does. The executable has to be the same file as
    // `program`; for a script, the interpreter's last two arguments have to be `program` and
    // `parameter`. Empty if no process does, or if there is no such program.
    std::vector<pid_t> Find(const std::string& program, const std::string& parameter) const;

private:
    struct TProcess {
        pid_t id;
        std::string program;  // the argument before the last
        bool hasInterpreter;  // there are more arguments than these two
    };
    std::unordered_multimap<std::string, TProcess> processes;  // by their last argument
};

// Takes a snapshot and searches it. For several searches keep a CRunningPrograms.
VXSCHED_PUBLIC std::vector<pid_t> FindRunning(const std::string& program,
                                              const std::string& parameter);

}  // namespace vxsched
