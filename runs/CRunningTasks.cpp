#include "runs/CRunningTasks.h"

#include <algorithm>

#include <vxsched/Validation.h>
#include "jobs/JobLine.h"
#include "runs/OutputFiles.h"
#include "runs/RunningRuns.h"
#include "store/TaskFileName.h"

namespace vxsched {

CRunningTasks::CRunningTasks(const std::string& directory) {
    // Of one that has ended, the runner is about to record that.
    const auto isUnderWay = [](const TRunRecord& run) {
        return run.outcome == TRunRecord::cRunnerDied;
    };
    for (const TRunning& running : FindRunningRuns(directory, isUnderWay))
        runs.emplace(TaskFileNameOf(running.run),
                     running.run.process != 0 ? running.run.process : running.runner);
}

std::vector<pid_t> CRunningTasks::Find(const TTaskEntry& task) const {
    // The runner of a job is no process of its program, and has a run.
    std::vector<pid_t> found;
    if (!IsRunner(task.program))
        found = programs.Find(LaunchedPath(task.program), task.parameter);
    const auto [begin, end] = runs.equal_range(FileNameOf(task.name));
    for (auto run = begin; run != end; ++run)
        found.push_back(run->second);
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}

}  // namespace vxsched
