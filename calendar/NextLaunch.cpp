#include "calendar/NextLaunch.h"

#include <algorithm>
#include <bit>

#include "base/WallTime.h"

namespace vxsched {

using std::chrono::seconds;
using std::chrono::sys_seconds;

namespace {

using namespace std::chrono_literals;

constexpr sys_seconds cBeginning = date::sys_days(date::year(1) / 1 / 1);
constexpr sys_seconds cEnd = date::sys_days(date::year(9999) / 1 / 1);

// A change by as much or more is a correction of the clock, not one between summer and winter.
constexpr seconds cCorrection = 3h;

// The first value from `from` on; nothing if there is none.
std::optional<unsigned> FirstFrom(const TCronField& field, unsigned from) {
    const std::uint64_t values = field.values >> from << from;
    return values != 0 ? std::optional(static_cast<unsigned>(std::countr_zero(values)))
                       : std::nullopt;
}

// The first minute at or after `wall` and before `end` that the expression selects. Days are tried
// one by one, which months without a launch are not.
std::optional<TWallTime> FirstShown(const CCronExpression& expression, TWallTime wall,
                                    TWallTime end) {
    wall = date::ceil<std::chrono::minutes>(wall);
    while (wall < end) {
        const date::local_days midnight = date::floor<date::days>(wall);
        const date::year_month_day day(midnight);
        if (!expression.Field(ECronField::cMonth).Has(static_cast<unsigned>(day.month()))) {
            wall = date::local_days((day.year() / day.month() + date::months(1)) / 1);
            continue;
        }
        if (expression.HasDay(day)) {
            const date::hh_mm_ss time(wall - midnight);
            const auto nowHour = static_cast<unsigned>(time.hours().count());
            const auto nowMinute = static_cast<unsigned>(time.minutes().count());
            const TCronField& minutes = expression.Field(ECronField::cMinute);
            for (std::optional<unsigned> hour =
                     FirstFrom(expression.Field(ECronField::cHour), nowHour);
                 hour; hour = FirstFrom(expression.Field(ECronField::cHour), *hour + 1)) {
                const std::optional<unsigned> minute =
                    FirstFrom(minutes, *hour == nowHour ? nowMinute : 0);
                if (!minute)
                    continue;
                const TWallTime found =
                    midnight + std::chrono::hours(*hour) + std::chrono::minutes(*minute);
                return found < end ? std::optional(found) : std::nullopt;
            }
        }
        wall = midnight + date::days(1);
    }
    return {};
}

TWallTime WallAt(sys_seconds time, seconds offset) {
    return TWallTime(time.time_since_epoch() + offset);
}

// What was shown before `time`, the beginning of a period, is not launched again in it.
TWallTime FirstNew(const CTimeZone& zone, const CTimeZone::TPeriod& period) {
    const seconds before = zone.PeriodAt(period.begin - 1s).offset;
    const seconds back = before - period.offset;
    return WallAt(period.begin, back > 0s && back < cCorrection ? before : period.offset);
}

}  // namespace

std::optional<sys_seconds> NextLaunch(const CCronExpression& expression, const CTimeZone& zone,
                                      sys_seconds after) {
    if (expression.IsReboot())
        return {};
    const bool isFixed = expression.IsAtFixedTime();
    sys_seconds from = std::max(after, cBeginning - 1s);
    seconds later = 1s;  // than `from`; a change of the clock itself may be a launch
    while (from < cEnd) {
        const CTimeZone::TPeriod period = zone.PeriodAt(from);
        const sys_seconds end = std::min(period.end, cEnd);
        TWallTime wall = WallAt(from, period.offset) + later;
        if (isFixed && period.begin > cBeginning)
            wall = std::max(wall, FirstNew(zone, period));
        const TWallTime endShown = WallAt(end, period.offset);
        if (const std::optional<TWallTime> found = FirstShown(expression, wall, endShown))
            return sys_seconds(found->time_since_epoch() - period.offset);
        if (end >= cEnd)
            return {};
        const seconds forward = zone.PeriodAt(end).offset - period.offset;
        if (isFixed && forward > 0s && forward < cCorrection &&
            FirstShown(expression, endShown, endShown + forward))
            return end;
        from = end;
        later = 0s;
    }
    return {};
}

}  // namespace vxsched
