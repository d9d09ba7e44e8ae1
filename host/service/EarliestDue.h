#pragma once

#include <optional>

// The earliest due time of the active tasks, for a table of `vxsched::TTaskEntry`; none if no task
// is active. Compares each task's due time once.
template <typename TTasks>
auto EarliestDue(const TTasks& tasks) {
    std::optional<decltype(tasks.begin()->next)> earliest;
    for (const auto& task : tasks) {
        if (!task.paused && (!earliest || task.next < *earliest))
            earliest = task.next;
    }
    return earliest;
}
