#include "host/startup/PrepareTable.h"

#include <algorithm>
#include <utility>

#include <vxsched/Validation.h>
#include "store/Grid.h"

using vxsched::TTaskEntry;
using vxsched::TTime;

// A client may create a task whose due time has just passed, and so is slightly before the uptime.
static constexpr std::chrono::minutes cCreationAllowance(10);

static bool IsLate(const TTaskEntry& task, const std::optional<TUptime>& previous) {
    // Launching this program ended the previous host, and would end this one and the next.
    return previous && !vxsched::AbortsLaunch(task.program) &&
           task.next >= previous->since - cCreationAllowance && task.next <= previous->until;
}

static TRunRecord MissedRun(const TTaskEntry& task) {
    TRunRecord record;
    record.outcome = task.period == 0 ? TRunRecord::cRemoved : TRunRecord::cRescheduled;
    record.task = task.name;
    record.due = task.next;
    record.program = task.program;
    record.parameter = task.parameter;
    return record;
}

TPrepared PrepareTable(std::vector<TTaskEntry> tasks, const std::vector<TLaunchRecord>& records,
                       const std::optional<TUptime>& previous, TTime now) {
    ApplyLaunchRecords(records, now, tasks);
    TPrepared prepared;
    for (TTaskEntry& task : tasks) {
        if (task.paused || task.next >= now) {
            prepared.tasks.push_back(std::move(task));
            continue;
        }
        if (IsLate(task, previous)) {
            prepared.late.push_back(task);
            prepared.tasks.push_back(std::move(task));
            continue;
        }
        prepared.missed.push_back(MissedRun(task));
        if (task.period == 0)
            continue;
        task.next = vxsched::NextOnGrid(task.next, vxsched::StepOf(task.period), now);
        prepared.tasks.push_back(std::move(task));
    }
    return prepared;
}

TTime BeginningOfUptime(const TPrepared& prepared, TTime now) {
    TTime beginning = now;
    for (const TTaskEntry& task : prepared.late)
        beginning = std::min(beginning, task.next);
    return beginning;
}
