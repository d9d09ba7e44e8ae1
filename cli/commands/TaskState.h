// The state of a task, as list, show and status print it.

#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "runs/CRunningTasks.h"

namespace vxsched {

// The state of a task at one moment.
struct TTaskState {
    enum EState { cActive, cPaused, cOverdue };
    EState state;
    std::vector<pid_t> processes;  // CRunningTasks::Find()

    // "active", "paused" or "overdue": for JSON.
    const char* Name() const;

    // For a person: "active", "running 1234", "paused", "paused, running 1234", "overdue".
    std::string Describe() const;
};

// Whether an active task has been due for more than a minute.
bool IsOverdue(const TTaskEntry& task, TTime now);

// The state at `now`.
TTaskState StateOf(const TTaskEntry& task, const CRunningTasks& running, TTime now);

}  // namespace vxsched
