#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <vxsched/RunningPrograms.h>
#include <vxsched/Table.h>

namespace vxsched {

// What can be said of a task at a moment.
struct TTaskState {
    enum EState { cActive, cPaused, cOverdue };
    EState state;
    std::vector<pid_t> processes;  // its program's, when it runs

    // "active", "paused" or "overdue".
    const char* Word() const;

    // For people: "active", "running 1234", "paused", "paused, running 1234", "overdue".
    std::string Text() const;
};

TTaskState StateOf(const TTaskEntry& task, const CRunningPrograms& running, TTime now);

}  // namespace vxsched
