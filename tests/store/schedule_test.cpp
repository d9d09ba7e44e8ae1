// When a task is launched next, and what passed of its calendar.

#include "store/CSchedule.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "base/IsoTime.h"

using vxsched::cNever;
using vxsched::CSchedule;
using vxsched::TTaskEntry;
using vxsched::TTime;
using namespace std::chrono_literals;

namespace {

// 2026-11-21 14:30:00 UTC, a Saturday; 15:30 in Berlin.
constexpr TTime cSaturday(std::chrono::seconds(1'795'271'400));

TTaskEntry JobDue(TTime due, const std::string& options, TTime last = TTime()) {
    return {.name = "job",
            .next = due,
            .last = last,
            .period = 1,
            .program = "/usr/bin/vxrun",
            .parameter = options + " -- /bin/true"};
}

std::string FirstFrom(const std::string& options, TTime time) {
    return UtcTime(CSchedule(JobDue(time, options)).FirstFrom(time));
}

}  // namespace

TEST(Schedule, OfATaskWithoutAJobIsTheGridOfItsPeriod) {
    const CSchedule schedule(TTaskEntry{.name = "task",
                                        .next = cSaturday,
                                        .last = TTime(),
                                        .period = 24,
                                        .program = "/bin/true",
                                        .parameter = "--cron '0 0 * * *' -- /bin/true"});
    EXPECT_FALSE(schedule.HasCalendar());
    EXPECT_TRUE(schedule.IsLaunchTime(cSaturday + 1s));
    EXPECT_EQ(schedule.FirstFrom(cSaturday), cSaturday);
    EXPECT_EQ(schedule.FirstFrom(cSaturday + 1s), cSaturday + 24h);
}

TEST(Schedule, OfAJobIsItsCalendar) {
    EXPECT_EQ(FirstFrom("--cron '30 2 * * *' --zone UTC", cSaturday), "2026-11-22T02:30:00.000Z");
    EXPECT_EQ(FirstFrom("--cron '30 2 * * *' --zone Europe/Berlin", cSaturday),
              "2026-11-22T01:30:00.000Z");
    EXPECT_EQ(FirstFrom("--cron '30 14 * * *' --zone UTC", cSaturday), "2026-11-21T14:30:00.000Z");
}

// It would differ between a client and the host.
TEST(Schedule, IsNotInTheZoneOfTheCaller) {
    setenv("TZ", "UTC", 1);
    const std::string first = FirstFrom("--cron '30 2 * * *'", cSaturday);
    setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(FirstFrom("--cron '30 2 * * *'", cSaturday), first);
}

TEST(Schedule, KnowsTheTimesOfItsCalendar) {
    const CSchedule schedule(JobDue(cSaturday, "--cron '*/15 * * * *' --zone UTC"));
    EXPECT_TRUE(schedule.IsLaunchTime(cSaturday));
    EXPECT_TRUE(schedule.IsLaunchTime(cSaturday + 15min));
    EXPECT_FALSE(schedule.IsLaunchTime(cSaturday + 1s));
    EXPECT_FALSE(schedule.IsLaunchTime(cSaturday + 1min));
}

TEST(Schedule, CountsWhatPassed) {
    const CSchedule schedule(JobDue(cSaturday, "--cron '*/15 * * * *' --zone UTC"));
    EXPECT_EQ(schedule.PassedUntil(cSaturday - 1s).count, 0U);
    const CSchedule::TPassed one = schedule.PassedUntil(cSaturday);
    EXPECT_EQ(one.count, 1U);
    EXPECT_EQ(one.first, cSaturday);
    EXPECT_EQ(one.last, cSaturday);
    const CSchedule::TPassed many = schedule.PassedUntil(cSaturday + 24h + 1min);
    EXPECT_EQ(many.count, 97U);
    EXPECT_EQ(many.first, cSaturday);
    EXPECT_EQ(many.last, cSaturday + 24h);
}

// Ten years of minutes would take a while.
TEST(Schedule, CountsToAHundredThousand) {
    const CSchedule schedule(JobDue(cSaturday, "--cron '* * * * *' --zone UTC"));
    EXPECT_EQ(schedule.PassedUntil(cSaturday + 24h * 3650).count, 100'000U);
}

// A host without calendars has launched it at 14:10 and rescheduled it by its period of an hour.
TEST(Schedule, DueTimeThatTheCalendarLacksStandsForThoseOfTheHourBeforeIt) {
    const TTime due = cSaturday + 40min;
    const CSchedule schedule(JobDue(due, "--cron '30 14 * * *' --zone UTC", due - 1h));
    const CSchedule::TPassed passed = schedule.PassedUntil(due);
    EXPECT_EQ(passed.count, 1U);
    EXPECT_EQ(passed.last, cSaturday);
}

TEST(Schedule, DueTimeThatTheCalendarLacksStandsForNoneBeforeTheLastLaunch) {
    const TTime due = cSaturday + 40min;
    const CSchedule schedule(JobDue(due, "--cron '30 14 * * *' --zone UTC", cSaturday));
    EXPECT_EQ(schedule.PassedUntil(due).count, 0U);
    const CSchedule never(JobDue(due, "--cron '30 14 * * *' --zone UTC"));
    EXPECT_EQ(never.PassedUntil(due).count, 0U) << "of a task that was not launched yet";
}

TEST(Schedule, EndsWithUntil) {
    const CSchedule schedule(
        JobDue(cSaturday, "--cron '*/15 * * * *' --zone UTC --until 2026-11-21T15:00:00.000Z"));
    EXPECT_FALSE(schedule.IsOver(cSaturday));
    EXPECT_FALSE(schedule.IsOver(cSaturday + 30min));
    EXPECT_TRUE(schedule.IsOver(cSaturday + 30min + 1s));
    EXPECT_EQ(schedule.PassedUntil(cSaturday + 24h).count, 3U);
}

TEST(Schedule, CanBeThatOfStartups) {
    const CSchedule schedule(JobDue(cNever, "--cron @reboot --until 2026-12-01T00:00:00.000Z"));
    EXPECT_TRUE(schedule.HasCalendar());
    EXPECT_TRUE(schedule.IsAtStartup());
    EXPECT_EQ(schedule.FirstFrom(cSaturday), cNever);
    EXPECT_EQ(schedule.PassedUntil(cSaturday).count, 0U);
    EXPECT_FALSE(schedule.IsOver(cNever));
    EXPECT_TRUE(schedule.IsOver(cSaturday + 24h * 30));
    const CSchedule due(JobDue(cSaturday, "--cron @reboot"));
    EXPECT_TRUE(due.IsLaunchTime(cSaturday)) << "whoever has set it";
    EXPECT_EQ(due.PassedUntil(cSaturday).count, 1U);
}

TEST(Schedule, OfACalendarThatCannotBeReadIsTheGridAndAProblem) {
    const CSchedule zone(JobDue(cSaturday, "--cron '0 0 * * *' --zone Europe/Atlantis"));
    EXPECT_FALSE(zone.HasCalendar());
    EXPECT_NE(zone.Problem().find("Atlantis"), std::string::npos) << zone.Problem();
    const CSchedule line(JobDue(cSaturday, "--no-such-option"));
    EXPECT_FALSE(line.HasCalendar());
    EXPECT_EQ(line.Problem(), "") << "the runner reports it";
    EXPECT_EQ(line.FirstFrom(cSaturday + 1s), cSaturday + 1h);
}

TEST(Schedule, CatchesUpAsTheJobSays) {
    EXPECT_FALSE(CSchedule(JobDue(cSaturday, "--cron @daily")).CatchUp());
    EXPECT_EQ(CSchedule(JobDue(cSaturday, "--cron @daily --catch-up=2h")).CatchUp(), 2h);
    EXPECT_EQ(CSchedule(JobDue(cSaturday, "--catch-up")).CatchUp(), std::chrono::seconds::max());
}
