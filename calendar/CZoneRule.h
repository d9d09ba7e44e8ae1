// The rule at the end of a zone file: what the clock does after the last change that the file
// lists.

#pragma once

#include <date/date.h>

#include <chrono>
#include <string_view>

namespace vxsched {

// Two changes a year, or none, written as POSIX writes TZ: CET-1CEST,M3.5.0,M10.5.0/3. As zone
// files do, it may have hours of a day from -167 to 167. Immutable; any thread may use it.
class CZoneRule {
public:
    // Throws CCalendarError for what is no such rule.
    explicit CZoneRule(std::string_view text);

    struct TPeriod {
        std::chrono::sys_seconds begin;
        std::chrono::sys_seconds end;
        std::chrono::seconds offset;  // of the local time from UTC, positive to the east
    };

    // The time without a change around `time`, whose year is from 1 to 9999. Without changes it has
    // no end.
    TPeriod PeriodAt(std::chrono::sys_seconds time) const;

private:
    // A day of the year and the time of day, by the clock before the change.
    struct TChange {
        enum class EDay { cOfYear, cOfYearWithoutLeapDay, cOfMonth } kind = EDay::cOfYear;
        unsigned day = 0;  // of the year; of the week for cOfMonth
        unsigned week = 0;
        unsigned month = 0;
        std::chrono::seconds time{0};

        date::local_seconds In(date::year year) const;
    };

    class CReader;

    bool hasSummer = false;
    std::chrono::seconds standard{0};
    std::chrono::seconds summer{0};
    TChange toSummer;
    TChange toStandard;
};

}  // namespace vxsched
