#include "host/startup/PrepareTable.h"

#include <algorithm>
#include <utility>

#include <vxsched/Validation.h>
#include "store/CSchedule.h"
#include "store/Grid.h"

using std::chrono::seconds;
using vxsched::CSchedule;
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

namespace {

// The times of a task that passed without a launch: `count` from `first` to `last`.
struct TMissed {
    std::size_t count = 0;
    TTime first;
    TTime last;
};

TMissed FindMissed(const TTaskEntry& task, const CSchedule& schedule, TTime now) {
    if (schedule.HasCalendar()) {
        const auto [count, first, last] = schedule.PassedUntil(now - seconds(1));
        return {count, first, last};
    }
    if (task.period == 0)
        return {1, task.next, task.next};
    const std::chrono::seconds step = vxsched::StepOf(task.period);
    return {1, task.next, schedule.FirstFrom(now) - step};
}

// Reschedules the task, be it missed or not, or removes it.
void Reschedule(TTaskEntry task, const CSchedule& schedule, TTime now, TPrepared& prepared) {
    if (task.period == 0)
        return;
    const TTime earliest = schedule.HasCalendar() ? now : std::max(now, task.next + seconds(1));
    task.next = schedule.FirstFrom(earliest);
    if (!schedule.IsOver(task.next))
        prepared.tasks.push_back(std::move(task));
}

void PrepareMissed(TTaskEntry task, const CSchedule& schedule, TTime now, TPrepared& prepared) {
    TMissed missed = FindMissed(task, schedule, now);
    const bool isCaughtUp = missed.count > 0 && schedule.CatchUp() &&
                            now - missed.last <= *schedule.CatchUp() &&
                            !vxsched::AbortsLaunch(task.program);
    if (isCaughtUp)
        --missed.count;
    if (missed.count > 0) {
        TRunRecord record = RunOf(task, TRunRecord::cRemoved, TRunRecord::cRescheduled);
        record.due = missed.first;
        record.missed = missed.count == 1 ? 0 : missed.count;
        prepared.notLaunched.push_back(record);
    }
    if (!isCaughtUp)
        return Reschedule(std::move(task), schedule, now, prepared);
    task.next = missed.last;
    prepared.caughtUp.push_back(task);
    prepared.tasks.push_back(std::move(task));
}

}  // namespace

TPrepared PrepareTable(std::vector<TTaskEntry> tasks, const std::vector<TLaunchRecord>& records,
                       const std::vector<TLaunchIntent>& intents,
                       const std::optional<TUptime>& previous, TTime now, TTime booted) {
    ApplyLaunchRecords(records, now, tasks);
    TPrepared prepared;
    for (TTaskEntry& task : tasks) {
        const CSchedule schedule(task);
        if (schedule.IsAtStartup() && !task.paused && task.next == vxsched::cNever) {
            if (schedule.IsOver(now))
                continue;
            if (task.last < booted)
                task.next = now;
        }
        const bool isLaunchTime = schedule.IsLaunchTime(task.next);
        // Also a task that is due later, because the clock was set back.
        const bool isIntended = IsIntended(intents, task);
        if (!isIntended && (task.paused || (task.next >= now && isLaunchTime))) {
            prepared.tasks.push_back(std::move(task));
        } else if (isIntended) {
            prepared.notLaunched.push_back(RunOf(task, TRunRecord::cLaunchUnknownRemoved,
                                                 TRunRecord::cLaunchUnknownRescheduled));
            Reschedule(std::move(task), schedule, now, prepared);
        } else if (isLaunchTime && IsLate(task, previous)) {
            prepared.late.push_back(task);
            prepared.tasks.push_back(std::move(task));
        } else {
            PrepareMissed(std::move(task), schedule, now, prepared);
        }
    }
    return prepared;
}

TTime BeginningOfUptime(const TPrepared& prepared, TTime now) {
    TTime beginning = now;
    for (const TTaskEntry& task : prepared.late)
        beginning = std::min(beginning, task.next);
    return beginning;
}
