// Formatting and parsing of ISO 8601 times for logs and records.

#include <gtest/gtest.h>
#include "base/IsoTime.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <optional>

using std::chrono::milliseconds;

TEST(Times, AreReadBackAsTheyWereWritten) {
    for (const std::int64_t number : {0LL, -1LL, 951'782'400'005LL, -62'200'000'000'123LL,
                                      253'402'300'800'000LL, 9'000'000'000'000'000LL}) {
        const TMoment moment{milliseconds(number)};
        EXPECT_EQ(ReadUtcTime(UtcTime(moment)), moment) << UtcTime(moment);
    }
    for (const char* other :
         {"", "2026", "2026-11-20T13:30:05.123", "2026-11-20T13:30:05Z", "2026-13-20T13:30:05.123Z",
          "2026-11-20T13:30:05.123Zx", "99999999999999-11-20T13:30:05.123Z",
          "100000001-11-20T13:30:05.123Z", "-100000001-11-20T13:30:05.123Z",
          "292277026596-12-04T15:30:07.999Z", "-9223372036854775808-01-01T00:00:00.000Z"})
        EXPECT_EQ(ReadUtcTime(other), std::nullopt) << other;
}

TEST(Times, AreWrittenInUtcWithMilliseconds) {
    EXPECT_EQ(UtcTime(TMoment(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(UtcTime(TMoment(milliseconds(951'782'400'005))), "2000-02-29T00:00:00.005Z");
}

TEST(Times, YearsHaveFourDigitsOrMore) {
    EXPECT_EQ(UtcTime(std::chrono::sys_seconds(std::chrono::seconds(-62'135'596'800))),
              "0001-01-01T00:00:00.000Z");
    EXPECT_EQ(UtcTime(std::chrono::sys_seconds(std::chrono::seconds(253'402'300'800))),
              "10000-01-01T00:00:00.000Z");
}

TEST(Times, AreEmptyInAYearThatNoCalendarHas) {
    EXPECT_EQ(UtcTime(std::chrono::sys_seconds::min()), "");
    EXPECT_EQ(UtcTime(std::chrono::sys_seconds::max()), "");
    EXPECT_FALSE(CalendarOf(std::chrono::sys_seconds::max(), EZone::cLocal));
}

TEST(Times, LocalOnesHaveTheirOffset) {
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    EXPECT_EQ(LocalTime(TMoment(milliseconds(951'782'400'005))), "2000-02-29T05:30:00.005+05:30");
    setenv("TZ", "America/St_Johns", 1);
    tzset();
    EXPECT_EQ(LocalTime(TMoment(milliseconds(951'782'400'005))), "2000-02-28T20:30:00.005-03:30");
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    // The clock is set back at 01:00 UTC: the local hour comes twice.
    EXPECT_EQ(LocalTime(TMoment(milliseconds(1'792'889'999'999))), "2026-10-25T02:59:59.999+02:00");
    EXPECT_EQ(LocalTime(TMoment(milliseconds(1'792'890'000'000))), "2026-10-25T02:00:00.000+01:00");
    unsetenv("TZ");
    tzset();
}
