#include "host/programs/CalendarTasks.h"

#include <fmt/format.h>
#include <scheduler/Scheduler.h>

#include <algorithm>
#include <chrono>
#include <mutex>

#include "base/IsoTime.h"
#include "host/CHostLog.h"
#include "host/programs/CLaunchedPrograms.h"
#include "store/Grid.h"

using std::chrono::seconds;
using vxsched::CSchedule;
using vxsched::TTaskEntry;
using vxsched::TTime;

// Each thread that calls time() notes the clock.
static std::mutex gClockMutex;
static std::optional<std::chrono::nanoseconds> gLead;  // of the clock over that which never sleeps
static TTime gAwakeSince = TTime::min();

static TTime CurrentTime() {
    return std::chrono::floor<seconds>(CurrentMoment());
}

// The steady clock stands still while the machine sleeps, and is never set.
void NoteClock() {
    const std::lock_guard lock(gClockMutex);
    const std::chrono::nanoseconds lead =
        CurrentMoment().time_since_epoch() - std::chrono::steady_clock::now().time_since_epoch();
    if (gLead && lead - *gLead > std::chrono::minutes(1))
        gAwakeSince = CurrentTime();
    gLead = lead;
}

static TTime AwakeSince() {
    const std::lock_guard lock(gClockMutex);
    return gAwakeSince;
}

bool IsToBeLaunched(const TTaskEntry& task, const CSchedule& schedule) {
    if (!schedule.Problem().empty()) {
        LogError(fmt::format("task \"{}\" is not launched: {}", task.name, schedule.Problem()));
        return false;
    }
    if (!schedule.HasCalendar())
        return true;
    const TTime now = CurrentTime();
    const CSchedule::TPassed passed = schedule.PassedUntil(now);
    if (passed.count == 0) {
        LogNotice(fmt::format(
            "task \"{}\" is due at {}, which its calendar does not have: it is not launched",
            task.name, UtcTime(task.next)));
        return false;
    }
    return passed.last >= AwakeSince() ||
           (schedule.CatchUp() && now - passed.last <= *schedule.CatchUp());
}

static void RecordMissed(const TTask& task, TTime first, std::size_t count) {
    TRunRecord run;
    run.outcome = TRunRecord::cRescheduled;
    run.id = MakeOwnRunId();
    run.trigger = cScheduled;
    run.task = task.name;
    run.due = first;
    run.program = task.program;
    run.parameter = task.parameters;
    run.missed = count == 1 ? 0 : count;
    CLaunchedPrograms::Instance().LaunchMissed(run);
}

std::optional<TTime> Reschedule(TTask& task, const CSchedule& schedule, bool isLaunched) {
    if (task.period == 0 || vxsched::StepOf(task.period).count() == 0)
        return {};
    const TTime now = CurrentTime();
    const TTime due = TTime(seconds(task.nextExecution));
    if (schedule.HasCalendar()) {
        const CSchedule::TPassed passed = schedule.PassedUntil(now);
        // The launch was for the due time, the first of them.
        if (!isLaunched && passed.count > 0)
            RecordMissed(task, passed.first, passed.count);
        if (isLaunched && passed.count > 1)
            RecordMissed(task, schedule.FirstFrom(passed.first + seconds(1)), passed.count - 1);
    }
    const TTime next = schedule.FirstFrom(std::max(now, due) + seconds(1));
    if (schedule.IsOver(next)) {
        task.period = 0;
        return {};
    }
    if (!schedule.HasCalendar())
        return {};
    task.nextExecution = next.time_since_epoch().count();
    return next;
}
