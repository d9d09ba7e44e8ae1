#include "cli/time/TimeFormat.h"

#include <date/date.h>
#include <fmt/chrono.h>
#include <fmt/compile.h>

#include <charconv>
#include <cstdint>
#include <optional>
#include <system_error>
#include <vector>

#include "base/WallTime.h"
#include "cli/time/CParser.h"
#include "cli/time/Duration.h"

namespace vxsched {

using std::chrono::hours;
using std::chrono::minutes;
using std::chrono::seconds;

namespace {

using namespace std::chrono_literals;

constexpr char cForms[] =
    "expected a time such as 2026-11-21 14:30, 14:30, tomorrow 14:30, friday noon, in 3h or now";
constexpr char cSkippedByClock[] =
    "this local time does not exist: the clock is set forward over it";

// ---- Reading: dates, times of day, zones --------------------------------------------------------

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

// `noon` or `midnight`; nothing if `word` is neither.
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

// ---- Reading: the forms of a time ---------------------------------------------------------------

// The first time when a local clock shows `wall`. Throws CParseError for `offset` if there is none.
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

// `day` is 0 for today, 1 for tomorrow. Without a time of day it is midnight.
TTime ReadTimeOfNamedDay(CParser& reader, TTime now, date::days day) {
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    const TWallTime midnight = date::floor<date::days>(LocalWallTimeAt(now)) + day;
    return FirstShowing(midnight + (reader.IsAtEnd() ? 0s : ReadTimeOfDay(reader)), reader, offset);
}

// Sunday to Saturday in English, whole or as three letters; nothing for any other word.
std::optional<date::weekday> WeekdayCalled(std::string_view word) {
    constexpr std::string_view cNames[] = {"sunday",   "monday", "tuesday", "wednesday",
                                           "thursday", "friday", "saturday"};
    for (unsigned number = 0; number < std::size(cNames); ++number) {
        if (word == cNames[number] || word == cNames[number].substr(0, 3))
            return date::weekday(number);
    }
    return {};
}

// The first day of that name, today included, at whose time of day it is not before `now`.
TTime ReadTimeOfWeekday(CParser& reader, TTime now, date::weekday weekday) {
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    const seconds timeOfDay = reader.IsAtEnd() ? 0s : ReadTimeOfDay(reader);
    const date::local_days today = date::floor<date::days>(LocalWallTimeAt(now));
    const date::local_days day = today + (weekday - date::weekday(today));
    const std::vector<TTime> times = TimesShowing(day + timeOfDay);
    const bool isPast = day == today && !times.empty() && times.front() < now;
    return FirstShowing(day + (isPast ? date::days(7) : date::days(0)) + timeOfDay, reader, offset);
}

// `timeOfDay` has been read at `offset`.
TTime ReadNextTimeOfDay(CParser& reader, TTime now, seconds timeOfDay, std::size_t offset) {
    reader.SkipBlanks();
    if (IsAtZone(reader))
        reader.Fail(reader.Offset(), "a zone is accepted only together with a date");
    const TWallTime wallNow = LocalWallTimeAt(now);
    // Begin with yesterday: shortly after midnight the clock may be set back to the day before.
    TWallTime wall = date::floor<date::days>(wallNow) - date::days(1) + timeOfDay;
    for (;; wall += date::days(1)) {
        const std::vector<TTime> times = TimesShowing(wall);
        for (const TTime time : times) {
            if (time >= now)
                return time;
        }
        // Refuse 02:30 before a night that skips it: the 02:30 of the night after was not meant.
        if (times.empty() && wall > wallNow)
            reader.Fail(offset, cSkippedByClock);
    }
}

TTime ReadRelativeTime(CParser& reader, TTime now) {
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    if (reader.Next() == '-')
        reader.Fail(offset, "only a time in the future can be given in this form");
    const TTime time = now + ReadDuration(reader, 1s, "");
    if (time >= date::sys_days(date::year(10000) / 1 / 1))
        reader.Fail(offset, "the time is after the year 9999");
    return time;
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

// Throws CParseError if the argument ends after its first word. It does if a time of several words
// was not quoted: the shell passes each word as an argument of its own.
void RequireSecondWord(CParser& reader, const char* expected, const char* example) {
    reader.SkipBlanks();
    if (reader.IsAtEnd())
        reader.Fail(
            reader.Offset(),
            fmt::format("expected {}; quote a time of several words: \"{}\"", expected, example));
}

TTime ReadTimeInWords(CParser& reader, TTime now) {
    const std::size_t offset = reader.Offset();
    const std::string word = reader.TakeWord();
    if (word == "now")
        return now;
    if (word == "in") {
        RequireSecondWord(reader, "a number with a unit, such as 6h", "in 3h");
        return ReadRelativeTime(reader, now);
    }
    if (word == "today") {
        RequireSecondWord(reader, "a time of day such as 14:30", "today 14:30");
        return ReadTimeOfNamedDay(reader, now, date::days(0));
    }
    if (word == "tomorrow")
        return ReadTimeOfNamedDay(reader, now, date::days(1));
    if (const std::optional<date::weekday> weekday = WeekdayCalled(word))
        return ReadTimeOfWeekday(reader, now, *weekday);
    if (const std::optional<seconds> timeOfDay = TimeOfDayCalled(word))
        return ReadNextTimeOfDay(reader, now, *timeOfDay, offset);
    reader.Fail(offset, cForms);
}

TTime ReadTime(CParser& reader, TTime now) {
    if (reader.IsAtLetter())
        return ReadTimeInWords(reader, now);
    if (reader.TakeIf('+'))
        return ReadRelativeTime(reader, now);
    if (reader.TakeIf('@'))
        return ReadSecondsSince1970(reader);
    if (reader.IsAtDigit() && reader.NextAfterDigits() == '-')
        return ReadDateAndTime(reader);
    if (reader.IsAtDigit() && reader.NextAfterDigits() == ':') {
        const std::size_t offset = reader.Offset();
        const seconds timeOfDay = ReadTimeOfDay(reader);
        return ReadNextTimeOfDay(reader, now, timeOfDay, offset);
    }
    reader.Fail(reader.Offset(), cForms);
}

// ---- Writing ------------------------------------------------------------------------------------

// The year has four digits.
bool HasIsoForm(const std::optional<std::tm>& calendar) {
    return calendar && calendar->tm_year + 1900L >= 1 && calendar->tm_year + 1900L <= 9999;
}

std::string WriteSeconds(TTime time) {
    return fmt::format("@{}", time.time_since_epoch().count());
}

}  // namespace

TTime ParseTime(std::string_view argument, TTime now) {
    CParser reader("time", argument);
    reader.SkipBlanks();
    const TTime time = ReadTime(reader, now);
    reader.ExpectEnd();
    return time;
}

// The formats are compiled for speed: a list formats two times for each task.
std::string FormatTime(TTime time, EZone zone) {
    const std::optional<std::tm> calendar = CalendarOf(time, zone);
    return HasIsoForm(calendar) ? fmt::format(FMT_COMPILE("{:%F %T}"), *calendar)
                                : WriteSeconds(time);
}

std::string FormatIsoTime(TTime time) {
    const std::optional<std::tm> calendar = CalendarOf(time, EZone::cUtc);
    return HasIsoForm(calendar) ? fmt::format(FMT_COMPILE("{:%FT%TZ}"), *calendar)
                                : WriteSeconds(time);
}

seconds Between(TTime from, TTime to) {
    std::int64_t distance = 0;
    if (!__builtin_sub_overflow(to.time_since_epoch().count(), from.time_since_epoch().count(),
                                &distance))
        return seconds(distance);
    return from < to ? seconds::max() : seconds::min();
}

std::string FormatDistance(seconds distance) {
    struct TUnit {
        std::uint64_t seconds;
        const char* name;
    };
    constexpr TUnit cUnits[] = {{86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
    if (distance == 0s)
        return "now";
    auto left = static_cast<std::uint64_t>(distance.count());
    if (distance < 0s)
        left = 0 - left;  // unsigned, so that it is right for the smallest value too
    std::string formatted;
    int units = 0;
    for (const TUnit& unit : cUnits) {
        const std::uint64_t count = left / unit.seconds;
        left %= unit.seconds;
        if (count > 0)
            formatted.append(formatted.empty() ? "" : " ")
                .append(std::to_string(count))
                .append(unit.name);
        // The second unit is the one after the first even if it is 0: 1h for 1h 0min 30s.
        if (!formatted.empty() && ++units == 2)
            break;
    }
    return distance < 0s ? formatted + " ago" : formatted;
}

}  // namespace vxsched
