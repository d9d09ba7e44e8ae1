#include "cli/commands/DescribeTask.h"

#include <fmt/format.h>

#include "cli/output/JobFormat.h"
#include "cli/time/PeriodFormat.h"
#include "cli/time/TimeFormat.h"
#include "store/CSchedule.h"

namespace vxsched {

std::string DescribeTask(const TCommon& common, const TTaskEntry& task) {
    const TTime now = Now();
    const std::string when = task.next == cNever ? "at the next startup"
                             : task.next <= now
                                 ? "now"
                                 : fmt::format("{} (in {})", FormatTime(task.next, common.zone),
                                               FormatDistance(Between(now, task.next)));
    const std::string schedule = FormatSchedule(task);
    const std::string every = task.period == 0                ? schedule
                              : CSchedule(task).HasCalendar() ? "by the calendar " + schedule
                                                              : "every " + schedule;
    return fmt::format("{}, {}, {} {}{}", task.name, every,
                       task.paused ? "paused, next due" : "next due", when,
                       common.dryRun ? " (nothing was changed)" : "");
}

}  // namespace vxsched
