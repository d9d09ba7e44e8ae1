#include "host/programs/LaunchedTask.h"

#include <scheduler/Scheduler.h>

#include <algorithm>

TTask* FindLaunchedTask(const std::list<TTask*>& tasks, const char* program,
                        const char* parameters) {
    const auto found = std::find_if(tasks.begin(), tasks.end(), [&](const TTask* task) {
        return task->program.data() == program && task->parameters.data() == parameters;
    });
    return found == tasks.end() ? nullptr : *found;
}
