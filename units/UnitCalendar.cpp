#include "units/UnitCalendar.h"

#include <date/date.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <array>
#include <string_view>

#include "calendar/CronField.h"
#include "calendar/NextLaunch.h"

namespace vxsched {

namespace {

std::string ListOf(const TCronField& field, ECronField which) {
    if (IsFull(field, which))
        return "*";
    std::vector<std::string> values;
    const TCronRange& range = RangeOf(which);
    for (unsigned value = range.low; value <= range.high; ++value) {
        if (field.Has(value))
            values.push_back(fmt::format("{:02}", value));
    }
    return fmt::format("{}", fmt::join(values, ","));
}

// With a blank behind; empty for all days.
std::string WeekdaysOf(const TCronField& field) {
    if (IsFull(field, ECronField::cWeekday))
        return "";
    constexpr std::array<std::string_view, 7> cNames = {"Sun", "Mon", "Tue", "Wed",
                                                        "Thu", "Fri", "Sat"};
    std::vector<std::string_view> names;
    for (unsigned day = 0; day < cNames.size(); ++day) {
        if (field.Has(day))
            names.push_back(cNames.at(day));
    }
    return fmt::format("{} ", fmt::join(names, ","));
}

// Whether an expression has a launch at that wall time.
bool Shows(const CCronExpression& expression, std::chrono::sys_seconds wall) {
    const auto day = date::floor<date::days>(wall);
    const date::hh_mm_ss<std::chrono::seconds> time(wall - day);
    const auto has = [&](ECronField field, long value) {
        return expression.Field(field).Has(static_cast<unsigned>(value));
    };
    return has(ECronField::cMinute, time.minutes().count()) &&
           has(ECronField::cHour, time.hours().count()) && expression.HasDay(day);
}

}  // namespace

std::vector<std::string> UnitCalendar(const CCronExpression& expression, const std::string& zone) {
    const TCronField& days = expression.Field(ECronField::cDay);
    const TCronField& weekdays = expression.Field(ECronField::cWeekday);
    const std::string month = ListOf(expression.Field(ECronField::cMonth), ECronField::cMonth);
    const std::string rest =
        fmt::format(" {}:{}:00{}{}", ListOf(expression.Field(ECronField::cHour), ECronField::cHour),
                    ListOf(expression.Field(ECronField::cMinute), ECronField::cMinute),
                    zone.empty() ? "" : " ", zone);
    // A timer wants both the day and the weekday, cron either where neither begins with *.
    const bool needsBoth = days.isWild || weekdays.isWild;
    const std::string onWeekdays = WeekdaysOf(weekdays);
    const std::string both = needsBoth ? onWeekdays : "";
    std::vector<std::string> calendars;
    if (days.values != 0)
        calendars.push_back(
            fmt::format("{}*-{}-{}{}", both, month, ListOf(days, ECronField::cDay), rest));
    if (days.isLastDay)
        calendars.push_back(fmt::format("{}*-{}~01{}", both, month, rest));
    if (!needsBoth)
        calendars.push_back(fmt::format("{}*-{}-*{}", onWeekdays, month, rest));
    return calendars;
}

bool DiffersAtChange(const CCronExpression& expression, const CTimeZone& zone,
                     std::chrono::sys_seconds from, std::chrono::sys_seconds to) {
    for (CTimeZone::TPeriod before = zone.PeriodAt(from); before.end < to;) {
        const CTimeZone::TPeriod after = zone.PeriodAt(before.end);
        const std::chrono::seconds forward = after.offset - before.offset;
        const auto first = NextLaunch(expression, zone, before.end - std::chrono::seconds(1));
        // A fixed time that the clock skips is launched when it is set forward.
        if (forward.count() > 0 && expression.IsAtFixedTime() && first == before.end &&
            !Shows(expression, before.end + after.offset))
            return true;
        if (forward.count() < 0 && first && *first < before.end - forward)
            return true;
        before = after;
    }
    return false;
}

}  // namespace vxsched
