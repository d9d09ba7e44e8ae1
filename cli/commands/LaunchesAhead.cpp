#include "cli/commands/LaunchesAhead.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <chrono>
#include <string>
#include <vector>

#include "store/CSchedule.h"

namespace vxsched {

namespace {

void PrintCalendar(const TCommon& common, const TTaskEntry& task, const CSchedule& schedule,
                   COutput& output) {
    constexpr int cShown = 4;
    std::vector<std::string> launches;
    TTime launch = task.next;
    while (launches.size() < cShown) {
        launch = schedule.FirstFrom(launch + std::chrono::seconds(1));
        if (launch == cNever || schedule.IsOver(launch))
            break;
        launches.push_back(FormatTime(launch, common.zone));
    }
    if (!launches.empty())
        output.Line(fmt::format("then {}", fmt::join(launches, ", ")));
}

// Within a year of the next launch: clocks change twice in it, or not at all.
void PrintDrift(const TCommon& common, const TTaskEntry& task, COutput& output) {
    constexpr std::chrono::hours cDay(24);
    const std::chrono::hours period(task.period);
    const auto localTimeOf = [&](TTime time) { return FormatTime(time, common.zone); };
    const std::string first = localTimeOf(task.next);
    const std::size_t date = first.find(' ');
    if (task.period == 0 || period % cDay != std::chrono::hours(0) || date == std::string::npos)
        return;
    for (TTime due = task.next; due < task.next + 366 * cDay; due += period) {
        const std::string local = localTimeOf(due);
        if (local.substr(date) == first.substr(date))
            continue;
        output.Line(
            fmt::format("it drifts when the clock changes, as at {}: a period is a number of "
                        "hours; give --{} for a time of day",
                        local, period == 7 * cDay ? "weekly" : "daily"));
        return;
    }
}

}  // namespace

void PrintLaunchesAhead(const TCommon& common, const TTaskEntry& task, COutput& output) {
    const CSchedule schedule(task);
    if (schedule.HasCalendar())
        PrintCalendar(common, task, schedule, output);
    else
        PrintDrift(common, task, output);
}

}  // namespace vxsched
