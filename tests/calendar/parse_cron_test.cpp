// Cron expressions: what is accepted and what it means, and what is refused and with which message.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "calendar/Describe.h"
#include "calendar/ParseCron.h"

#include <ostream>
#include <string>

#include "CalendarError.h"

using namespace vxsched;
using testing::HasSubstr;

namespace {

struct TMeaning {
    const char* text;
    const char* normalised;
    const char* words;
};

void PrintTo(const TMeaning& test, std::ostream* stream) {
    *stream << test.text;
}

struct TRefusedCron {
    const char* text;
    const char* reason;
};

void PrintTo(const TRefusedCron& test, std::ostream* stream) {
    *stream << '"' << test.text << '"';
}

class CronMeaning : public testing::TestWithParam<TMeaning> {};

class RefusedCron : public testing::TestWithParam<TRefusedCron> {};

}  // namespace

TEST_P(CronMeaning, IsThis) {
    const CCronExpression expression = ParseCron(GetParam().text);
    EXPECT_EQ(expression.Normalised(), GetParam().normalised);
    EXPECT_EQ(Describe(expression), GetParam().words);
    EXPECT_EQ(ParseCron(GetParam().normalised), expression);
}

INSTANTIATE_TEST_SUITE_P(
    Names, CronMeaning,
    testing::Values(TMeaning{"@hourly", "0 * * * *", "at minute 0 of every hour"},
                    TMeaning{"@daily", "0 0 * * *", "at 00:00 every day"},
                    TMeaning{"@midnight", "0 0 * * *", "at 00:00 every day"},
                    TMeaning{"@weekly", "0 0 * * 0", "at 00:00 on Sunday"},
                    TMeaning{"@monthly", "0 0 1 * *", "at 00:00 on day 1 of the month"},
                    TMeaning{"@yearly", "0 0 1 1 *", "at 00:00 on day 1 of January"},
                    TMeaning{" @Annually\t", "0 0 1 1 *", "at 00:00 on day 1 of January"},
                    TMeaning{"@reboot", "@reboot", "at each startup"}));

INSTANTIATE_TEST_SUITE_P(
    Times, CronMeaning,
    testing::Values(
        TMeaning{"* * * * *", "* * * * *", "every minute"},
        TMeaning{"*/1 */1 * * *", "* * * * *", "every minute"},
        TMeaning{"0-59 * * * *", "0-59 * * * *", "every minute"},
        TMeaning{"*/15 * * * *", "*/15 * * * *", "every 15 minutes"},
        TMeaning{"*/15,7 * * * *", "*/15,7 * * * *", "at minute 0, 7, 15, 30 and 45 of every hour"},
        TMeaning{"7,* * * * *", "0-59 * * * *", "every minute"},
        TMeaning{"*/90 * * * *", "*/60 * * * *", "at minute 0 of every hour"},
        TMeaning{"1-9/2,1 * * * *", "1-9/2 * * * *", "at minute 1, 3, 5, 7 and 9 of every hour"},
        TMeaning{"0-59/61 * * * *", "0 * * * *", "at minute 0 of every hour"},
        TMeaning{"59,1,0,2,3,30 4 * * *", "0-3,30,59 4 * * *",
                 "at 04:00, 04:01, 04:02, 04:03, 04:30 and 04:59 every day"},
        TMeaning{"0005 00 * * *", "5 0 * * *", "at 00:05 every day"},
        TMeaning{"  30\t2 * *   * ", "30 2 * * *", "at 02:30 every day"},
        TMeaning{"* 2 * * *", "* 2 * * *", "every minute of hour 2 every day"},
        TMeaning{"*/10 8-18 * * *", "*/10 8-18 * * *",
                 "every 10 minutes of hour 8 to 18 every day"},
        TMeaning{"30 */2 * * *", "30 */2 * * *", "at minute 30 of every 2nd hour from 0 every day"},
        TMeaning{"0 8,20 * * *", "0 8,20 * * *", "at 08:00 and 20:00 every day"}));

INSTANTIATE_TEST_SUITE_P(
    Days, CronMeaning,
    testing::Values(
        TMeaning{"30 2 * * mon-fri", "30 2 * * 1-5", "at 02:30 on Monday to Friday"},
        TMeaning{"30 2 * * MON,Wed,fRI", "30 2 * * 1-5/2",
                 "at 02:30 on Monday, Wednesday and Friday"},
        TMeaning{"0 0 * * 7", "0 0 * * 0", "at 00:00 on Sunday"},
        TMeaning{"0 0 * * 5-7", "0 0 * * 5-7", "at 00:00 on Friday to Sunday"},
        TMeaning{"0 0 * * 0,6", "0 0 * * 6,7", "at 00:00 on Saturday and Sunday"},
        TMeaning{"0 0 * * 0-7", "0 0 * * 0-6", "at 00:00 every day"},
        TMeaning{"0 0 * * 1-7/2", "0 0 * * 0,1,3,5",
                 "at 00:00 on Monday, Wednesday, Friday and Sunday"},
        TMeaning{"0 0 L * *", "0 0 L * *", "at 00:00 on the last day of the month"},
        TMeaning{"0 0 l,1 feb,apr-Jun *", "0 0 1,L 2,4-6 *",
                 "at 00:00 on day 1 and the last day of February and April to June"},
        TMeaning{"0 0 1-31 * *", "0 0 1-31 * *", "at 00:00 every day"},
        TMeaning{"0 0 1-31 * 1", "0 0 1-31 * 1", "at 00:00 every day"},
        TMeaning{"0 0 13 * 5", "0 0 13 * 5",
                 "at 00:00 on day 13 of the month, and on every Friday"},
        TMeaning{"0 0 13 6 5", "0 0 13 6 5",
                 "at 00:00 on day 13 of June, and on every Friday in June"},
        TMeaning{"0 0 */10 * 5,6", "0 0 */10 * 5,6",
                 "at 00:00 on day 1, 11, 21 and 31 of the month if it is Friday or Saturday"},
        TMeaning{"0 0 29 2 */3", "0 0 29 2 */3",
                 "at 00:00 on day 29 of February if it is Wednesday, Saturday or Sunday"},
        TMeaning{"0 0 30,1 2 *", "0 0 1,30 2 *", "at 00:00 on day 1 and 30 of February"},
        TMeaning{"0 0 30 2 1", "0 0 30 2 1",
                 "at 00:00 on day 30 of February, and on every Monday in February"},
        TMeaning{"17 * * 6 *", "17 * * 6 *", "at minute 17 of every hour in June"}));

TEST(ParseCron, AFieldThatBeginsWithAnAsteriskIsWild) {
    EXPECT_TRUE(ParseCron("*/5 2 * * *").Field(ECronField::cMinute).isWild);
    EXPECT_TRUE(ParseCron("*,5 2 * * *").Field(ECronField::cMinute).isWild);
    EXPECT_FALSE(ParseCron("5,* 2 * * *").Field(ECronField::cMinute).isWild);
    EXPECT_FALSE(ParseCron("0-59 2 * * *").Field(ECronField::cMinute).isWild);
    EXPECT_TRUE(ParseCron("5 2 * * *").IsAtFixedTime());
    EXPECT_FALSE(ParseCron("5 */2 * * *").IsAtFixedTime());
    EXPECT_FALSE(ParseCron("*/5 2 * * *").IsAtFixedTime());
    EXPECT_FALSE(ParseCron("@hourly").IsAtFixedTime());
}

TEST_P(RefusedCron, IsExplained) {
    EXPECT_EQ(CalendarErrorOf([] { ParseCron(GetParam().text); }),
              "cannot read the expression \"" + std::string(GetParam().text) +
                  "\": " + GetParam().reason);
}

#define ALLOWED(values)                                                    \
    "; allowed is " values                                                 \
    ", a list of these (A,B), a range (A-B), *, and a step after a range " \
    "or * (A-B/C)"
#define MINUTES ALLOWED("0 to 59")
#define HOURS ALLOWED("0 to 23")
#define DAYS ALLOWED("1 to 31, or L for the last day")
#define MONTHS ALLOWED("1 to 12, or jan to dec")
#define WEEKDAYS ALLOWED("0 to 7 (0 and 7 are Sunday), or sun to sat")

INSTANTIATE_TEST_SUITE_P(
    Fields, RefusedCron,
    testing::Values(
        TRefusedCron{"60 * * * *", "the minute \"60\" has 60, which is out of range" MINUTES},
        TRefusedCron{"-1 * * * *", "the minute \"-1\" lacks a value" MINUTES},
        TRefusedCron{"+5 * * * *", "the minute \"+5\" has \"+5\", which cannot be read" MINUTES},
        TRefusedCron{"1- * * * *", "the minute \"1-\" lacks a value" MINUTES},
        TRefusedCron{"1-2-3 * * * *",
                     "the minute \"1-2-3\" has \"2-3\", which cannot be read" MINUTES},
        TRefusedCron{"*-5 * * * *", "the minute \"*-5\" has \"*\", which cannot be read" MINUTES},
        TRefusedCron{"1, * * * *", "the minute \"1,\" has an empty item" MINUTES},
        TRefusedCron{",1 * * * *", "the minute \",1\" has an empty item" MINUTES},
        TRefusedCron{"jan * * * *", "the minute \"jan\" has \"jan\", which cannot be read" MINUTES},
        TRefusedCron{"* 24 * * *", "the hour \"24\" has 24, which is out of range" HOURS},
        TRefusedCron{"* 5-1 * * *",
                     "the hour \"5-1\" has a range whose end is before its beginning" HOURS},
        TRefusedCron{"* * 0 * *", "the day of the month \"0\" has 0, which is out of range" DAYS},
        TRefusedCron{"* * 32 * *",
                     "the day of the month \"32\" has 32, which is out of range" DAYS},
        TRefusedCron{"* * ? * *",
                     "the day of the month \"?\" has \"?\", which cannot be read" DAYS},
        TRefusedCron{"* * L/2 * *", "the day of the month \"L/2\" has a step after L" DAYS},
        TRefusedCron{"* * 1-L * *",
                     "the day of the month \"1-L\" has \"l\", which cannot be read" DAYS},
        TRefusedCron{"* * * 0 *", "the month \"0\" has 0, which is out of range" MONTHS},
        TRefusedCron{"* * * 13 *", "the month \"13\" has 13, which is out of range" MONTHS},
        TRefusedCron{"* * * anf *", "the month \"anf\" has \"anf\", which cannot be read" MONTHS},
        TRefusedCron{"* * * june *",
                     "the month \"june\" has \"june\", which cannot be read" MONTHS},
        TRefusedCron{"* * * * 8",
                     "the day of the week \"8\" has 8, which is out of range" WEEKDAYS},
        TRefusedCron{"* * * * mon#1",
                     "the day of the week \"mon#1\" has \"mon#1\", which cannot be read" WEEKDAYS},
        TRefusedCron{"* * * * L",
                     "the day of the week \"L\" has \"l\", which cannot be read" WEEKDAYS},
        TRefusedCron{"* * * * sat-sun",
                     "the day of the week \"sat-sun\" has a range whose end is before its "
                     "beginning, where Sunday as an end is written as 7" WEEKDAYS}));

INSTANTIATE_TEST_SUITE_P(
    Steps, RefusedCron,
    testing::Values(
        TRefusedCron{"0/5 * * * *",
                     "the minute \"0/5\" has a step after a single value; write 0-59/5" MINUTES},
        TRefusedCron{"*/0 * * * *",
                     "the minute \"*/0\" has a step that is not a number from 1 on" MINUTES},
        TRefusedCron{"*/ * * * *",
                     "the minute \"*/\" has a step that is not a number from 1 on" MINUTES},
        TRefusedCron{"*/5/5 * * * *",
                     "the minute \"*/5/5\" has a step that is not a number from 1 on" MINUTES},
        TRefusedCron{"1-5/-1 * * * *",
                     "the minute \"1-5/-1\" has a step that is not a number from 1 on" MINUTES}));

#define FIVE ", not five: minute, hour, day of the month, month, day of the week"

INSTANTIATE_TEST_SUITE_P(
    Wholes, RefusedCron,
    testing::Values(
        TRefusedCron{"", "it has 0 fields" FIVE}, TRefusedCron{"   ", "it has 0 fields" FIVE},
        TRefusedCron{"*", "it has 1 field" FIVE}, TRefusedCron{"* * * *", "it has 4 fields" FIVE},
        TRefusedCron{"0 * * * * *", "it has 6 fields" FIVE "; cron has neither seconds nor years, "
                                    "and the command is no part of the expression"},
        TRefusedCron{"* * * * * * *", "it has 7 fields" FIVE},
        TRefusedCron{"@fortnightly",
                     "there is no such name; allowed are @hourly, @daily, @midnight, @weekly, "
                     "@monthly, @yearly, @annually, @reboot"},
        TRefusedCron{"@daily *", "it has 2 fields" FIVE},
        TRefusedCron{"0 0 30 2 *", "it never comes: no month of \"2\" has a day of \"30\""},
        TRefusedCron{"0 0 31 Feb,4,6,9,11 *",
                     "it never comes: no month of \"Feb,4,6,9,11\" has a day of \"31\""},
        TRefusedCron{"0 0 30,31 2 */2",
                     "it never comes: no month of \"2\" has a day of \"30,31\""}));

TEST(ParseCron, WhatIsHostileIsShownShortAndSafe) {
    const std::string bytes[] = {
        std::string(10'000, '*'),
        std::string(10'000, ' '),
        std::string(900, '9') + " * * * *",
        std::string(900, '\x1b') + " * * * *",
        "\x1b[31m * * * *",
        "*\n* * * *",
        std::string("* * * * *\0", 10),
        "\xff * * * *",
        "1\xe2\x80\xae * * * *",
        "* * * * */" + std::string(900, '1') + "x",
        "1/" + std::string(900, '\x9b') + " * * * *",
        "@" + std::string(900, 'x'),
    };
    for (const std::string& text : bytes) {
        const std::string message = CalendarErrorOf([&] { ParseCron(text); });
        EXPECT_LT(message.size(), 1000U);
        for (const char character : message)
            EXPECT_TRUE(static_cast<unsigned char>(character) >= 0x20 && character != 0x7f);
        EXPECT_EQ(message.find("\xe2\x80\xae"), std::string::npos);
        EXPECT_EQ(message.find('\xff'), std::string::npos);
    }
    EXPECT_THAT(CalendarErrorOf([] { ParseCron(std::string(10'000, '*')); }),
                HasSubstr("it is longer than 1000 characters"));
}
