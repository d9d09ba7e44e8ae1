// Short forms for usual calendars, and the expressions that they stand for.

#include <gtest/gtest.h>
#include "calendar/CronForms.h"

#include <chrono>
#include <string>

#include "CalendarError.h"

using namespace vxsched;
using std::chrono::minutes;

TEST(CronForms, EveryDayIsATimeOfDay) {
    EXPECT_EQ(EveryDay("02:30").Normalised(), "30 2 * * *");
    EXPECT_EQ(EveryDay("9:05").Normalised(), "5 9 * * *");
    EXPECT_EQ(EveryDay("23:59").Normalised(), "59 23 * * *");
    EXPECT_EQ(EveryDay("00:00").Normalised(), "0 0 * * *");
    for (const char* const text : {"", "2", "24:00", "12:60", "12:3", "123:00", "1a:00", "-1:00",
                                   "12:00 ", "12:00:00", "*:00", ":30", "\x1b"})
        EXPECT_NE(CalendarErrorOf([&] { EveryDay(text); }), "") << text;
    EXPECT_EQ(CalendarErrorOf([] { EveryDay("24:00"); }),
              "cannot read the time of day \"24:00\": expected hours and minutes from 00:00 to "
              "23:59");
}

TEST(CronForms, EveryWeekIsDaysOfTheWeekAndATime) {
    EXPECT_EQ(EveryWeek("mon,fri 08:30").Normalised(), "30 8 * * 1,5");
    EXPECT_EQ(EveryWeek("mon-fri  8:30").Normalised(), "30 8 * * 1-5");
    for (const char* const text :
         {"", "08:30", "mon", "mon 08:30 x", "mon fri 08:30", " 08:30", "foo 08:30", "1 2 3 08:30"})
        EXPECT_NE(CalendarErrorOf([&] { EveryWeek(text); }), "") << text;
    EXPECT_EQ(CalendarErrorOf([] { EveryWeek("mon fri 08:30"); }),
              "cannot read \"mon fri 08:30\": expected days and a time, as \"mon,fri 08:30\"");
}

TEST(CronForms, EveryMonthIsDaysOfTheMonthAndATime) {
    EXPECT_EQ(EveryMonth("1 08:30").Normalised(), "30 8 1 * *");
    EXPECT_EQ(EveryMonth("15,L 00:00").Normalised(), "0 0 15,L * *");
    for (const char* const text : {"0 08:30", "32 08:30", "mon 08:30", "1 2 08:30", "1 x"})
        EXPECT_NE(CalendarErrorOf([&] { EveryMonth(text); }), "") << text;
    EXPECT_LT(CalendarErrorOf([] { EveryMonth(std::string(10'000, '1') + " 08:30"); }).size(),
              400U);
}

TEST(CronForms, APartOfAnHourDividesIt) {
    EXPECT_EQ(EveryPartOfHour(minutes(15)).Normalised(), "*/15 * * * *");
    EXPECT_EQ(EveryPartOfHour(minutes(1)).Normalised(), "* * * * *");
    EXPECT_EQ(EveryPartOfHour(minutes(30)).Normalised(), "*/30 * * * *");
    for (const int count : {-15, 0, 7, 25, 45, 60, 90})
        EXPECT_NE(CalendarErrorOf([&] { EveryPartOfHour(minutes(count)); }), "") << count;
}
