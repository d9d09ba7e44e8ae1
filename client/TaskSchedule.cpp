#include "client/TaskSchedule.h"

#include <vxsched/Error.h>
#include "base/IsoTime.h"
#include "store/Grid.h"
#include "store/MakeError.h"

namespace vxsched {

CSchedule RequireSchedule(const TTaskEntry& task) {
    CSchedule schedule(task);
    if (!schedule.Problem().empty())
        throw MakeError(EError::cRefused, "{}", schedule.Problem());
    return schedule;
}

void RequireLaunch(const TTaskEntry& task, const CSchedule& schedule) {
    if (schedule.IsOver(task.next))
        throw MakeError(EError::cRefused,
                        "task \"{}\" would never be launched: it ends (--until) before its due "
                        "time, {}",
                        task.name, UtcTime(task.next));
}

void ScheduleByCalendar(TTaskEntry& task, const CSchedule& schedule) {
    task.period = cCalendarPeriod;
    task.next = schedule.FirstFrom(Now() + std::chrono::seconds(1));
    if (task.next == cNever && !schedule.IsAtStartup())
        throw MakeError(
            EError::cRefused,
            "task \"{}\" would never be launched: no clock shows a time of its calendar; "
            "change that (--cron)",
            task.name);
    RequireLaunch(task, schedule);
}

void MoveToGrid(TTaskEntry& task, TTime now) {
    const std::chrono::seconds step = StepOf(task.period);
    if (step != std::chrono::seconds(0))
        task.next = NextOnGrid(task.next, step, now);
}

}  // namespace vxsched
