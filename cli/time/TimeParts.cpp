#include "cli/time/TimeParts.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdint>
#include <system_error>
#include <vector>

#include "base/IsoTime.h"

namespace vxsched {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

namespace {

using namespace std::chrono_literals;

// Reads a number of exactly `digits` digits, four at most.
int ReadNumber(CParser& reader, std::size_t digits, std::string_view reason) {
    const std::size_t offset = reader.Offset();
    int value = 0;
    const std::string_view number = reader.TakeDigits();
    if (number.size() != digits)
        reader.Fail(offset, reason);
    for (const char digit : number)
        value = 10 * value + (digit - '0');
    return value;
}

// Reads a number of two digits, up to `most`.
int ReadPart(CParser& reader, int most, const char* name) {
    const std::size_t offset = reader.Offset();
    const int value = ReadNumber(reader, 2, fmt::format("the {} must have two digits", name));
    if (value > most)
        reader.Fail(offset, fmt::format("the {} must be from 00 to {}", name, most));
    return value;
}

date::local_days ReadDate(CParser& reader) {
    const std::size_t offset = reader.Offset();
    const int year = ReadNumber(reader, 4, "the year must have four digits");
    if (year == 0)
        reader.Fail(offset, "the year must be from 0001 to 9999");
    constexpr char cForm[] = "a date is written as 2026-11-21";
    if (!reader.TakeIf('-'))
        reader.Fail(reader.Offset(), cForm);
    const std::size_t monthOffset = reader.Offset();
    const int month = ReadNumber(reader, 2, "the month must have two digits");
    if (month < 1 || month > 12)
        reader.Fail(monthOffset, "the month must be from 01 to 12");
    if (!reader.TakeIf('-'))
        reader.Fail(reader.Offset(), cForm);
    const int day = ReadNumber(reader, 2, "the day must have two digits");
    const date::year_month_day date(date::year(year), date::month(static_cast<unsigned>(month)),
                                    date::day(static_cast<unsigned>(day)));
    if (!date.ok())
        reader.Fail(offset, "there is no such day");
    return date::local_days(date);
}

// Reads the offset of a zone from UTC, positive to the east. Requires IsAtZone().
seconds ReadZone(CParser& reader) {
    if (reader.TakeIf('z'))
        return 0s;
    const int sign = reader.Next() == '-' ? -1 : 1;
    reader.TakeIf(sign < 0 ? '-' : '+');
    const std::size_t offset = reader.Offset();
    constexpr char cForm[] = "a zone is written as Z, +01:00, +0100 or +01";
    const std::string_view digits = reader.TakeDigits();
    if (digits.size() != 2 && digits.size() != 4)
        reader.Fail(offset, cForm);
    const auto twoDigits = [&](std::size_t at) {
        return 10 * (digits[at] - '0') + (digits[at + 1] - '0');
    };
    const hours wholeHours(twoDigits(0));
    minutes minutesOfHour(0);
    if (digits.size() == 4)
        minutesOfHour = minutes(twoDigits(2));
    else if (reader.TakeIf(':'))
        minutesOfHour = minutes(ReadNumber(reader, 2, cForm));
    if (minutesOfHour > 59min || wholeHours + minutesOfHour > 14h)
        reader.Fail(offset, "a zone must be from -14:00 to +14:00");
    return sign * (wholeHours + minutesOfHour);
}

}  // namespace

std::optional<seconds> TimeOfDayCalled(std::string_view word) {
    if (word == "noon")
        return 12h;
    if (word == "midnight")
        return 0h;
    return {};
}

seconds ReadTimeOfDay(CParser& reader) {
    const std::size_t offset = reader.Offset();
    if (reader.IsAtLetter()) {
        if (const std::optional<seconds> time = TimeOfDayCalled(reader.TakeWord()))
            return *time;
        reader.Fail(offset, "expected a time of day such as 14:30");
    }
    if (!reader.IsAtDigit())
        reader.Fail(reader.Offset(), "expected a time of day such as 14:30");
    seconds time = hours(ReadPart(reader, 23, "hour"));
    if (!reader.TakeIf(':'))
        reader.Fail(reader.Offset(), "a time of day is written as 14:30");
    time += minutes(ReadPart(reader, 59, "minute"));
    if (reader.TakeIf(':'))
        time += seconds(ReadPart(reader, 59, "second"));
    return time;
}

bool IsAtZone(const CParser& reader) {
    const char next = reader.Next();
    return next == 'Z' || next == 'z' || next == '+' || next == '-';
}

TTime FirstShowing(TWallTime wall, const CParser& reader, std::size_t offset) {
    const std::vector<TTime> times = TimesShowing(wall);
    if (times.empty())
        reader.Fail(offset, cSkippedByClock);
    return times.front();
}

TTime ReadDateAndTime(CParser& reader) {
    std::size_t offset = reader.Offset();
    TWallTime wall = ReadDate(reader);
    constexpr char cZoneAlone[] = "expected a time of day before the zone";
    if (reader.TakeIf('t')) {
        offset = reader.Offset();
        wall += ReadTimeOfDay(reader);
    } else {
        reader.SkipBlanks();
        if (IsAtZone(reader))
            reader.Fail(reader.Offset(), cZoneAlone);
        if (!reader.IsAtDigit() && !reader.IsAtLetter())
            return FirstShowing(wall, reader, offset);
        offset = reader.Offset();
        wall += ReadTimeOfDay(reader);
    }
    reader.SkipBlanks();
    if (IsAtZone(reader))
        return TTime(wall.time_since_epoch()) - ReadZone(reader);
    return FirstShowing(wall, reader, offset);
}

TTime ReadTimeOfNamedDay(CParser& reader, TTime now, date::days day) {
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    const TWallTime midnight = date::floor<date::days>(LocalWallTimeAt(now)) + day;
    return FirstShowing(midnight + (reader.IsAtEnd() ? 0s : ReadTimeOfDay(reader)), reader, offset);
}

std::optional<date::weekday> WeekdayCalled(std::string_view word) {
    constexpr std::string_view cNames[] = {"sunday",   "monday", "tuesday", "wednesday",
                                           "thursday", "friday", "saturday"};
    for (unsigned number = 0; number < std::size(cNames); ++number) {
        if (word == cNames[number] || word == cNames[number].substr(0, 3))
            return date::weekday(number);
    }
    return {};
}

TTime ReadSecondsSince1970(CParser& reader) {
    const std::size_t offset = reader.Offset();
    std::string number(reader.TakeIf('-') ? "-" : "");
    const std::string_view digits = reader.TakeDigits();
    if (digits.empty())
        reader.Fail(reader.Offset(), "expected the seconds since 1970 after the @");
    number += digits;
    std::int64_t value = 0;
    const auto result = std::from_chars(number.data(), number.data() + number.size(), value);
    const TTime time{seconds(value)};
    if (result.ec != std::errc() || !CalendarOf(time, EZone::cUtc))
        reader.Fail(offset, "the time is out of range");
    return time;
}

void RequireSecondWord(CParser& reader, const char* expected, const char* example) {
    reader.SkipBlanks();
    if (reader.IsAtEnd())
        reader.Fail(
            reader.Offset(),
            fmt::format("expected {}; quote a time of several words: \"{}\"", expected, example));
}

}  // namespace vxsched
