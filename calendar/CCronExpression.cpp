#include "calendar/CCronExpression.h"

namespace vxsched {

namespace {

unsigned LastDayOf(const date::year_month_day& day) {
    return static_cast<unsigned>((day.year() / day.month() / date::last).day());
}

bool HasDayOfMonth(const TCronField& field, const date::year_month_day& day) {
    return field.Has(static_cast<unsigned>(day.day())) ||
           (field.isLastDay && static_cast<unsigned>(day.day()) == LastDayOf(day));
}

}  // namespace

bool CCronExpression::IsAtFixedTime() const {
    return !Field(ECronField::cMinute).isWild && !Field(ECronField::cHour).isWild;
}

bool CCronExpression::HasDay(const date::year_month_day& day) const {
    if (!Field(ECronField::cMonth).Has(static_cast<unsigned>(day.month())))
        return false;
    const TCronField& days = Field(ECronField::cDay);
    const TCronField& weekdays = Field(ECronField::cWeekday);
    const bool isDay = HasDayOfMonth(days, day);
    const bool isWeekday = weekdays.Has(date::weekday(date::sys_days(day)).c_encoding());
    return days.isWild || weekdays.isWild ? isDay && isWeekday : isDay || isWeekday;
}

// Only a day of the month can be missing: every date there is falls on each day of the week in some
// year.
bool CCronExpression::EverComes() const {
    const TCronField& days = Field(ECronField::cDay);
    if (!days.isWild && !Field(ECronField::cWeekday).isWild)
        return true;
    for (unsigned month = 1; month <= 12; ++month) {
        const auto leapYear = date::year(2000);
        const date::year_month_day last = leapYear / date::month(month) / date::last;
        for (unsigned day = 1; day <= static_cast<unsigned>(last.day()); ++day) {
            if (Field(ECronField::cMonth).Has(month) &&
                HasDayOfMonth(days, leapYear / date::month(month) / date::day(day)))
                return true;
        }
    }
    return false;
}

std::string CCronExpression::Normalised() const {
    if (isReboot)
        return "@reboot";
    std::string all;
    for (std::size_t index = 0; index < cCronFields; ++index) {
        all.append(all.empty() ? "" : " ")
            .append(vxsched::Normalised(fields[index], static_cast<ECronField>(index)));
    }
    return all;
}

}  // namespace vxsched
