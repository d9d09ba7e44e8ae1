#include "host/MissedTasks.h"

#include <algorithm>
#include <optional>

using vxsched::TTaskEntry;
using vxsched::TTime;

static std::optional<TRunRecord> MissedOf(const TTaskEntry& task, TTime now) {
    const bool once = task.period == 0;
    if (once ? task.next > now : task.next >= now || task.paused)
        return std::nullopt;
    TRunRecord record;
    record.outcome = once ? TRunRecord::cRemovedUnrun : TRunRecord::cMovedOn;
    record.task = task.name;
    record.due = task.next;
    record.program = task.program;
    record.parameter = task.parameter;
    return record;
}

std::vector<TRunRecord> FindMissed(const std::vector<TTaskEntry>& tasks, TTime now) {
    std::vector<TRunRecord> missed;
    for (const TTaskEntry& task : tasks) {
        if (const auto record = MissedOf(task, now))
            missed.push_back(*record);
    }
    return missed;
}

std::vector<TRunRecord> FindMissedMeanwhile(const std::vector<TTaskEntry>& tasks, TTime now,
                                            TTime later,
                                            const std::vector<TTaskEntry>& tasksAfterLoad) {
    std::vector<TRunRecord> missed;
    for (const TTaskEntry& task : tasks) {
        const auto record = MissedOf(task, later);
        if (record && !MissedOf(task, now) &&
            std::find(tasksAfterLoad.begin(), tasksAfterLoad.end(), task) == tasksAfterLoad.end())
            missed.push_back(*record);
    }
    return missed;
}
