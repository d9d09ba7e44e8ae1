#include "host/PrepareTable.h"

#include <utility>

#include "client/Grid.h"

using vxsched::TTaskEntry;
using vxsched::TTime;

// What was due for longer was not waiting for its turn in a tick: it was put into the table, or left
// there, while no host ran.
static constexpr std::chrono::minutes cLongestTick(10);

static bool IsLate(const TTaskEntry& task, TTime lastWatch) {
    constexpr TTime cNever;
    return lastWatch != cNever && task.next <= lastWatch && task.next >= lastWatch - cLongestTick;
}

static TRunRecord MissedRun(const TTaskEntry& task) {
    TRunRecord record;
    record.outcome = task.period == 0 ? TRunRecord::cRemovedUnrun : TRunRecord::cMovedOn;
    record.task = task.name;
    record.due = task.next;
    record.program = task.program;
    record.parameter = task.parameter;
    return record;
}

TPrepared PrepareTable(std::vector<TTaskEntry> tasks, const std::vector<TStartMark>& marks,
                       TTime lastWatch, TTime now) {
    ApplyMarks(marks, now, tasks);
    TPrepared prepared;
    for (TTaskEntry& task : tasks) {
        if (task.paused || task.next >= now) {
            prepared.tasks.push_back(std::move(task));
            continue;
        }
        if (IsLate(task, lastWatch)) {
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
