// When a task is launched: on the grid of its period, or by the calendar of its job.

#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include <vxsched/Table.h>
#include "calendar/CCronExpression.h"
#include "calendar/CTimeZone.h"

namespace vxsched {

// A table shows a task with a calendar as one with a period of an hour, whose next due time is a launch
// time of the calendar: a host that does not know of calendars launches it within the hour.
inline constexpr std::uint32_t cCalendarPeriod = 1;

// The due time of a task that no clock launches, but a startup of the machine (@reboot).
inline constexpr TTime cNever(std::chrono::seconds(253'402'214'400));  // 9999-12-31

// The schedule of a task as it was when this was made. Reads the zone's file. Throws nothing but
// std::bad_alloc: what a job line says that cannot be read is as if it did not say it.
class CSchedule {
public:
    explicit CSchedule(const TTaskEntry& task);

    bool HasCalendar() const { return expression.has_value(); }
    // Whether it is launched when a host starts for the first time since the machine has.
    bool IsAtStartup() const { return expression && expression->IsReboot(); }
    // Of a task with a calendar.
    const CCronExpression& Expression() const { return *expression; }
    const CTimeZone& Zone() const { return *zone; }
    // Why the calendar of the task cannot be used, such as a zone that is missing; the task has the
    // grid of its period then. Else empty.
    const std::string& Problem() const { return problem; }

    // Whether a due time of the task is a launch time of its calendar. At any other one, such as one
    // that a client has set or a host without calendars, nothing is launched. True without a calendar.
    bool IsLaunchTime(TTime due) const;

    // The first launch time at or after `time`, be the task active or paused; cNever if no clock
    // launches it any more. Requires that the task repeats and that its step is not zero.
    TTime FirstFrom(TTime time) const;

    // Whether the job is to be launched at that time no more: TJob::until. False for cNever.
    bool IsOver(TTime launch) const { return until && launch > *until && launch != cNever; }

    // The launch times from the due time of the task to `time`, counted to a hundred thousand. A due time
    // that is none stands for those of the hour before it, since the task's last launch: a host without
    // calendars has rescheduled it. Requires a calendar.
    struct TPassed {
        std::size_t count = 0;
        TTime first;
        TTime last;
    };
    TPassed PassedUntil(TTime time) const;

    // How late a launch may be that was missed; none if it is not made.
    std::optional<std::chrono::seconds> CatchUp() const { return catchUp; }

private:
    TTime due;
    TTime formerLaunch;  // zero: none
    std::chrono::seconds step;
    std::optional<CCronExpression> expression;
    std::optional<CTimeZone> zone;
    std::optional<std::chrono::seconds> catchUp;
    std::optional<TTime> until;
    std::string problem;
};

}  // namespace vxsched
