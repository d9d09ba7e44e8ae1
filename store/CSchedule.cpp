#include "store/CSchedule.h"

#include <algorithm>

#include "calendar/CCalendarError.h"
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "store/Grid.h"

namespace vxsched {

using std::chrono::seconds;

CSchedule::CSchedule(const TTaskEntry& task)
    : due(task.next), formerLaunch(task.last), step(StepOf(task.period)) {
    if (!IsRunner(task.program))
        return;
    try {
        const TJob job = ReadJobLine(task.parameter);
        catchUp = job.catchUp;
        until = job.until;
        if (job.cron.empty())
            return;
        zone = job.zone.empty() ? CTimeZone::OfMachine() : CTimeZone::Named(job.zone);
        expression = ParseCron(job.cron);
    } catch (const CJobError&) {
        // The runner reports it at each launch.
    } catch (const CCalendarError& error) {
        problem = error.what();
    }
}

bool CSchedule::IsLaunchTime(TTime time) const {
    return !expression || IsAtStartup() || FirstFrom(time) == time;
}

TTime CSchedule::FirstFrom(TTime time) const {
    if (!expression)
        return NextOnGrid(due, step, time);
    const auto launch = NextLaunch(*expression, *zone, time - seconds(1));
    return std::min(launch.value_or(cNever), cNever);
}

CSchedule::TPassed CSchedule::PassedUntil(TTime time) const {
    constexpr std::size_t cMost = 100'000;
    if (IsAtStartup())
        return due <= time ? TPassed{1, due, due} : TPassed();
    const bool standsForAnHour = !IsLaunchTime(due) && formerLaunch != TTime();
    const TTime begin =
        standsForAnHour ? std::max(formerLaunch, due - std::chrono::hours(1)) + seconds(1) : due;
    TPassed passed;
    passed.first = FirstFrom(begin);
    for (TTime launch = passed.first;
         launch <= time && launch < cNever && !IsOver(launch) && passed.count < cMost;
         launch = FirstFrom(launch + seconds(1))) {
        ++passed.count;
        passed.last = launch;
    }
    return passed;
}

}  // namespace vxsched
