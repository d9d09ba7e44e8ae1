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

static bool IsIntended(const std::vector<TLaunchIntent>& intents, const TTaskEntry& task) {
    return std::any_of(intents.begin(), intents.end(), [&](const TLaunchIntent& intent) {
        return intent.IsOf(task.name, task.next);
    });
}

// `outcome` if the task runs once, `outcomeOfRepeating` otherwise.
static TRunRecord RunOf(const TTaskEntry& task, TRunRecord::EOutcome outcome,
                        TRunRecord::EOutcome outcomeOfRepeating) {
    TRunRecord record;
    record.outcome = task.period == 0 ? outcome : outcomeOfRepeating;
    record.task = task.name;
    record.due = task.next;
    record.program = task.program;
    record.parameter = task.parameter;
    return record;
}

TPrepared PrepareTable(std::vector<TTaskEntry> tasks, const std::vector<TLaunchRecord>& records,
                       const std::vector<TLaunchIntent>& intents,
                       const std::optional<TUptime>& previous, TTime now) {
    ApplyLaunchRecords(records, now, tasks);
    TPrepared prepared;
    for (TTaskEntry& task : tasks) {
        // Also a task that is due later, because the clock was set back.
        const bool isIntended = IsIntended(intents, task);
        if (!isIntended && (task.paused || task.next >= now)) {
            prepared.tasks.push_back(std::move(task));
            continue;
        }
        if (!isIntended && IsLate(task, previous)) {
            prepared.late.push_back(task);
            prepared.tasks.push_back(std::move(task));
            continue;
        }
        prepared.notLaunched.push_back(
            isIntended ? RunOf(task, TRunRecord::cLaunchUnknownRemoved,
                               TRunRecord::cLaunchUnknownRescheduled)
                       : RunOf(task, TRunRecord::cRemoved, TRunRecord::cRescheduled));
        if (task.period == 0)
            continue;
        task.next = vxsched::NextOnGrid(task.next, vxsched::StepOf(task.period),
                                        std::max(now, task.next + std::chrono::seconds(1)));
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
