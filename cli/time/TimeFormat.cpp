#include "cli/time/TimeFormat.h"

#include <date/date.h>
#include <fmt/chrono.h>
#include <fmt/compile.h>

#include <cstdint>
#include <optional>
#include <vector>

#include "base/CParser.h"
#include "base/Duration.h"
#include "base/WallTime.h"
#include "cli/time/TimeParts.h"

namespace vxsched {

using std::chrono::seconds;

namespace {

using namespace std::chrono_literals;

// ---- Parsing ------------------------------------------------------------------------------------

constexpr char cForms[] =
    "expected a time such as 2026-11-21 14:30, 14:30, tomorrow 14:30, friday noon, in 3h or now";

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
