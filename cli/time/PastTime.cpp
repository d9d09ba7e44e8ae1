#include "cli/time/PastTime.h"

#include <optional>
#include <string>
#include <vector>

#include "base/Duration.h"
#include "cli/time/TimeParts.h"

namespace vxsched {

using std::chrono::seconds;

namespace {

using namespace std::chrono_literals;

constexpr char cPastForms[] =
    "expected a time such as 2026-11-21 14:30, 14:30, yesterday 14:30, friday noon, 3h ago or now";

// The last time at or before `now` when a local clock showed `timeOfDay`, on a day that is `step`
// days, or a multiple of that, before `day`, or on that day.
TTime LastShowing(seconds timeOfDay, date::local_days day, date::days step, TTime now) {
    for (;; day -= step) {
        const std::vector<TTime> times = TimesShowing(day + timeOfDay);
        for (auto time = times.rbegin(); time != times.rend(); ++time) {
            if (*time <= now)
                return *time;
        }
    }
}

// Tomorrow at the earliest: shortly before a midnight to which the clock is set back, the next day
// has begun once before.
date::local_days LatestDay(TTime now) {
    return date::floor<date::days>(LocalWallTimeAt(now)) + date::days(1);
}

TTime ReadPastTimeOfWeekday(CParser& reader, TTime now, date::weekday weekday) {
    reader.SkipBlanks();
    const seconds timeOfDay = reader.IsAtEnd() ? 0s : ReadTimeOfDay(reader);
    const date::local_days latest = LatestDay(now);
    return LastShowing(timeOfDay, latest - (date::weekday(latest) - weekday), date::days(7), now);
}

TTime LastTimeOfDay(CParser& reader, TTime now, seconds timeOfDay) {
    reader.SkipBlanks();
    if (IsAtZone(reader))
        reader.Fail(reader.Offset(), "a zone is accepted only together with a date");
    return LastShowing(timeOfDay, LatestDay(now), date::days(1), now);
}

TTime ReadPastTimeInWords(CParser& reader, TTime now) {
    const std::size_t offset = reader.Offset();
    const std::string word = reader.TakeWord();
    if (word == "now")
        return now;
    if (word == "today")
        return ReadTimeOfNamedDay(reader, now, date::days(0));
    if (word == "yesterday")
        return ReadTimeOfNamedDay(reader, now, date::days(-1));
    if (const std::optional<date::weekday> weekday = WeekdayCalled(word))
        return ReadPastTimeOfWeekday(reader, now, *weekday);
    if (const std::optional<seconds> timeOfDay = TimeOfDayCalled(word))
        return LastTimeOfDay(reader, now, *timeOfDay);
    reader.Fail(offset, cPastForms);
}

TTime ReadDistance(CParser& reader, TTime now) {
    const std::size_t begin = reader.Offset();
    const TTime time = now - ReadDuration(reader, 1s, "");
    const std::size_t offset = reader.Offset();
    if (reader.TakeWord() != "ago")
        reader.Fail(offset, "expected \"ago\"; quote a time of several words: \"3h ago\"");
    if (time < date::sys_days(date::year(1) / 1 / 1))
        reader.Fail(begin, "the time is before the year 1");
    return time;
}

TTime ReadPastTime(CParser& reader, TTime now) {
    if (reader.IsAtLetter())
        return ReadPastTimeInWords(reader, now);
    if (reader.TakeIf('@'))
        return ReadSecondsSince1970(reader);
    if (!reader.IsAtDigit())
        reader.Fail(reader.Offset(), cPastForms);
    if (reader.NextAfterDigits() == '-')
        return ReadDateAndTime(reader);
    if (reader.NextAfterDigits() == ':')
        return LastTimeOfDay(reader, now, ReadTimeOfDay(reader));
    return ReadDistance(reader, now);
}

}  // namespace

TTime ParsePastTime(std::string_view argument, TTime now) {
    CParser reader("time", argument);
    reader.SkipBlanks();
    const TTime time = ReadPastTime(reader, now);
    reader.ExpectEnd();
    return time;
}

}  // namespace vxsched
