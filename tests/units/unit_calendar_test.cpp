// Calendars of timers elapse when the cron expressions have launches, by systemd's own account.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <date/date.h>

#include <chrono>
#include <cstdlib>
#include <iterator>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Process.h"
#include "calendar/CTimeZone.h"
#include "calendar/NextLaunch.h"
#include "calendar/ParseCron.h"
#include "units/UnitCalendar.h"

using testing::ElementsAre;
using vxsched::ParseCron;
using vxsched::UnitCalendar;

namespace {

using TTimes = std::set<std::chrono::sys_seconds>;

constexpr std::size_t cLaunches = 12;
constexpr std::chrono::sys_seconds cBegin =
    date::sys_days(date::year(2026) / date::month(11) / date::day(23));

TTimes LaunchesOf(const vxsched::CCronExpression& expression, const vxsched::CTimeZone& zone,
                  std::chrono::sys_seconds after, std::size_t most) {
    TTimes times;
    while (times.size() < most) {
        const auto launch = NextLaunch(expression, zone, after);
        if (!launch)
            break;
        times.insert(*launch);
        after = *launch;
    }
    return times;
}

// The first of all times at which one of the calendars elapses: "Next elapse: Mon 2026-11-30 01:30:00 UTC".
void FindElapses(const std::vector<std::string>& calendars, std::chrono::sys_seconds after,
                 std::size_t most, TTimes& times) {
    for (const std::string& calendar : calendars) {
        const std::string command = fmt::format(
            "TZ=UTC systemd-analyze calendar --base-time='{} UTC' --iterations={} '{}' > elapses "
            "2>&1",
            date::format("%F %T", after), most, calendar);
        EXPECT_EQ(std::system(command.c_str()), 0) << calendar << '\n' << ReadFile("elapses");
        std::istringstream lines(ReadFile("elapses"));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t zone = line.rfind(" UTC");
            if (line.find(" elapse: ") == std::string::npos &&
                line.find(" Iter. #") == std::string::npos)
                continue;
            ASSERT_NE(zone, std::string::npos) << line;
            std::istringstream text(line.substr(zone - 19, 19));
            std::chrono::sys_seconds time;
            text >> date::parse("%F %T", time);
            EXPECT_TRUE(text) << line;
            times.insert(time);
        }
    }
    while (times.size() > most)
        times.erase(std::prev(times.end()));
}

std::string RandomField(std::mt19937& random, unsigned low, unsigned high) {
    const unsigned first = low + static_cast<unsigned>(random() % (high - low + 1));
    const unsigned last = first + static_cast<unsigned>(random() % (high - first + 1));
    const std::vector<std::string> choices = {"*",
                                              "*",
                                              fmt::format("{}", first),
                                              fmt::format("{}-{}", first, last),
                                              fmt::format("*/{}", 1 + first % 7),
                                              fmt::format("{},{}", first, last)};
    return choices[random() % choices.size()];
}

}  // namespace

TEST(UnitCalendar, ElapsesAtTheLaunches) {
    std::vector<std::string> expressions = {
        "@daily",       "@hourly",       "0 0 29 2 *",    "30 2 L * *",  "30 2 1,L 2 *",
        "0 0 13 * fri", "0 0 L * sun",   "0 0 */2 * sun", "*/7 * * * *", "5 4 * * 0,7",
        "0 22 * * 1-5", "0 0 1-7 * */2", "15,45 2 * * *"};
    std::mt19937 random(20261123);
    for (int count = 0; count < 40; ++count)
        expressions.push_back(fmt::format("{} {} {} {} {}", RandomField(random, 0, 59),
                                          RandomField(random, 0, 23), RandomField(random, 1, 28),
                                          RandomField(random, 1, 12), RandomField(random, 0, 6)));
    for (const std::string& expression : expressions) {
        const vxsched::CCronExpression cron = ParseCron(expression);
        TTimes elapses;
        FindElapses(UnitCalendar(cron, "UTC"), cBegin, cLaunches, elapses);
        EXPECT_EQ(elapses, LaunchesOf(cron, vxsched::CTimeZone::Utc(), cBegin, cLaunches))
            << expression;
    }
}

TEST(UnitCalendar, DifferencesAtChangesOfTheClockAreKnown) {
    const vxsched::CTimeZone berlin = vxsched::CTimeZone::Named("Europe/Berlin");
    constexpr std::size_t cInADay = 130;
    std::size_t differing = 0;
    for (const auto begin : {date::year(2027) / date::month(3) / date::day(28),
                             date::year(2027) / date::month(10) / date::day(31)}) {
        const std::chrono::sys_seconds from = date::sys_days(begin) - std::chrono::hours(2);
        for (const char* const expression :
             {"30 2 * * *", "15,45 2 * * *", "0 3 * * *", "0,30 2,3 * * *", "30 1 * * *",
              "*/30 * * * *", "30 * * * *", "* 2 * * *", "10 */2 * * *", "10 */5 * * *",
              "0 2 * * mon", "5 2 28 3 *"}) {
            const vxsched::CCronExpression cron = ParseCron(expression);
            const std::chrono::sys_seconds to = from + std::chrono::hours(24);
            TTimes launches = LaunchesOf(cron, berlin, from, cInADay);
            TTimes elapses;
            FindElapses(UnitCalendar(cron, "Europe/Berlin"), from, cInADay, elapses);
            launches.erase(launches.lower_bound(to), launches.end());
            elapses.erase(elapses.lower_bound(to), elapses.end());
            const bool differs = DiffersAtChange(cron, berlin, from, to);
            EXPECT_EQ(differs, elapses != launches) << expression << ' ' << begin;
            differing += differs ? 1 : 0;
        }
    }
    EXPECT_GE(differing, 5U);
}

TEST(UnitCalendar, IsReadable) {
    EXPECT_THAT(UnitCalendar(ParseCron("30 2 * * *"), ""), ElementsAre("*-*-* 02:30:00"));
    EXPECT_THAT(UnitCalendar(ParseCron("*/20 8-10 * 1,12 mon-wed"), "Europe/Berlin"),
                ElementsAre("Mon,Tue,Wed *-01,12-* 08,09,10:00,20,40:00 Europe/Berlin"));
    EXPECT_THAT(UnitCalendar(ParseCron("* * 1,L * *"), ""),
                ElementsAre("*-*-01 *:*:00", "*-*~01 *:*:00"));
    EXPECT_THAT(UnitCalendar(ParseCron("0 0 13 * fri"), ""),
                ElementsAre("*-*-13 00:00:00", "Fri *-*-* 00:00:00"))
        << "either of day and weekday suffices";
    EXPECT_THAT(UnitCalendar(ParseCron("0 0 */2 * sun"), ""),
                ElementsAre("Sun *-*-01,03,05,07,09,11,13,15,17,19,21,23,25,27,29,31 00:00:00"))
        << "both are needed";
}
