#pragma once

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

#include <vxsched/Public.h>

namespace vxsched {

// The processes of the system at one moment, for the question which of them a task has started.
// Looked up in /proc, under no lock and without any effect. Processes of other users are seen only as
// far as this user may look into them.
class VXSCHED_PUBLIC CRunningPrograms {
public:
    CRunningPrograms();

    // Those that run `program` with exactly the one argument `parameter`, as a start of a task does,
    // in ascending order: the executable has to be the same file, or, for a script, the
    // interpreter's last two arguments have to be the script's path and the parameter.
    std::vector<pid_t> Find(const std::string& program, const std::string& parameter) const;

private:
    struct TProcess {
        pid_t id;
        std::string program;  // the argument before the last
        bool hasInterpreter;  // there are more than the two
    };
    std::unordered_multimap<std::string, TProcess> processes;  // by their last argument
};

// For a single question.
VXSCHED_PUBLIC std::vector<pid_t> FindRunning(const std::string& program,
                                              const std::string& parameter);

}  // namespace vxsched
