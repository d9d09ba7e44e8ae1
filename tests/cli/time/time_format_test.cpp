// Parsing and formatting times: the values of accepted arguments in several zones, the message and
// the offset for refused ones, and that a formatted time is parsed to the same value.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "base/CParseError.h"
#include "cli/time/TimeFormat.h"

#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "RefusedArgument.h"
#include "SampleTimes.h"

using namespace std::chrono_literals;
using namespace vxsched;
using testing::HasSubstr;

namespace {

struct TAccepted {
    const char* zone;
    const char* text;
    const char* now;
    const char* time;
};

void PrintTo(const TAccepted& test, std::ostream* stream) {
    *stream << test.zone << ": " << test.text << " at " << test.now;
}

class AcceptedTime : public testing::TestWithParam<TAccepted> {};

class RefusedTime : public testing::TestWithParam<TRefused> {};

}  // namespace

// ---- Accepted arguments -----------------------------------------------------------------------

TEST_P(AcceptedTime, IsThis) {
    const CZone zone(GetParam().zone);
    EXPECT_EQ(FormatIsoTime(ParseTime(GetParam().text, Utc(GetParam().now))), GetParam().time);
}

INSTANTIATE_TEST_SUITE_P(
    Date, AcceptedTime,
    testing::Values(
        TAccepted{"Europe/Berlin", "2026-11-21", cNow, "2026-11-20T23:00:00Z"},
        TAccepted{"Europe/Berlin", "2026-11-21 14:30", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"Europe/Berlin", "2026-07-21 14:30", cNow, "2026-07-21T12:30:00Z"},
        TAccepted{"Europe/Berlin", "2026-11-21T14:30", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"Europe/Berlin", "2026-11-21t14:30:15", cNow, "2026-11-21T13:30:15Z"},
        TAccepted{"Europe/Berlin", "2026-11-21 14:30:15", cNow, "2026-11-21T13:30:15Z"},
        TAccepted{"Europe/Berlin", "  2026-11-21   14:30  ", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"America/New_York", "2026-11-21 14:30", cNow, "2026-11-21T19:30:00Z"},
        TAccepted{"America/New_York", "2026-11-21", cNow, "2026-11-21T05:00:00Z"},
        TAccepted{"Australia/Lord_Howe", "2026-11-21 14:30", cNow, "2026-11-21T03:30:00Z"},
        TAccepted{"Australia/Lord_Howe", "2026-07-21 14:30", cNow, "2026-07-21T04:00:00Z"},
        TAccepted{"Asia/Kathmandu", "2026-11-21 14:30", cNow, "2026-11-21T08:45:00Z"},
        TAccepted{"UTC", "2026-11-21 14:30", cNow, "2026-11-21T14:30:00Z"},
        // Year ends and leap days.
        TAccepted{"Europe/Berlin", "2027-01-01", cNow, "2026-12-31T23:00:00Z"},
        TAccepted{"Asia/Kathmandu", "2027-01-01 00:00:00", cNow, "2026-12-31T18:15:00Z"},
        TAccepted{"America/New_York", "2026-12-31 23:59:59", cNow, "2027-01-01T04:59:59Z"},
        TAccepted{"UTC", "2028-02-29 00:00", cNow, "2028-02-29T00:00:00Z"},
        TAccepted{"UTC", "2000-02-29 00:00", cNow, "2000-02-29T00:00:00Z"},
        TAccepted{"UTC", "0001-01-01", cNow, "0001-01-01T00:00:00Z"},
        TAccepted{"UTC", "9999-12-31 23:59:59", cNow, "9999-12-31T23:59:59Z"}));

INSTANTIATE_TEST_SUITE_P(
    Zone, AcceptedTime,
    testing::Values(
        TAccepted{"Europe/Berlin", "2026-11-21 14:30Z", cNow, "2026-11-21T14:30:00Z"},
        TAccepted{"Europe/Berlin", "2026-11-21T14:30:15Z", cNow, "2026-11-21T14:30:15Z"},
        TAccepted{"Europe/Berlin", "2026-11-21T14:30:15z", cNow, "2026-11-21T14:30:15Z"},
        TAccepted{"Europe/Berlin", "2026-11-21 14:30+01:00", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"America/New_York", "2026-11-21 14:30+0100", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"America/New_York", "2026-11-21 14:30+01", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"America/New_York", "2026-11-21 14:30:15 +01", cNow, "2026-11-21T13:30:15Z"},
        TAccepted{"America/New_York", "2026-11-21 14:30-05:30", cNow, "2026-11-21T20:00:00Z"},
        TAccepted{"UTC", "2026-11-21 14:30-0530", cNow, "2026-11-21T20:00:00Z"},
        TAccepted{"UTC", "2026-11-21 14:30+05:45", cNow, "2026-11-21T08:45:00Z"},
        TAccepted{"UTC", "2026-11-21 14:30+14:00", cNow, "2026-11-21T00:30:00Z"},
        TAccepted{"UTC", "2026-11-21 14:30-14", cNow, "2026-11-22T04:30:00Z"},
        TAccepted{"UTC", "2026-12-31 23:30-01", cNow, "2027-01-01T00:30:00Z"},
        // Where the local clock is put forward over it, another zone's is not.
        TAccepted{"Europe/Berlin", "2026-03-29 02:30Z", cNow, "2026-03-29T02:30:00Z"}));

INSTANTIATE_TEST_SUITE_P(
    TimeOfDay, AcceptedTime,
    testing::Values(
        TAccepted{"Europe/Berlin", "14:30", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"Europe/Berlin", "14:30:15", cNow, "2026-11-21T13:30:15Z"},
        TAccepted{"Europe/Berlin", "13:00", cNow, "2026-11-21T12:00:00Z"},
        TAccepted{"Europe/Berlin", "12:59:59", cNow, "2026-11-22T11:59:59Z"},
        TAccepted{"Europe/Berlin", "00:00", cNow, "2026-11-21T23:00:00Z"},
        TAccepted{"America/New_York", "14:30", cNow, "2026-11-21T19:30:00Z"},
        TAccepted{"Asia/Kathmandu", "14:30", cNow, "2026-11-22T08:45:00Z"},
        TAccepted{"UTC", "11:00", "2026-12-31T12:00:00Z", "2027-01-01T11:00:00Z"},
        TAccepted{"UTC", "11:00", "2028-02-28T12:00:00Z", "2028-02-29T11:00:00Z"},
        // The local date differs from the date in UTC.
        TAccepted{"Europe/Berlin", "00:15", "2026-11-20T23:10:00Z", "2026-11-20T23:15:00Z"},
        TAccepted{"Europe/Berlin", "today 14:30", cNow, "2026-11-21T13:30:00Z"},
        TAccepted{"Europe/Berlin", "today 02:00", cNow, "2026-11-21T01:00:00Z"},
        TAccepted{"Europe/Berlin", "Today  02:00:07", cNow, "2026-11-21T01:00:07Z"},
        TAccepted{"Europe/Berlin", "tomorrow 02:00", cNow, "2026-11-22T01:00:00Z"},
        TAccepted{"Europe/Berlin", "TOMORROW 23:59:59", cNow, "2026-11-22T22:59:59Z"},
        TAccepted{"Europe/Berlin", "tomorrow", cNow, "2026-11-21T23:00:00Z"},
        TAccepted{"Europe/Berlin", "tomorrow ", cNow, "2026-11-21T23:00:00Z"},
        TAccepted{"Europe/Berlin", "tomorrow noon", cNow, "2026-11-22T11:00:00Z"},
        TAccepted{"Europe/Berlin", "2026-11-21 midnight", cNow, "2026-11-20T23:00:00Z"},
        TAccepted{"UTC", "noon", cNow, cNow},
        TAccepted{"Europe/Berlin", "Noon", cNow, "2026-11-22T11:00:00Z"},
        TAccepted{"Europe/Berlin", "midnight", cNow, "2026-11-21T23:00:00Z"},
        // 2026-11-21 is a Saturday.
        TAccepted{"UTC", "saturday 12:00", cNow, cNow},
        TAccepted{"UTC", "saturday 12:00:01", cNow, "2026-11-21T12:00:01Z"},
        TAccepted{"UTC", "Sat 11:59", cNow, "2026-11-28T11:59:00Z"},
        TAccepted{"UTC", "saturday", cNow, "2026-11-28T00:00:00Z"},
        TAccepted{"UTC", "sun", cNow, "2026-11-22T00:00:00Z"},
        TAccepted{"UTC", "friday noon", cNow, "2026-11-27T12:00:00Z"},
        TAccepted{"Europe/Berlin", "mon 02:30", cNow, "2026-11-23T01:30:00Z"},
        TAccepted{"Europe/Berlin", "sunday 12:00", "2026-03-28T11:00:00Z", "2026-03-29T10:00:00Z"},
        // It is Sunday in Kathmandu.
        TAccepted{"Asia/Kathmandu", "sunday 01:00", "2026-11-21T19:00:00Z", "2026-11-21T19:15:00Z"},
        TAccepted{"Asia/Kathmandu", "today 01:00", "2026-11-21T19:00:00Z", "2026-11-21T19:15:00Z"},
        TAccepted{"America/New_York", "today 01:00", "2026-11-21T03:00:00Z",
                  "2026-11-20T06:00:00Z"},
        TAccepted{"UTC", "tomorrow 02:00", "2026-12-31T12:00:00Z", "2027-01-01T02:00:00Z"},
        TAccepted{"UTC", "tomorrow 02:00", "2028-02-28T12:00:00Z", "2028-02-29T02:00:00Z"},
        TAccepted{"UTC", "tomorrow 02:00", "2027-02-28T12:00:00Z", "2027-03-01T02:00:00Z"},
        // Tomorrow is the next day of the calendar, 23 or 25 hours away in these nights.
        TAccepted{"Europe/Berlin", "tomorrow 12:00", "2026-03-28T11:00:00Z",
                  "2026-03-29T10:00:00Z"},
        TAccepted{"Europe/Berlin", "tomorrow 12:00", "2026-10-24T10:00:00Z",
                  "2026-10-25T11:00:00Z"}));

INSTANTIATE_TEST_SUITE_P(
    FromNow, AcceptedTime,
    testing::Values(TAccepted{"Europe/Berlin", "now", cNow, cNow},
                    TAccepted{"Europe/Berlin", " Now ", cNow, cNow},
                    TAccepted{"Europe/Berlin", "in 3h", cNow, "2026-11-21T15:00:00Z"},
                    TAccepted{"Europe/Berlin", "in3h", cNow, "2026-11-21T15:00:00Z"},
                    TAccepted{"Europe/Berlin", "IN 3 Hours", cNow, "2026-11-21T15:00:00Z"},
                    TAccepted{"Europe/Berlin", "+90m", cNow, "2026-11-21T13:30:00Z"},
                    TAccepted{"Europe/Berlin", "+ 90 min", cNow, "2026-11-21T13:30:00Z"},
                    TAccepted{"Europe/Berlin", "+1d12h", cNow, "2026-11-23T00:00:00Z"},
                    TAccepted{"Europe/Berlin", "in 2 weeks", cNow, "2026-12-05T12:00:00Z"},
                    TAccepted{"Europe/Berlin", "in 1 week 2 days 3 hours 4 minutes 5 seconds", cNow,
                              "2026-11-30T15:04:05Z"},
                    TAccepted{"Europe/Berlin", "+1w2d3h4m5s", cNow, "2026-11-30T15:04:05Z"},
                    TAccepted{"UTC", "in 1 second", cNow, "2026-11-21T12:00:01Z"},
                    TAccepted{"UTC", "in 45 secs", cNow, "2026-11-21T12:00:45Z"},
                    TAccepted{"UTC", "in 1 sec", cNow, "2026-11-21T12:00:01Z"},
                    TAccepted{"UTC", "in 1 minute", cNow, "2026-11-21T12:01:00Z"},
                    TAccepted{"UTC", "in 5 mins", cNow, "2026-11-21T12:05:00Z"},
                    TAccepted{"UTC", "in 1 hour", cNow, "2026-11-21T13:00:00Z"},
                    TAccepted{"UTC", "in 1 hr", cNow, "2026-11-21T13:00:00Z"},
                    TAccepted{"UTC", "in 2 hrs", cNow, "2026-11-21T14:00:00Z"},
                    TAccepted{"UTC", "in 1 day", cNow, "2026-11-22T12:00:00Z"},
                    TAccepted{"UTC", "in 0s", cNow, cNow},
                    // A day is 24 hours even if the clock changes.
                    TAccepted{"Europe/Berlin", "+1d", "2026-03-28T11:00:00Z",
                              "2026-03-29T11:00:00Z"},
                    TAccepted{"UTC", "+1d", "2028-02-28T12:00:00Z", "2028-02-29T12:00:00Z"},
                    TAccepted{"UTC", "+1s", "9999-12-31T23:59:58Z", "9999-12-31T23:59:59Z"},
                    TAccepted{"Europe/Berlin", "@0", cNow, "1970-01-01T00:00:00Z"},
                    TAccepted{"Europe/Berlin", "@1795267800", cNow, "2026-11-21T13:30:00Z"},
                    TAccepted{"Europe/Berlin", "@-1", cNow, "1969-12-31T23:59:59Z"}));

// A clock that is set back shows an hour twice, on Lord Howe Island half an hour.
INSTANTIATE_TEST_SUITE_P(
    ClockSetBack, AcceptedTime,
    testing::Values(
        TAccepted{"Europe/Berlin", "2026-10-25 01:59:59", cNow, "2026-10-24T23:59:59Z"},
        TAccepted{"Europe/Berlin", "2026-10-25 02:00", cNow, "2026-10-25T00:00:00Z"},
        TAccepted{"Europe/Berlin", "2026-10-25 02:59:59", cNow, "2026-10-25T00:59:59Z"},
        TAccepted{"Europe/Berlin", "2026-10-25 03:00", cNow, "2026-10-25T02:00:00Z"},
        TAccepted{"Europe/Berlin", "2026-10-25 02:30+01:00", cNow, "2026-10-25T01:30:00Z"},
        TAccepted{"America/New_York", "2026-11-01 01:30", cNow, "2026-11-01T05:30:00Z"},
        TAccepted{"America/New_York", "2026-11-01 02:00", cNow, "2026-11-01T07:00:00Z"},
        TAccepted{"Australia/Lord_Howe", "2026-04-05 01:29:59", cNow, "2026-04-04T14:29:59Z"},
        TAccepted{"Australia/Lord_Howe", "2026-04-05 01:30", cNow, "2026-04-04T14:30:00Z"},
        TAccepted{"Australia/Lord_Howe", "2026-04-05 02:00", cNow, "2026-04-04T15:30:00Z"},
        // A time of day alone: the first, the second once the first is over, then the next day.
        TAccepted{"Europe/Berlin", "02:30", "2026-10-25T00:30:00Z", "2026-10-25T00:30:00Z"},
        TAccepted{"Europe/Berlin", "02:30", "2026-10-25T00:30:01Z", "2026-10-25T01:30:00Z"},
        TAccepted{"Europe/Berlin", "02:30", "2026-10-25T01:30:01Z", "2026-10-26T01:30:00Z"},
        TAccepted{"Europe/Berlin", "today 02:30", "2026-10-25T01:30:01Z", "2026-10-25T00:30:00Z"},
        // In 2006 St. John's set its clock back at a minute after midnight, to the previous day.
        TAccepted{"America/St_Johns", "23:30", "2006-10-29T02:30:30Z", "2006-10-29T03:00:00Z"}));

// Around the hour that a clock skips when it is set forward, on Lord Howe Island half an hour.
INSTANTIATE_TEST_SUITE_P(
    ClockSetForward, AcceptedTime,
    testing::Values(
        TAccepted{"Europe/Berlin", "2026-03-29 01:59:59", cNow, "2026-03-29T00:59:59Z"},
        TAccepted{"Europe/Berlin", "2026-03-29 03:00", cNow, "2026-03-29T01:00:00Z"},
        TAccepted{"America/New_York", "2026-03-08 01:59:59", cNow, "2026-03-08T06:59:59Z"},
        TAccepted{"America/New_York", "2026-03-08 03:00", cNow, "2026-03-08T07:00:00Z"},
        TAccepted{"Australia/Lord_Howe", "2026-10-04 01:59:59", cNow, "2026-10-03T15:29:59Z"},
        TAccepted{"Australia/Lord_Howe", "2026-10-04 02:30", cNow, "2026-10-03T15:30:00Z"},
        // In the afternoon of that day the next 02:30 is tomorrow's, as on any day.
        TAccepted{"Europe/Berlin", "02:30", "2026-03-29T12:00:00Z", "2026-03-30T00:30:00Z"},
        // Years after those that the zone's file lists follow its last rule.
        TAccepted{"Europe/Berlin", "2126-07-01 14:30", cNow, "2126-07-01T12:30:00Z"}));

TEST(ParseTime, LocalTimeThatTheClockSkipsIsRefused) {
    struct TTest {
        const char* zone;
        const char* text;
        const char* now;
        std::size_t offset;
    };
    const TTest tests[] = {
        {"Europe/Berlin", "2026-03-29 02:00", cNow, 11},
        {"Europe/Berlin", "2026-03-29T02:59:59", cNow, 11},
        {"America/New_York", "2026-03-08 02:30", cNow, 11},
        {"Australia/Lord_Howe", "2026-10-04 02:00", cNow, 11},
        {"Australia/Lord_Howe", "2026-10-04 02:29:59", cNow, 11},
        {"Europe/Berlin", "tomorrow 02:30", "2026-03-28T12:00:00Z", 9},
        {"Europe/Berlin", "sunday 02:30", "2026-03-28T12:00:00Z", 7},
        {"Europe/Berlin", "today 02:30", "2026-03-29T12:00:00Z", 6},
        {"Europe/Berlin", "02:30", "2026-03-28T12:00:00Z", 0},
        {"Europe/Berlin", "02:30", "2026-03-29T00:59:59Z", 0},
        // Lebanon's clocks are set forward at midnight; Samoa skipped a whole day.
        {"Asia/Beirut", "2022-03-27", cNow, 0},
        {"Pacific/Apia", "2011-12-30 12:00", cNow, 11},
    };
    for (const TTest& test : tests) {
        SCOPED_TRACE(std::string(test.zone) + ": " + test.text);
        const CZone zone(test.zone);
        const auto error = ErrorOf([&] { ParseTime(test.text, Utc(test.now)); });
        if (!error)
            continue;
        EXPECT_EQ(error->Offset(), test.offset);
        EXPECT_THAT(error->what(),
                    HasSubstr("this local time does not exist: the clock is set forward over it"));
    }
}

// ---- Refused arguments ------------------------------------------------------------------------

TEST_P(RefusedTime, ReportsTheReasonAndTheOffset) {
    const CZone zone("Europe/Berlin");
    const auto error = ErrorOf([] { ParseTime(GetParam().text, Utc(cNow)); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Offset(), GetParam().offset);
    EXPECT_EQ(error->what(), Message("time", GetParam()));
}

static const char cForms[] =
    "expected a time such as 2026-11-21 14:30, 14:30, tomorrow 14:30, friday noon, in 3h or now";
static const char cZoneForms[] = "a zone is written as Z, +01:00, +0100 or +01";
// Unquoted, "in 3h" reaches the command as two arguments, and the first is taken for the time.
static const char cInAlone[] =
    "expected a number with a unit, such as 6h; quote a time of several words: \"in 3h\"";
static const char cTodayAlone[] =
    "expected a time of day such as 14:30; quote a time of several words: \"today 14:30\"";
static const char cTooFar[] = "a zone must be from -14:00 to +14:00";

INSTANTIATE_TEST_SUITE_P(
    Date, RefusedTime,
    testing::Values(TRefused{"2026-02-30 14:30", 0, "there is no such day"},
                    TRefused{"2026-02-29", 0, "there is no such day"},
                    TRefused{"2100-02-29", 0, "there is no such day"},
                    TRefused{"2026-04-31", 0, "there is no such day"},
                    TRefused{"2026-12-32", 0, "there is no such day"},
                    TRefused{"2026-11-00", 0, "there is no such day"},
                    TRefused{"2026-00-21", 5, "the month must be from 01 to 12"},
                    TRefused{"2026-13-21", 5, "the month must be from 01 to 12"},
                    TRefused{"26-11-21", 0, "the year must have four digits"},
                    TRefused{"12026-11-21", 0, "the year must have four digits"},
                    TRefused{"0000-11-21", 0, "the year must be from 0001 to 9999"},
                    TRefused{"2026-1-21", 5, "the month must have two digits"},
                    TRefused{"2026-", 5, "the month must have two digits"},
                    TRefused{"2026-11-1", 8, "the day must have two digits"},
                    TRefused{"2026-11-211", 8, "the day must have two digits"},
                    TRefused{"2026-11-x", 8, "the day must have two digits"},
                    TRefused{"2026-11", 7, "a date is written as 2026-11-21"},
                    TRefused{"2026-11/21", 7, "a date is written as 2026-11-21"},
                    TRefused{"2026-11-21 nine", 11, "expected a time of day such as 14:30"},
                    TRefused{"2026-11-21, 14:30", 10, "unexpected input after the time"},
                    TRefused{"2026/11/21", 0, cForms}, TRefused{"20261121", 0, cForms},
                    TRefused{"21.11.2026", 0, cForms}));

INSTANTIATE_TEST_SUITE_P(
    TimeOfDay, RefusedTime,
    testing::Values(TRefused{"2026-11-21 24:00", 11, "the hour must be from 00 to 23"},
                    TRefused{"2026-11-21 14:60", 14, "the minute must be from 00 to 59"},
                    TRefused{"2026-11-21 14:30:60", 17, "the second must be from 00 to 59"},
                    TRefused{"2026-11-21T", 11, "expected a time of day such as 14:30"},
                    TRefused{"2026-11-21T 14:30", 11, "expected a time of day such as 14:30"},
                    TRefused{"2026-11-21 14", 13, "a time of day is written as 14:30"},
                    TRefused{"2026-11-21 1430", 11, "the hour must have two digits"},
                    TRefused{"2026-11-21 14:30 15", 17, "unexpected input after the time"},
                    TRefused{"2026-11-21 14:30:15.5", 19, "unexpected input after the time"},
                    TRefused{"24:00", 0, "the hour must be from 00 to 23"},
                    TRefused{"  24:00", 2, "the hour must be from 00 to 23"},
                    TRefused{"14:60", 3, "the minute must be from 00 to 59"},
                    TRefused{"9:30", 0, "the hour must have two digits"},
                    TRefused{"14:3", 3, "the minute must have two digits"},
                    TRefused{"14:", 3, "the minute must have two digits"},
                    TRefused{"14:30:", 6, "the second must have two digits"},
                    TRefused{"14:30:15:00", 8, "unexpected input after the time"},
                    TRefused{"14:30 tomorrow", 6, "unexpected input after the time"},
                    TRefused{"14:30pm", 5, "unexpected input after the time"},
                    TRefused{"today", 5, cTodayAlone},
                    TRefused{"tomorrow nine", 9, "expected a time of day such as 14:30"},
                    TRefused{"friday nine", 7, "expected a time of day such as 14:30"},
                    TRefused{"friday 14:30 UTC", 13, "unexpected input after the time"},
                    TRefused{"noon 14:30", 5, "unexpected input after the time"},
                    TRefused{"fr", 0, cForms}, TRefused{"frida", 0, cForms},
                    TRefused{"tomorrow 25:00", 9, "the hour must be from 00 to 23"}));

INSTANTIATE_TEST_SUITE_P(
    Zone, RefusedTime,
    testing::Values(TRefused{"2026-11-21Z", 10, "expected a time of day before the zone"},
                    TRefused{"2026-11-21 +01:00", 11, "expected a time of day before the zone"},
                    TRefused{"2026-11-21-05:00", 10, "expected a time of day before the zone"},
                    TRefused{"2026-11-21 14:30+", 17, cZoneForms},
                    TRefused{"2026-11-21 14:30+1", 17, cZoneForms},
                    TRefused{"2026-11-21 14:30+100", 17, cZoneForms},
                    TRefused{"2026-11-21 14:30+01:", 20, cZoneForms},
                    TRefused{"2026-11-21 14:30+01:0", 20, cZoneForms},
                    TRefused{"2026-11-21 14:30+01:60", 17, cTooFar},
                    TRefused{"2026-11-21 14:30+14:01", 17, cTooFar},
                    TRefused{"2026-11-21 14:30-1500", 17, cTooFar},
                    TRefused{"2026-11-21 14:30+01:000", 20, cZoneForms},
                    TRefused{"2026-11-21 14:30+0100:00", 21, "unexpected input after the time"},
                    TRefused{"2026-11-21 14:30ZZ", 17, "unexpected input after the time"},
                    TRefused{"2026-11-21 14:30 CET", 17, "unexpected input after the time"},
                    TRefused{"14:30Z", 5, "a zone is accepted only together with a date"},
                    TRefused{"14:30 +01:00", 6, "a zone is accepted only together with a date"},
                    TRefused{"today 14:30Z", 11, "unexpected input after the time"}));

INSTANTIATE_TEST_SUITE_P(
    FromNow, RefusedTime,
    testing::Values(
        TRefused{"", 0, cForms}, TRefused{"   ", 3, cForms}, TRefused{"soon", 0, cForms},
        TRefused{"yesterday 14:30", 0, cForms}, TRefused{"nowhere", 0, cForms},
        TRefused{"inn 3h", 0, cForms}, TRefused{"3h", 0, cForms}, TRefused{"6", 0, cForms},
        TRefused{"-90m", 0, cForms}, TRefused{"now 14:30", 4, "unexpected input after the time"},
        TRefused{"now+3h", 3, "unexpected input after the time"},
        TRefused{"in -3h", 3, "only a time in the future can be given in this form"},
        TRefused{"+-3h", 1, "only a time in the future can be given in this form"},
        TRefused{"in", 2, cInAlone}, TRefused{"In  ", 4, cInAlone},
        TRefused{"+", 1, "expected a number with a unit, such as 6h"},
        TRefused{"in an hour", 3, "expected a number with a unit, such as 6h"},
        TRefused{"in 3", 4, "expected a unit, as in 3h"},
        TRefused{"+90", 3, "expected a unit, as in 90h"},
        TRefused{"+1d12", 5, "expected a unit, as in 12h"},
        TRefused{"+01:00", 3, "expected a unit, as in 01h"},
        TRefused{"in 1.5h", 4, "only whole numbers are accepted; use a smaller unit for the rest"},
        TRefused{"in 1,5h", 4, "only whole numbers are accepted; use a smaller unit for the rest"},
        TRefused{"in 2 months", 5, "unknown unit \"months\"; use h, d or w"},
        TRefused{"in 3 h d", 7, "unexpected input after the time"},
        TRefused{"in 3ho", 4, "unknown unit \"ho\"; use h, d or w"},
        TRefused{"in 3h 2d", 6,
                 "the units must go from the largest to the smallest, each at most once"},
        TRefused{"in 3h 2h", 6,
                 "the units must go from the largest to the smallest, each at most once"},
        TRefused{"in 3h and 2min", 6, "unexpected input after the time"},
        TRefused{"in 9999999999999 s", 3, "the time is after the year 9999"},
        TRefused{"+99999999999999999999w", 1, "the time is after the year 9999"},
        TRefused{"+99999999999999999999w99999999999999999999d99999999999999999999h", 1,
                 "the time is after the year 9999"},
        // 2^57 weeks are a multiple of 2^64 seconds.
        TRefused{"+144115188075855872w", 1, "the time is after the year 9999"},
        TRefused{"@", 1, "expected the seconds since 1970 after the @"},
        TRefused{"@-", 2, "expected the seconds since 1970 after the @"},
        TRefused{"@ 5", 1, "expected the seconds since 1970 after the @"},
        TRefused{"@5s", 2, "unexpected input after the time"},
        TRefused{"@9223372036854775808", 1, "the time is out of range"},
        TRefused{"@-9223372036854775809", 1, "the time is out of range"}));

TEST(ParseTime, LastSecondOfTheYear9999IsTheLastThatCanBeReachedFromNow) {
    EXPECT_EQ(ParseTime("+1s", Utc("9999-12-31T23:59:58Z")), Utc("9999-12-31T23:59:59Z"));
    EXPECT_THROW(ParseTime("+2s", Utc("9999-12-31T23:59:58Z")), CParseError);
}

// ---- Formatting -------------------------------------------------------------------------------

TEST(FormatTime, IsLocalOrInUtcToTheSecond) {
    const TTime time = At(1795267800);
    const std::map<const char*, const char*> local = {
        {"Europe/Berlin", "2026-11-21 14:30:00"},
        {"America/New_York", "2026-11-21 08:30:00"},
        {"Australia/Lord_Howe", "2026-11-22 00:30:00"},
        {"Asia/Kathmandu", "2026-11-21 19:15:00"},
        {"UTC", "2026-11-21 13:30:00"}};
    for (const auto& [name, formatted] : local) {
        const CZone zone(name);
        EXPECT_EQ(FormatTime(time, EZone::cLocal), formatted);
        EXPECT_EQ(FormatTime(time, EZone::cUtc), "2026-11-21 13:30:00");
        EXPECT_EQ(FormatIsoTime(time), "2026-11-21T13:30:00Z");
    }
}

TEST(FormatTime, OutsideTheYears1To9999ItIsTheSeconds) {
    const std::int64_t first = -62135596800;  // 0001-01-01
    const std::int64_t last = 253402300799;   // 9999-12-31 23:59:59
    EXPECT_EQ(FormatTime(At(first), EZone::cUtc), "0001-01-01 00:00:00");
    EXPECT_EQ(FormatTime(At(first - 1), EZone::cUtc), "@-62135596801");
    EXPECT_EQ(FormatTime(At(last), EZone::cUtc), "9999-12-31 23:59:59");
    EXPECT_EQ(FormatTime(At(last + 1), EZone::cUtc), "@253402300800");
    EXPECT_EQ(FormatIsoTime(At(first)), "0001-01-01T00:00:00Z");
    EXPECT_EQ(FormatIsoTime(At(first - 1)), "@-62135596801");
    EXPECT_EQ(FormatIsoTime(At(last)), "9999-12-31T23:59:59Z");
    EXPECT_EQ(FormatIsoTime(At(last + 1)), "@253402300800");
    // The limit is the year in the local zone.
    const CZone zone("Asia/Kathmandu");
    EXPECT_EQ(FormatTime(At(last), EZone::cLocal), "@253402300799");
    const std::int64_t kathmandu = (5 * 60 + 45) * 60;
    EXPECT_EQ(FormatTime(At(last - kathmandu), EZone::cLocal), "9999-12-31 23:59:59");
}

TEST(FormatTime, ExtremeValuesAreFormattedAndReadBackIfACalendarHasThem) {
    const CZone zone("Europe/Berlin");
    using TLimits = std::numeric_limits<std::int64_t>;
    for (const std::int64_t seconds :
         {TLimits::min(), TLimits::min() + 1, std::int64_t{-1} << 56, -62135606401L, 253402300800L,
          std::int64_t{1} << 54, std::int64_t{1} << 56, TLimits::max() - 1, TLimits::max()}) {
        const std::string formatted = '@' + std::to_string(seconds);
        EXPECT_EQ(FormatTime(At(seconds), EZone::cLocal), formatted);
        EXPECT_EQ(FormatTime(At(seconds), EZone::cUtc), formatted);
        EXPECT_EQ(FormatIsoTime(At(seconds)), formatted);
        if (seconds > (std::int64_t{-1} << 55) && seconds < (std::int64_t{1} << 55)) {
            EXPECT_EQ(ParseTime(formatted, Utc(cNow)), At(seconds));
        } else {
            EXPECT_THROW(ParseTime(formatted, Utc(cNow)), CParseError);
        }
    }
}

// Thousands of times from 1840 to 2200, and every ten minutes around the clock changes of 2026.
// Each is formatted as strftime does it, and parsed to the same value. A local time that exists
// twice is parsed to the first value.
TEST(FormatTime, LocalTimesAreReadBack) {
    std::vector<TTime> times;
    for (TTime time = Utc("1840-01-01T00:00:00Z"); time < Utc("2200-01-01T00:00:00Z");
         time += 2000003s)
        times.push_back(time);
    for (const char* const day :
         {"2026-03-07T00:00:00Z", "2026-03-28T00:00:00Z", "2026-04-04T00:00:00Z",
          "2026-10-03T00:00:00Z", "2026-10-24T00:00:00Z", "2026-10-31T00:00:00Z"}) {
        for (std::chrono::minutes past = 0min; past < 48h; past += 10min)
            times.push_back(Utc(day) + past);
    }
    struct TTest {
        const char* zone;
        int readAsTheFirst;
        std::chrono::minutes apart;
    };
    for (const TTest& test : {TTest{"Europe/Berlin", 6, 60min},
                              {"America/New_York", 6, 60min},
                              {"Australia/Lord_Howe", 3, 30min},
                              {"UTC", 0, 0min},
                              {"Asia/Kathmandu", 0, 0min}}) {
        SCOPED_TRACE(test.zone);
        const CZone zone(test.zone);
        int readAsTheFirst = 0;
        for (const TTime time : times) {
            const std::time_t value = time.time_since_epoch().count();
            char expected[sizeof "2026-11-21 14:30:00"];
            ASSERT_GT(std::strftime(expected, sizeof expected, "%F %T", std::localtime(&value)),
                      0U);
            const std::string formatted = FormatTime(time, EZone::cLocal);
            ASSERT_EQ(formatted, expected);
            const TTime read = ParseTime(formatted, Utc(cNow));
            if (read == time)
                continue;
            ++readAsTheFirst;
            ASSERT_EQ(time - read, test.apart) << formatted;
            ASSERT_EQ(FormatTime(read, EZone::cLocal), formatted);
        }
        EXPECT_EQ(readAsTheFirst, test.readAsTheFirst);
    }
}

TEST(FormatTime, IsoTimesAreReadBackInEveryZone) {
    for (const char* const name : {"Europe/Berlin", "America/New_York", "UTC", "Asia/Kathmandu"}) {
        const CZone zone(name);
        for (TTime time = Utc("0001-01-01T00:00:00Z"); time <= Utc("9999-12-31T00:00:00Z");
             time += 200000003s)
            ASSERT_EQ(ParseTime(FormatIsoTime(time), Utc(cNow)), time);
    }
}

TEST(FormatDistance, IsInTheTwoLargestUnits) {
    const std::map<std::chrono::seconds, std::string> tests = {
        {0s, "now"},
        {1s, "1s"},
        {45s, "45s"},
        {59s, "59s"},
        {1min, "1min"},
        {61s, "1min 1s"},
        {59min + 59s, "59min 59s"},
        {1h, "1h"},
        {1h + 30s, "1h"},
        {3h + 12min, "3h 12min"},
        {3h + 12min + 59s, "3h 12min"},
        {24h, "1d"},
        {24h + 59min, "1d"},
        {5 * 24h + 2h, "5d 2h"},
        {400 * 24h + 23h + 59min, "400d 23h"},
        {-1s, "1s ago"},
        {-(3h + 12min), "3h 12min ago"},
        {std::chrono::seconds::max(), "106751991167300d 15h"},
        {std::chrono::seconds::min(), "106751991167300d 15h ago"}};
    for (const auto& [distance, formatted] : tests)
        EXPECT_EQ(FormatDistance(distance), formatted);
}

TEST(FormatDistance, IsReadBackAsATimeFromNow) {
    const TTime now = Utc(cNow);
    for (std::chrono::seconds distance = 1s; distance < 1h; distance += 7s)
        ASSERT_EQ(ParseTime("in " + FormatDistance(distance), now), now + distance);
    for (std::chrono::hours distance = 1h; distance < 1000h; distance += 1h)
        ASSERT_EQ(ParseTime("in " + FormatDistance(distance), now), now + distance);
}
