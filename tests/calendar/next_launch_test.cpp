// The next launches of expressions. Each row of the table of clock changes in docs/calendar.md has
// its tests here, in zones that change their clocks in different ways.

#include <date/date.h>
#include <gtest/gtest.h>
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"

#include <ostream>
#include <sstream>
#include <string>
#include <vector>

using namespace vxsched;
using std::chrono::sys_seconds;

namespace {

struct TLaunches {
    const char* zone;
    const char* expression;
    const char* after;                  // in UTC
    std::vector<std::string> launches;  // in the zone, with the offset
};

void PrintTo(const TLaunches& test, std::ostream* stream) {
    *stream << test.expression << " in " << test.zone << " after " << test.after;
}

class NextLaunches : public testing::TestWithParam<TLaunches> {};

}  // namespace

static sys_seconds Utc(const std::string& text) {
    std::istringstream stream(text);
    sys_seconds time;
    EXPECT_TRUE(stream >> date::parse("%F %T", time)) << text;
    return time;
}

static std::string InZone(sys_seconds time, const CTimeZone& zone) {
    const std::chrono::seconds offset = zone.PeriodAt(time).offset;
    const date::hh_mm_ss parts(offset);
    return date::format("%F %R", time + offset) + (offset.count() < 0 ? " -" : " +") +
           date::format("%R", std::chrono::abs(offset));
}

TEST_P(NextLaunches, AreThese) {
    const CTimeZone zone = CTimeZone::Named(GetParam().zone);
    std::optional<sys_seconds> time = Utc(GetParam().after);
    std::vector<std::string> launches;
    for (std::size_t number = 0; number < GetParam().launches.size() && time; ++number) {
        time = NextLaunch(ParseCron(GetParam().expression), zone, *time);
        if (time)
            launches.push_back(InZone(*time, zone));
    }
    EXPECT_EQ(launches, GetParam().launches);
}

// 2026-11-21 is a Saturday.
INSTANTIATE_TEST_SUITE_P(
    WithoutAChange, NextLaunches,
    testing::Values(
        TLaunches{"UTC",
                  "* * * * *",
                  "2026-11-21 14:30:00",
                  {"2026-11-21 14:31 +00:00", "2026-11-21 14:32 +00:00"}},
        TLaunches{"UTC", "* * * * *", "2026-11-21 14:30:59", {"2026-11-21 14:31 +00:00"}},
        TLaunches{"UTC", "30 14 * * *", "2026-11-21 14:29:59", {"2026-11-21 14:30 +00:00"}},
        TLaunches{"UTC", "30 14 * * *", "2026-11-21 14:30:00", {"2026-11-22 14:30 +00:00"}},
        TLaunches{"UTC",
                  "*/25 8,20 * * *",
                  "2026-11-21 08:30:00",
                  {"2026-11-21 08:50 +00:00", "2026-11-21 20:00 +00:00", "2026-11-21 20:25 +00:00",
                   "2026-11-21 20:50 +00:00", "2026-11-22 08:00 +00:00"}},
        TLaunches{"Asia/Kolkata",
                  "30 8 * * mon-fri",
                  "2026-11-21 12:00:00",
                  {"2026-11-23 08:30 +05:30", "2026-11-24 08:30 +05:30"}},
        TLaunches{
            "UTC",
            "0 0 L * *",
            "2027-12-31 12:00:00",
            {"2028-01-31 00:00 +00:00", "2028-02-29 00:00 +00:00", "2028-03-31 00:00 +00:00"}},
        TLaunches{
            "UTC",
            "0 0 28,L feb *",
            "2026-11-21 12:00:00",
            {"2027-02-28 00:00 +00:00", "2028-02-28 00:00 +00:00", "2028-02-29 00:00 +00:00"}},
        TLaunches{"UTC",
                  "0 0 31 * *",
                  "2026-01-31 00:00:00",
                  {"2026-03-31 00:00 +00:00", "2026-05-31 00:00 +00:00"}},
        // Either day suffices ...
        TLaunches{"UTC",
                  "0 0 13 * 5",
                  "2026-11-01 00:00:00",
                  {"2026-11-06 00:00 +00:00", "2026-11-13 00:00 +00:00", "2026-11-20 00:00 +00:00",
                   "2026-11-27 00:00 +00:00", "2026-12-04 00:00 +00:00", "2026-12-11 00:00 +00:00",
                   "2026-12-13 00:00 +00:00"}},
        TLaunches{"UTC", "0 0 30 2 0", "2027-02-27 00:00:00", {"2027-02-28 00:00 +00:00"}},
        // ... unless one field begins with an asterisk.
        TLaunches{"UTC", "0 0 */10 * 5", "2026-11-01 00:00:00", {"2026-12-11 00:00 +00:00"}},
        TLaunches{"UTC",
                  "0 0 13 * */5",
                  "2026-11-01 00:00:00",
                  {"2026-11-13 00:00 +00:00", "2026-12-13 00:00 +00:00"}},
        // The year 2100 has no 29 February.
        TLaunches{"UTC",
                  "0 0 29 2 */7",
                  "2060-03-01 00:00:00",
                  {"2088-02-29 00:00 +00:00", "2128-02-29 00:00 +00:00"}},
        TLaunches{"UTC", "0 0 1 1 *", "9997-12-31 00:00:00", {"9998-01-01 00:00 +00:00"}}));

INSTANTIATE_TEST_SUITE_P(
    FixedTimeThatIsSkipped, NextLaunches,
    testing::Values(
        TLaunches{
            "Europe/Berlin",
            "30 2 * * *",
            "2026-03-28 00:00:00",
            {"2026-03-28 02:30 +01:00", "2026-03-29 03:00 +02:00", "2026-03-30 02:30 +02:00"}},
        // Many are one launch, together with the one that is due then anyway.
        TLaunches{
            "Europe/Berlin",
            "0,10,59 2,3 29 3 *",
            "2026-03-28 00:00:00",
            {"2026-03-29 03:00 +02:00", "2026-03-29 03:10 +02:00", "2026-03-29 03:59 +02:00"}},
        TLaunches{
            "Europe/Berlin",
            "0-59 1,2 29 3 *",
            "2026-03-29 00:58:00",
            {"2026-03-29 01:59 +01:00", "2026-03-29 03:00 +02:00", "2027-03-29 01:00 +02:00"}},
        TLaunches{"Europe/Berlin",
                  "30 2 * * *",
                  "2026-03-29 00:59:59",
                  {"2026-03-29 03:00 +02:00", "2026-03-30 02:30 +02:00"}},
        TLaunches{
            "Europe/Berlin", "30 2 * * *", "2026-03-29 01:00:00", {"2026-03-30 02:30 +02:00"}},
        TLaunches{"America/New_York",
                  "15 2 8 * *",
                  "2026-03-01 00:00:00",
                  {"2026-03-08 03:00 -04:00", "2026-04-08 02:15 -04:00"}},
        TLaunches{
            "Australia/Lord_Howe",
            "15 2 * * *",
            "2026-10-02 15:30:00",
            {"2026-10-03 02:15 +10:30", "2026-10-04 02:30 +11:00", "2026-10-05 02:15 +11:00"}},
        TLaunches{"Africa/Casablanca",
                  "30 2 22 3 *",
                  "2026-01-01 00:00:00",
                  {"2026-03-22 03:00 +01:00", "2027-03-22 02:30 +01:00"}},
        TLaunches{
            "America/Sao_Paulo",
            "0 0 * * *",
            "2018-11-03 00:00:00",
            {"2018-11-03 00:00 -03:00", "2018-11-04 01:00 -02:00", "2018-11-05 00:00 -02:00"}},
        TLaunches{"Europe/Dublin",
                  "30 1 * * *",
                  "2026-03-29 00:00:00",
                  {"2026-03-29 02:00 +01:00", "2026-03-30 01:30 +01:00"}},
        TLaunches{"Antarctica/Troll",
                  "59 1,2 29 3 *",
                  "2026-01-01 00:00:00",
                  {"2026-03-29 03:00 +02:00", "2027-03-29 01:59 +02:00"}},
        TLaunches{
            "America/St_Johns", "30 0,1 3 4 *", "1988-01-01 00:00:00", {"1988-04-03 02:01 -01:30"}},
        TLaunches{"America/Caracas",
                  "45 2 1 5 *",
                  "2016-01-01 00:00:00",
                  {"2016-05-01 03:00 -04:00", "2017-05-01 02:45 -04:00"}},
        // By the rule for years that the zone's file does not list.
        TLaunches{"Europe/Berlin",
                  "30 2 * 3 0",
                  "2050-03-21 00:00:00",
                  {"2050-03-27 03:00 +02:00", "2051-03-05 02:30 +01:00"}}));

INSTANTIATE_TEST_SUITE_P(
    WildcardTimeThatIsSkipped, NextLaunches,
    testing::Values(
        TLaunches{
            "Europe/Berlin",
            "*/30 * * * *",
            "2026-03-29 00:29:59",
            {"2026-03-29 01:30 +01:00", "2026-03-29 03:00 +02:00", "2026-03-29 03:30 +02:00"}},
        TLaunches{"Europe/Berlin",
                  "30 * * * *",
                  "2026-03-29 00:29:59",
                  {"2026-03-29 01:30 +01:00", "2026-03-29 03:30 +02:00"}},
        TLaunches{"Europe/Berlin",
                  "30 */2 29 3 *",
                  "2026-03-28 22:59:59",
                  {"2026-03-29 00:30 +01:00", "2026-03-29 04:30 +02:00"}},
        TLaunches{
            "Europe/Berlin", "*/30 2 29 3 *", "2026-03-28 00:00:00", {"2027-03-29 02:00 +02:00"}},
        TLaunches{"America/New_York",
                  "@hourly",
                  "2026-03-08 05:59:59",
                  {"2026-03-08 01:00 -05:00", "2026-03-08 03:00 -04:00"}},
        TLaunches{"Australia/Lord_Howe",
                  "*/20 * * * *",
                  "2026-10-03 15:09:59",
                  {"2026-10-04 01:40 +10:30", "2026-10-04 02:40 +11:00"}},
        TLaunches{"America/Sao_Paulo",
                  "0 * 4 11 *",
                  "2018-11-03 00:00:00",
                  {"2018-11-04 01:00 -02:00", "2018-11-04 02:00 -02:00"}}));

INSTANTIATE_TEST_SUITE_P(
    FixedTimeThatIsRepeated, NextLaunches,
    testing::Values(
        TLaunches{"Europe/Berlin",
                  "30 2 * * *",
                  "2026-10-24 12:00:00",
                  {"2026-10-25 02:30 +02:00", "2026-10-26 02:30 +01:00"}},
        // Asked between the two times, and during the second.
        TLaunches{
            "Europe/Berlin", "30 2 * * *", "2026-10-25 00:45:00", {"2026-10-26 02:30 +01:00"}},
        TLaunches{
            "Europe/Berlin", "30 2 * * *", "2026-10-25 01:10:00", {"2026-10-26 02:30 +01:00"}},
        TLaunches{"Europe/Berlin",
                  "0,30 2,3 25 10 *",
                  "2026-10-24 12:00:00",
                  {"2026-10-25 02:00 +02:00", "2026-10-25 02:30 +02:00", "2026-10-25 03:00 +01:00",
                   "2026-10-25 03:30 +01:00"}},
        TLaunches{"America/New_York",
                  "0 1,2 1 11 *",
                  "2026-10-31 12:00:00",
                  {"2026-11-01 01:00 -04:00", "2026-11-01 02:00 -05:00"}},
        TLaunches{"Australia/Lord_Howe",
                  "45 1 * * *",
                  "2026-04-04 12:00:00",
                  {"2026-04-05 01:45 +11:00", "2026-04-06 01:45 +10:30"}},
        TLaunches{"Africa/Casablanca",
                  "0,30 2,3 15 2 *",
                  "2026-01-01 00:00:00",
                  {"2026-02-15 02:00 +01:00", "2026-02-15 02:30 +01:00", "2026-02-15 03:00 +00:00",
                   "2026-02-15 03:30 +00:00"}},
        // The day itself is repeated in part: its last hour.
        TLaunches{"America/Sao_Paulo",
                  "30 23 * * sat",
                  "2019-02-16 12:00:00",
                  {"2019-02-16 23:30 -02:00", "2019-02-23 23:30 -03:00"}},
        TLaunches{"America/Sao_Paulo",
                  "0 0 * * *",
                  "2019-02-16 12:00:00",
                  {"2019-02-17 00:00 -03:00", "2019-02-18 00:00 -03:00"}},
        TLaunches{
            "Antarctica/Troll",
            "30 1,2 25 10 *",
            "2026-10-24 12:00:00",
            {"2026-10-25 01:30 +02:00", "2026-10-25 02:30 +02:00", "2027-10-25 01:30 +02:00"}},
        TLaunches{"America/St_Johns",
                  "30 22,23 29 10 *",
                  "1988-10-29 12:00:00",
                  {"1988-10-29 22:30 -01:30", "1988-10-29 23:30 -01:30"}}));

INSTANTIATE_TEST_SUITE_P(
    WildcardTimeThatIsRepeated, NextLaunches,
    testing::Values(TLaunches{"Europe/Berlin",
                              "30 * * * *",
                              "2026-10-25 00:29:59",
                              {"2026-10-25 02:30 +02:00", "2026-10-25 02:30 +01:00",
                               "2026-10-25 03:30 +01:00"}},
                    TLaunches{"Europe/Berlin",
                              "*/30 2 25 10 *",
                              "2026-10-24 12:00:00",
                              {"2026-10-25 02:00 +02:00", "2026-10-25 02:30 +02:00",
                               "2026-10-25 02:00 +01:00", "2026-10-25 02:30 +01:00"}},
                    TLaunches{"America/New_York",
                              "@hourly",
                              "2026-11-01 04:59:59",
                              {"2026-11-01 01:00 -04:00", "2026-11-01 01:00 -05:00",
                               "2026-11-01 02:00 -05:00"}},
                    TLaunches{"Australia/Lord_Howe",
                              "*/20 * * * *",
                              "2026-04-04 14:39:59",
                              {"2026-04-05 01:40 +11:00", "2026-04-05 01:40 +10:30",
                               "2026-04-05 02:00 +10:30"}},
                    TLaunches{"America/Sao_Paulo",
                              "15 * * * *",
                              "2019-02-17 01:14:59",
                              {"2019-02-16 23:15 -02:00", "2019-02-16 23:15 -03:00",
                               "2019-02-17 00:15 -03:00"}}));

// By three hours or more: zones that change their date.
INSTANTIATE_TEST_SUITE_P(
    Correction, NextLaunches,
    testing::Values(TLaunches{"Pacific/Apia",
                              "0 12 * * *",
                              "2011-12-29 00:00:00",
                              {"2011-12-29 12:00 -10:00", "2011-12-31 12:00 +14:00"}},
                    TLaunches{"Pacific/Apia",
                              "0 12 30 12 *",
                              "2011-12-01 00:00:00",
                              {"2012-12-30 12:00 +14:00"}},
                    TLaunches{"Pacific/Apia",
                              "0 * * * *",
                              "2011-12-30 08:59:59",
                              {"2011-12-29 23:00 -10:00", "2011-12-31 00:00 +14:00"}},
                    TLaunches{"Pacific/Kwajalein",
                              "0 0 21,22 8 *",
                              "1993-08-20 00:00:00",
                              {"1993-08-22 00:00 +12:00", "1994-08-21 00:00 +12:00"}}));

TEST(NextLaunch, WhatACorrectionRepeatsIsMadeAgain) {
    const CTimeZone zone = CTimeZone::Named("America/Sitka");  // 24 hours back, on 1867-10-19
    const CCronExpression noon = ParseCron("0 12 19 10 *");
    std::optional<sys_seconds> time = Utc("1867-10-18 00:00:00");
    std::vector<std::string> days;
    for (int launch = 0; launch < 2; ++launch) {
        time = NextLaunch(noon, zone, *time);
        ASSERT_TRUE(time);
        days.push_back(date::format("%F", *time));
    }
    EXPECT_EQ(days, (std::vector<std::string>{"1867-10-18", "1867-10-19"}));
}

TEST(NextLaunch, RebootHasNone) {
    EXPECT_FALSE(NextLaunch(ParseCron("@reboot"), CTimeZone::Utc(), Utc("2026-11-21 14:30:00")));
}

TEST(NextLaunch, EndsBeforeTheYear9999) {
    const CCronExpression yearly = ParseCron("@yearly");
    EXPECT_FALSE(NextLaunch(yearly, CTimeZone::Utc(), Utc("9998-01-01 00:00:00")));
    EXPECT_FALSE(NextLaunch(ParseCron("* * * * *"), CTimeZone::Utc(), sys_seconds::max()));
    EXPECT_EQ(NextLaunch(yearly, CTimeZone::Utc(), sys_seconds::min()), Utc("0001-01-01 00:00:00"));
    EXPECT_FALSE(NextLaunch(ParseCron("59 23 31 12 *"), CTimeZone::Named("Europe/Berlin"),
                            Utc("9998-12-31 23:00:00")));
}

// The clock of Troll skips the second hour of each last Sunday of March.
TEST(NextLaunch, WildcardTimeThatIsSkippedEachYearNeverComes) {
    EXPECT_FALSE(NextLaunch(ParseCron("* 1 26 mar */7"), CTimeZone::Named("Antarctica/Troll"),
                            Utc("2006-01-01 00:00:00")));
}

// The launches of an expression are those minutes at which a clock that is looked at each minute
// selects it, but for the changes of the clock.
TEST(NextLaunch, IsWhatAClockShowsMinuteByMinute) {
    const CTimeZone zone = CTimeZone::Named("Europe/Berlin");
    for (const char* const text :
         {"*/7 */5 * * *", "3 * */9 * */2", "17 3-5,22 1,L * 1", "0-58/29 23 * 2,6 fri"}) {
        const CCronExpression expression = ParseCron(text);
        std::optional<sys_seconds> next = Utc("2027-05-25 00:00:00");
        for (sys_seconds minute = *next; minute < Utc("2027-07-05 00:00:00");
             minute += std::chrono::minutes(1)) {
            if (*next == minute)
                next = NextLaunch(expression, zone, minute);
            ASSERT_TRUE(next);
            const auto wall = minute + std::chrono::hours(2) + std::chrono::minutes(1);
            const auto midnight = date::floor<date::days>(wall);
            const date::hh_mm_ss time(wall - midnight);
            const bool isSelected = expression.HasDay(midnight) &&
                                    expression.Field(ECronField::cHour)
                                        .Has(static_cast<unsigned>(time.hours().count())) &&
                                    expression.Field(ECronField::cMinute)
                                        .Has(static_cast<unsigned>(time.minutes().count()));
            if (minute == Utc("2027-05-25 00:00:00"))
                next = NextLaunch(expression, zone, minute);
            ASSERT_EQ(*next == minute + std::chrono::minutes(1), isSelected)
                << text << " at " << date::format("%F %R", wall);
        }
    }
}
