#include "cli/commands/TaskState.h"

#include <fmt/format.h>

#include <vxsched/Validation.h>

namespace vxsched {

// The scheduler looks once a minute; what is due for less than that is on its way.
static constexpr std::chrono::seconds cGrace(60);

const char* TTaskState::Word() const {
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

std::string TTaskState::Text() const {
    std::string text;
    for (const pid_t process : processes)
        text += fmt::format("{}{}", text.empty() ? "running " : " ", process);
    if (state == cActive)
        return text.empty() ? Word() : text;
    return text.empty() ? Word() : fmt::format("{}, {}", Word(), text);
}

TTaskState StateOf(const TTaskEntry& task, const CRunningPrograms& running, TTime now) {
    const auto state = task.paused                ? TTaskState::cPaused
                       : task.next < now - cGrace ? TTaskState::cOverdue
                                                  : TTaskState::cActive;
    return {state, running.Find(LaunchedPath(task.program), task.parameter)};
}

}  // namespace vxsched
