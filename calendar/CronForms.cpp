#include "calendar/CronForms.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>

#include "base/DisplayText.h"
#include "calendar/CCalendarError.h"
#include "calendar/ParseCron.h"

namespace vxsched {

namespace {

constexpr std::size_t cLongestForm = 200;

// "30 8" for 08:30.
std::string MinuteAndHour(std::string_view time) {
    const auto isDigit = [](char character) { return character >= '0' && character <= '9'; };
    const std::size_t colon = time.find(':');
    const std::string_view hour = time.substr(0, colon);
    const std::string_view minute =
        colon == std::string_view::npos ? std::string_view() : time.substr(colon + 1);
    if (hour.empty() || hour.size() > 2 || minute.size() != 2 ||
        !std::all_of(hour.begin(), hour.end(), isDigit) ||
        !std::all_of(minute.begin(), minute.end(), isDigit) || (hour.size() == 2 && hour > "23") ||
        minute > "59")
        throw CCalendarError(fmt::format(
            "cannot read the time of day \"{}\": expected hours and minutes from 00:00 to 23:59",
            Show(time.substr(0, cLongestForm)).string));
    return fmt::format("{} {}", minute, hour);
}

// Splits "DAYS TIME" and makes an expression of it.
CCronExpression OnDays(std::string_view text, const char* example, std::string_view format) {
    const std::size_t blank = text.find_last_of(' ');
    const std::size_t daysEnd = text.find_last_not_of(' ', blank);
    if (text.size() > cLongestForm || blank == std::string_view::npos ||
        daysEnd == std::string_view::npos || text.find(' ') < daysEnd)
        throw CCalendarError(fmt::format("cannot read \"{}\": expected days and a time, as \"{}\"",
                                         Show(text.substr(0, cLongestForm)).string, example));
    return ParseCron(fmt::format(fmt::runtime(format), MinuteAndHour(text.substr(blank + 1)),
                                 text.substr(0, daysEnd + 1)));
}

}  // namespace

CCronExpression EveryDay(std::string_view timeOfDay) {
    return ParseCron(MinuteAndHour(timeOfDay) + " * * *");
}

CCronExpression EveryWeek(std::string_view daysAndTime) {
    return OnDays(daysAndTime, "mon,fri 08:30", "{} * * {}");
}

CCronExpression EveryMonth(std::string_view daysAndTime) {
    return OnDays(daysAndTime, "1,15 08:30", "{} {} * *");
}

CCronExpression EveryPartOfHour(std::chrono::minutes period) {
    const auto count = period.count();
    if (count < 1 || count > 30 || 60 % count != 0)
        throw CCalendarError(
            fmt::format("cannot repeat every {} minutes: below an hour, a period is one of 1, 2, "
                        "3, 4, 5, 6, 10, "
                        "12, 15, 20 and 30 minutes, which divide an hour",
                        count));
    return ParseCron(fmt::format("*/{} * * * *", count));
}

}  // namespace vxsched
