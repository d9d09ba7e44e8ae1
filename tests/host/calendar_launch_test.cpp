// A real host launches jobs by their calendars, and reschedules them. The system clock stands still
// until the test sets it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vxsched/SchedulingProcess.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "GuardedTable.h"
#include "HostClock.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "base/IsoTime.h"

using testing::HasSubstr;
using TJson = nlohmann::json;

namespace {

constexpr std::int64_t cMinute = 60;
constexpr std::int64_t cHour = 60 * cMinute;
constexpr std::int64_t cDay = 24 * cHour;
constexpr std::int64_t cStart = 1795271400;  // 2026-11-21 14:30:00 UTC, a Saturday
constexpr char cHistory[] = "files/history.jsonl";
const std::string cDaily = "--cron '30 14 * * *' --zone UTC";
const std::string cQuarters = "--cron '*/15 * * * *' --zone UTC";

class CalendarLaunch : public testing::Test {
protected:
    CalendarLaunch() {
        std::filesystem::create_directory("files");
        UseHostClock(cStart);
    }

    static TRow Job(std::int64_t due, const std::string& options, std::int64_t last = 0) {
        const std::string line = options + " -- " + PROGRAMS + "/append-text log";
        return {"job", due, last, 1, RUNNER_PROGRAM, line, 0};
    }

    static std::int64_t SecondsOf(const std::string& time) {
        const std::optional<TMoment> moment = ReadUtcTime(time);
        return moment ? std::chrono::floor<std::chrono::seconds>(*moment).time_since_epoch().count()
                      : 0;
    }

    static std::size_t CountLaunches() { return CountLines("log"); }

    // The records of times that were missed.
    static std::vector<TJson> Missed() {
        std::vector<TJson> missed;
        if (!std::filesystem::exists(cHistory))
            return missed;
        for (const std::string& line : Lines(cHistory)) {
            const TJson record = TJson::parse(line);
            if (record.at("outcome") == "missed")
                missed.push_back(record);
        }
        return missed;
    }
};

}  // namespace

TEST_F(CalendarLaunch, ReschedulesTheTaskByTheCalendar) {
    WriteTable({Job(cStart, cDaily)});
    CHost host;
    EXPECT_EQ(TickAt(cStart), TRows({Job(cStart + cDay, cDaily, cStart)}));
    EXPECT_EQ(TickAt(cStart + cDay - 1), TRows({Job(cStart + cDay, cDaily, cStart)}));
    EXPECT_EQ(TickAt(cStart + cDay), TRows({Job(cStart + 2 * cDay, cDaily, cStart + cDay)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 2U);
    EXPECT_EQ(Missed().size(), 0U);
}

// The machine's clock advances by an hour in Berlin in the night before the 28th of March, and what is due
// in the hour that is skipped runs after it.
TEST_F(CalendarLaunch, FollowsTheChangesOfTheZonesClock) {
    const std::string options = "--cron '30 2 * * *' --zone Europe/Berlin";
    constexpr std::int64_t cSaturday = 1806111000;  // 2027-03-27 02:30 in Berlin
    SetClock(cSaturday);
    WriteTable({Job(cSaturday, options)});
    const CHost host;
    EXPECT_EQ(TickAt(cSaturday).at(0).next, cSaturday + cDay - 30 * cMinute) << "at 03:00";
    EXPECT_EQ(TickAt(cSaturday + cDay - 30 * cMinute).at(0).next, cSaturday + 2 * cDay - cHour)
        << "at 02:30";
}

TEST_F(CalendarLaunch, IsNotMadeAtATimeThatTheCalendarLacks) {
    WriteTable({Job(cStart, "--cron '0 3 * * *' --zone UTC")});
    CHost host;
    EXPECT_EQ(TickAt(cStart).at(0).next, cStart + 12 * cHour + 30 * cMinute);
    EXPECT_EQ(ReadTable().at(0).last, 0);
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 0U);
    EXPECT_EQ(Missed().size(), 0U);
}

TEST_F(CalendarLaunch, IsMadeThoughTheTickIsLate) {
    const std::string options = "--cron '* * * * *' --zone UTC";
    WriteTable({Job(cStart + cMinute, options)});
    CHost host;
    TickAt(cStart + 50);
    EXPECT_EQ(TickAt(cStart + cMinute + 40),
              TRows({Job(cStart + 2 * cMinute, options, cStart + cMinute + 40)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U);
}

TEST_F(CalendarLaunch, OfTimesThatPassedInASuspendAreMissed) {
    WriteTable({Job(cStart + 15 * cMinute, cQuarters)});
    CHost host;
    TickAt(cStart);
    const TRows rows = TickAt(cStart + 2 * cHour + cMinute);
    EXPECT_EQ(rows, TRows({Job(cStart + 2 * cHour + 15 * cMinute, cQuarters)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 0U);
    ASSERT_EQ(Missed().size(), 1U);
    EXPECT_EQ(Missed()[0].at("missed"), 8);
    EXPECT_EQ(Missed()[0].at("due"), "2026-11-21T14:45:00.000Z");
}

TEST_F(CalendarLaunch, IsCaughtUpAfterASuspendIfTheJobAsksForIt) {
    const std::string options = cQuarters + " --catch-up";
    WriteTable({Job(cStart + 15 * cMinute, options)});
    CHost host;
    TickAt(cStart);
    const std::int64_t woken = cStart + 2 * cHour + cMinute;
    EXPECT_EQ(TickAt(woken), TRows({Job(cStart + 2 * cHour + 15 * cMinute, options, woken)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U);
    ASSERT_EQ(Missed().size(), 1U);
    EXPECT_EQ(Missed()[0].at("missed"), 7);
    EXPECT_EQ(Missed()[0].at("due"), "2026-11-21T15:00:00.000Z") << "the launch is that of 14:45";
}

TEST_F(CalendarLaunch, IsCaughtUpNoLaterThanTheJobSays) {
    WriteTable({Job(cStart + cHour, "--cron '30 15 * * *' --zone UTC --catch-up=2h")});
    CHost host;
    TickAt(cStart);
    TickAt(cStart + 3 * cHour + 1);
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 0U);
    EXPECT_EQ(Missed().size(), 1U);
}

// A clock that is set back shows times a second time.
TEST_F(CalendarLaunch, IsNotRepeatedAfterTheClockWasSetBack) {
    WriteTable({Job(cStart, cQuarters)});
    CHost host;
    const TRows rows = TickAt(cStart);
    EXPECT_EQ(rows.at(0).next, cStart + 15 * cMinute);
    EXPECT_EQ(TickAt(cStart - cHour), rows);
    EXPECT_EQ(TickAt(cStart), rows);
    EXPECT_EQ(TickAt(cStart + 15 * cMinute).at(0).next, cStart + 30 * cMinute);
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 2U);
}

TEST_F(CalendarLaunch, TaskIsRemovedAfterItsLastLaunch) {
    WriteTable({Job(cStart, cQuarters + " --until 2026-11-21T14:45:00.000Z"), Row("other")});
    CHost host;
    EXPECT_EQ(TickAt(cStart).size(), 2U);
    EXPECT_EQ(TickAt(cStart + 15 * cMinute), TRows({Row("other")}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 2U);
}

TEST_F(CalendarLaunch, TaskOfAPeriodEndsAsItsJobSays) {
    WriteTable({Job(cStart, "--until 2026-11-21T15:29:59.000Z"), Row("other")});
    CHost host;
    EXPECT_EQ(TickAt(cStart), TRows({Row("other")}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U);
}

TEST_F(CalendarLaunch, OfAZoneThatIsMissingIsNotMadeAndReported) {
    WriteTable({Job(cStart, "--cron '30 14 * * *' --zone Europe/Atlantis")});
    CHost host;
    EXPECT_EQ(TickAt(cStart).at(0).next, cStart + cHour);
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 0U);
    EXPECT_THAT(host.Output(), HasSubstr("task \"job\" is not launched: "));
    EXPECT_THAT(host.Output(), HasSubstr("Europe/Atlantis"));
}

// The machine's startup is that of the test's machine.
TEST_F(CalendarLaunch, OfStartupsIsMadeByTheFirstHostOfABoot) {
    const std::string options = "--cron @reboot";
    constexpr std::int64_t cNever = 253'402'214'400;
    WriteTable({Job(cNever, options)});
    for (int time = 0; time < 2; ++time) {
        CHost host;
        EXPECT_EQ(TickAt(cStart), TRows({Job(cNever, options, cStart)}));
        StopWithItsJobs(host);
    }
    EXPECT_EQ(CountLaunches(), 1U);
    EXPECT_EQ(Missed().size(), 0U);
}

// ---- What passed while no host ran --------------------------------------------------------------

TEST_F(CalendarLaunch, OfTimesThatPassedWithoutAHostAreMissed) {
    WriteTable({Job(cStart - cDay, cQuarters)});
    CHost host;
    EXPECT_EQ(TickAt(cStart + 1), TRows({Job(cStart + 15 * cMinute, cQuarters, cStart)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U) << "the one that is due at this second";
    ASSERT_EQ(Missed().size(), 1U);
    EXPECT_EQ(Missed()[0].at("missed"), 96);
    EXPECT_EQ(Missed()[0].at("due"), "2026-11-20T14:30:00.000Z");
    EXPECT_EQ(Missed()[0].at("task"), "rescheduled");
    EXPECT_THAT(host.Output(), HasSubstr("job"));
}

TEST_F(CalendarLaunch, IsCaughtUpAtAStartupIfTheJobAsksForIt) {
    const std::string options = cDaily + " --catch-up=2h";
    SetClock(cStart + cHour);
    WriteTable({Job(cStart - cDay, options)});
    CHost host;
    EXPECT_EQ(TickAt(cStart + cHour), TRows({Job(cStart + cDay, options, cStart + cHour)}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U);
    ASSERT_EQ(Missed().size(), 1U);
    EXPECT_EQ(Missed()[0].count("missed"), 0U) << "a single one is not counted";
    EXPECT_EQ(Missed()[0].at("due"), "2026-11-20T14:30:00.000Z");
}

TEST_F(CalendarLaunch, OfAJobThatIsOverIsNotCaughtUp) {
    SetClock(cStart + cHour);
    WriteTable(
        {Job(cStart, cDaily + " --until 2026-11-21T14:29:00.000Z --catch-up"), Row("other")});
    CHost host;
    EXPECT_EQ(TickAt(cStart + cHour), TRows({Row("other")}));
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 0U);
}

// The host before has launched it and was killed before it saved the table.
TEST_F(CalendarLaunch, ThatAKilledHostHasMadeIsNotRepeated) {
    WriteTable({Job(cStart, cQuarters)});
    SetClock(cStart - 1);
    {
        CHost host(HostThatPauses());
        SetClock(cStart);
        WakeWorker();
        WaitUntil([] { return CountLaunches() == 1; });
        host.Kill(SIGKILL);
        host.Wait();
    }
    EXPECT_EQ(ReadTable().at(0).next, cStart) << "as before the launch";
    SetClock(cStart + cMinute);
    CHost host;
    EXPECT_EQ(TickAt(cStart + cMinute).at(0).next, cStart + 15 * cMinute);
    StopWithItsJobs(host);
    EXPECT_EQ(CountLaunches(), 1U);
}

// The host is killed at a random moment of a tick that launches three tasks, and started again.
TEST_F(CalendarLaunch, IsMadeOnceOrMissedOverKills) {
    constexpr int cMinutes = 40;
    constexpr std::size_t cAll = 120;  // of three tasks
    const std::string line =
        "--cron '* * * * *' --zone UTC --overlap allow --shell 'echo $VXSCHED_TASK $VXSCHED_DUE >> "
        "log'";
    TRows rows;
    for (const char* const name : {"one", "two", "three"})
        rows.push_back({name, cStart + cMinute, 0, 1, RUNNER_PROGRAM, line, 0});
    WriteTable(rows);
    auto host = std::make_unique<CHost>();
    std::mt19937 random(20261123);
    for (int minute = 1; minute <= cMinutes; ++minute) {
        SetClock(cStart + minute * cMinute);
        WakeWorker();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 8000));
        host->Kill(SIGKILL);
        host->Wait();
        host = std::make_unique<CHost>();
    }
    TickAt(cStart + cMinutes * cMinute);
    std::multiset<std::string> made;
    for (const TJson& missed : Missed()) {
        const std::int64_t due = SecondsOf(missed.at("due"));
        for (int number = 0; number < missed.value("missed", 1); ++number)
            made.insert(missed.at("name").get<std::string>() + ' ' +
                        std::to_string(due + number * cMinute));
    }
    const std::size_t missed = made.size();
    WaitUntil([&] { return CountLaunches() + missed >= cAll; });
    StopWithItsJobs(*host);
    for (const std::string& launch : Lines("log"))
        made.insert(launch);
    for (const TRow& row : rows) {
        for (int minute = 1; minute <= cMinutes; ++minute) {
            const std::string launch = row.name + ' ' + std::to_string(cStart + minute * cMinute);
            EXPECT_EQ(made.count(launch), 1U) << launch;
        }
    }
    EXPECT_EQ(made.size(), cAll);
}
