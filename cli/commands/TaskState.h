// The state of a task, as list, show and status print it.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <vxsched/RunningPrograms.h>
#include <vxsched/Table.h>

namespace vxsched {

// The state of a task at one moment.
struct TTaskState {
    enum EState { cActive, cPaused, cOverdue };
    EState state;
    std::vector<pid_t> processes;  // that run its program, ascending

    // "active", "paused" or "overdue": for JSON.
    const char* Name() const;

    // For a person: "active", "running 1234", "paused", "paused, running 1234", "overdue".
    std::string Describe() const;
};

// The state at `now`. A task is overdue if it has been due for more than a minute.
TTaskState StateOf(const TTaskEntry& task, const CRunningPrograms& programs, TTime now);

}  // namespace vxsched
