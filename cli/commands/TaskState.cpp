#include "cli/commands/TaskState.h"

#include <fmt/format.h>

namespace vxsched {

// vxschedd launches a task in its due second, but other hosts of the add-in tick once a minute.
static constexpr std::chrono::seconds cGrace(60);

const char* TTaskState::Name() const {
    switch (state) {
        case cPaused:
            return "paused";
        case cOverdue:
            return "overdue";
        case cActive:
            break;
    }
    return "active";
}

std::string TTaskState::Describe() const {
    std::string running;
    for (const pid_t process : processes)
        running += fmt::format("{}{}", running.empty() ? "running " : " ", process);
    if (state == cActive)
        return running.empty() ? Name() : running;
    return running.empty() ? Name() : fmt::format("{}, {}", Name(), running);
}

bool IsOverdue(const TTaskEntry& task, TTime now) {
    return !task.paused && task.next < now - cGrace;
}

TTaskState StateOf(const TTaskEntry& task, const CRunningTasks& running, TTime now) {
    const auto state = task.paused            ? TTaskState::cPaused
                       : IsOverdue(task, now) ? TTaskState::cOverdue
                                              : TTaskState::cActive;
    return {state, running.Find(task)};
}

}  // namespace vxsched
