#include "calendar/Describe.h"

#include <fmt/format.h>

#include <bit>
#include <vector>

namespace vxsched {

namespace {

using TItems = std::vector<std::string>;

// One, two and three.
std::string Joined(const TItems& items, const char* conjunction = "and") {
    std::string all;
    for (std::size_t index = 0; index < items.size(); ++index) {
        if (index > 0)
            all += index + 1 == items.size() ? fmt::format(" {} ", conjunction) : ", ";
        all += items[index];
    }
    return all;
}

// The values of a field; three or more in a row as "1 to 5".
TItems ItemsOf(std::uint64_t values, std::string (*nameOf)(unsigned)) {
    TItems items;
    for (unsigned value = 0; value < 64; ++value) {
        if ((values >> value & 1U) == 0)
            continue;
        const auto count = static_cast<unsigned>(std::countr_one(values >> value));
        items.push_back(count < 3
                            ? nameOf(value)
                            : fmt::format("{} to {}", nameOf(value), nameOf(value + count - 1)));
        if (count >= 3)
            value += count - 1;
    }
    return items;
}

std::string Number(unsigned value) {
    return std::to_string(value);
}

std::string MonthName(unsigned month) {
    constexpr const char* cNames[] = {"January",   "February", "March",    "April",
                                      "May",       "June",     "July",     "August",
                                      "September", "October",  "November", "December"};
    return cNames[month - 1];
}

// 7 is Sunday at the end of a week.
std::string WeekdayName(unsigned weekday) {
    constexpr const char* cNames[] = {"Sunday",   "Monday", "Tuesday", "Wednesday",
                                      "Thursday", "Friday", "Saturday"};
    return cNames[weekday % 7];
}

std::string Ordinal(unsigned number) {
    return std::to_string(number) + (number == 2 ? "nd" : number == 3 ? "rd" : "th");
}

// The distance of the values if they are evenly spread over all that the field's unit has, from 0
// on; else 0.
unsigned EvenStep(const TCronField& field, unsigned unit) {
    for (unsigned step = 1; step <= unit / 2; ++step) {
        if (unit % step != 0)
            continue;
        std::uint64_t values = 0;
        for (unsigned value = 0; value < unit; value += step)
            values |= std::uint64_t{1} << value;
        if (values == field.values)
            return step;
    }
    return 0;
}

// All times of day, if they are few.
TItems TimesOfDay(const TCronField& minutes, const TCronField& hours) {
    constexpr int cMost = 6;
    TItems times;
    if (std::popcount(minutes.values) * std::popcount(hours.values) > cMost)
        return times;
    for (unsigned hour = 0; hour < 24; ++hour) {
        for (unsigned minute = 0; hours.Has(hour) && minute < 60; ++minute) {
            if (minutes.Has(minute))
                times.push_back(fmt::format("{:02}:{:02}", hour, minute));
        }
    }
    return times;
}

std::string TimeInWords(const TCronField& minutes, const TCronField& hours) {
    if (const TItems times = TimesOfDay(minutes, hours); !times.empty())
        return "at " + Joined(times);
    const unsigned minuteStep = EvenStep(minutes, 60);
    const unsigned hourStep = EvenStep(hours, 24);
    std::string words;
    if (minuteStep > 0)
        words = minuteStep == 1 ? "every minute" : fmt::format("every {} minutes", minuteStep);
    else
        words = fmt::format("at minute {}", Joined(ItemsOf(minutes.values, Number)));
    if (hourStep == 1)
        return minuteStep > 0 ? words : words + " of every hour";
    return words + (hourStep > 1
                        ? fmt::format(" of every {} hour from 0", Ordinal(hourStep))
                        : fmt::format(" of hour {}", Joined(ItemsOf(hours.values, Number))));
}

// "day 1 and the last day of ", without the month.
std::string DaysInWords(const TCronField& days) {
    TItems items = ItemsOf(days.values, Number);
    if (!items.empty())
        items.front().insert(0, "day ");
    if (days.isLastDay)
        items.emplace_back("the last day");
    return Joined(items) + " of ";
}

std::string WeekdaysInWords(const TCronField& weekdays, const char* conjunction) {
    std::uint64_t values = weekdays.values;
    constexpr std::uint64_t cSunday = 1;
    if ((values & ~cSunday) != 0 && (values & cSunday) != 0)
        values = (values & ~cSunday) | cSunday << 7U;
    return Joined(ItemsOf(values, WeekdayName), conjunction);
}

}  // namespace

std::string Describe(const CCronExpression& expression) {
    if (expression.IsReboot())
        return "at each startup";
    const TCronField& days = expression.Field(ECronField::cDay);
    const TCronField& months = expression.Field(ECronField::cMonth);
    const TCronField& weekdays = expression.Field(ECronField::cWeekday);
    std::string words =
        TimeInWords(expression.Field(ECronField::cMinute), expression.Field(ECronField::cHour));
    const bool anyMonth = IsFull(months, ECronField::cMonth);
    const std::string inMonths = Joined(ItemsOf(months.values, MonthName));
    const bool needsBoth = days.isWild || weekdays.isWild;
    const bool anyDay = IsFull(days, ECronField::cDay);
    const bool anyWeekday = IsFull(weekdays, ECronField::cWeekday);
    // A range of all days makes any weekday do, unless both are needed.
    if (needsBoth ? anyDay && anyWeekday : anyDay || anyWeekday) {
        if (!IsFull(expression.Field(ECronField::cHour), ECronField::cHour))
            words += " every day";
        return words + (anyMonth ? "" : " in " + inMonths);
    }
    if (needsBoth && anyDay)
        return words + " on " + WeekdaysInWords(weekdays, "and") +
               (anyMonth ? "" : " in " + inMonths);
    words += " on " + DaysInWords(days) + (anyMonth ? "the month" : inMonths);
    if (needsBoth && anyWeekday)
        return words;
    if (needsBoth)
        return words + " if it is " + WeekdaysInWords(weekdays, "or");
    return words + ", and on every " + WeekdaysInWords(weekdays, "and") +
           (anyMonth ? "" : " in " + inMonths);
}

}  // namespace vxsched
