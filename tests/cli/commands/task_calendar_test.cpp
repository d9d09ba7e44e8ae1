// create, edit, resume and period of tasks with a calendar, and what list, next and show say of them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using nlohmann::json;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

using TStrings = std::vector<std::string>;

class CliTaskCalendar : public Cli {
protected:
    // At cNow, a Saturday, 15:30 in Berlin; the options come before the program.
    static std::string Create(const TStrings& options, const std::string& name = "job") {
        TStrings arguments = {"create", name, "--replace"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        for (const char* const word : {"--", "/bin/echo", "a", "b"})
            arguments.emplace_back(word);
        return AtNow(arguments);
    }

    static std::string AtNow(const TStrings& arguments) {
        const TToolRun run = RunTool(arguments, AtTime(cNow));
        EXPECT_EQ(run.status, 0) << run.error;
        return run.output;
    }

    static void ExpectRefusedAtNow(const std::string& message, const TStrings& arguments) {
        const TRows before = ReadTable();
        const TToolRun run = RunTool(arguments, AtTime(cNow));
        EXPECT_NE(run.status, 0) << run.output;
        EXPECT_THAT(run.error, HasSubstr(message));
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(ReadTable(), before);
    }

    static TRow Job() { return ReadTable().at(0); }
};

constexpr long cMidnight = cNow + 8 * cHour + cHour / 2;  // 2026-11-22 00:00 in Berlin

}  // namespace

TEST_F(CliTaskCalendar, SetsTheDueTimeAndAPeriodOfAnHour) {
    EXPECT_EQ(Create({"--cron", "30 2 * * mon-fri", "--zone", "Europe/Berlin"}),
              "created job, by the calendar 30 2 * * mon-fri Europe/Berlin, next due 2026-11-23 "
              "02:30:00 (in 1d 11h)\n"
              "then 2026-11-24 02:30:00, 2026-11-25 02:30:00, 2026-11-26 02:30:00, 2026-11-27 "
              "02:30:00\n");
    const TRow row = Job();
    EXPECT_EQ(row.next, cMidnight + cDay + 2 * cHour + cHour / 2);
    EXPECT_EQ(row.period, 1U);
    EXPECT_EQ(row.parameters,
              "--task job --cron '30 2 * * mon-fri' --zone Europe/Berlin -- /bin/echo a b");
}

TEST_F(CliTaskCalendar, HasAFormForEachUsualOne) {
    const auto cronOf = [](const TStrings& options) {
        Create(options);
        return json::parse(Output({"show", "job", "--json"})).at("task").at("options").at("cron");
    };
    EXPECT_EQ(cronOf({"--daily", "02:30"}), "30 2 * * *");
    EXPECT_EQ(cronOf({"--weekly", "mon,fri 08:30"}), "30 8 * * 1,5");
    EXPECT_EQ(cronOf({"--monthly", "1 08:30"}), "30 8 1 * *");
    EXPECT_EQ(cronOf({"--every", "15m"}), "*/15 * * * *");
    EXPECT_EQ(cronOf({"--cron", "@daily"}), "@daily");
}

TEST_F(CliTaskCalendar, IsRefusedWithTheReason) {
    Create({"--daily", "02:30"});
    const auto refused = [](const std::string& message, TStrings options) {
        options.insert(options.begin(), {"create", "other"});
        for (const char* const word : {"--", "/bin/echo", "a", "b"})
            options.emplace_back(word);
        ExpectRefusedAtNow(message, options);
    };
    refused("it never comes", {"--cron", "0 0 30 2 *"});
    refused("--daily: ", {"--daily", "24:00"});
    refused("--weekly: ", {"--weekly", "caturday 08:00"});
    refused("--monthly: ", {"--monthly", "32 08:00"});
    refused("cannot use the zone \"Mars/Olympus\"", {"--daily", "02:30", "--zone", "Mars/Olympus"});
    refused("cannot use the zone", {"--daily", "02:30", "--zone", "../../../etc/passwd"});
    refused("--zone is that of a calendar", {"--every", "1d", "--zone", "Europe/Berlin"});
    refused("two calendars", {"--daily", "02:30", "--cron", "@hourly"});
    refused("--at and a calendar", {"--daily", "02:30", "--at", "in 1h"});
    refused("--every and a calendar", {"--daily", "02:30", "--every", "1d"});
    refused("every 7 minutes", {"--every", "7m"});
    refused("whole number of hours", {"--every", "90m"});
    refused("it ends (--until) before its due time, 2026-11-22T",
            {"--daily", "02:30", "--until", "today 20:00"});
    refused("it ends (--until) before its due time", {"--at", "in 2h", "--until", "in 1h"});
    ExpectRefusedAtNow("it ends (--until) before its due time",
                       {"edit", "job", "--until", "today 20:00"});
}

TEST_F(CliTaskCalendar, IsShownAsItIsWritten) {
    Create({"--daily", "02:30", "--zone", "Asia/Tokyo", "--catch-up", "--until", "in 2d"});
    EXPECT_THAT(AtNow({"list"}), HasSubstr("  30 2 * * * Asia/Tokyo  "));
    EXPECT_THAT(AtNow({"show", "job"}), HasSubstr("\nCalendar     at 02:30 every day\n"
                                                  "Zone         Asia/Tokyo\n"));
    EXPECT_EQ(json::parse(AtNow({"show", "job", "--json"})).at("task").at("options"),
              json::parse(R"({"cron": "30 2 * * *", "zone": "Asia/Tokyo", "catch-up": "any",
                              "until": "2026-11-23T14:30:00.000Z"})"));
}

// 02:30 in Tokyo is 18:30 in Berlin, the day before; the job ends two days from now.
TEST_F(CliTaskCalendar, NextLaunchesAreThoseOfTheCalendar) {
    Create({"--daily", "02:30", "--zone", "Asia/Tokyo", "--until", "in 2d"});
    Create({"--every", "15m"}, "often");
    const std::string all = AtNow({"next", "--until", "in 3d", "--count", "1000"});
    EXPECT_THAT(all, HasSubstr("2026-11-21 18:30:00"));
    EXPECT_THAT(all, HasSubstr("2026-11-22 18:30:00"));
    EXPECT_THAT(all, Not(HasSubstr("2026-11-23 18:30:00  2d 3h     30 2")));
    const json next = json::parse(AtNow({"next", "--count", "3", "--json"})).at("runs");
    ASSERT_EQ(next.size(), 3U);
    for (int number = 0; number < 3; ++number)
        EXPECT_EQ(next[static_cast<std::size_t>(number)].at("seconds"),
                  cNow + (number + 1) * cHour / 4);
}

TEST_F(CliTaskCalendar, EditSetsTheDueTimeByTheNewOne) {
    Create({"--daily", "02:30", "--zone", "Europe/Berlin"});
    EXPECT_THAT(AtNow({"edit", "job", "--daily", "04:00", "--dry-run"}),
                HasSubstr("would change job, by the calendar 0 4 * * * Europe/Berlin, next due "
                          "2026-11-22 04:00:00"));
    AtNow({"edit", "job", "--daily", "04:00"});
    EXPECT_EQ(Job().next, cMidnight + 4 * cHour);
    AtNow({"edit", "job", "--zone", "UTC"});
    EXPECT_EQ(Job().next, cMidnight + 5 * cHour);
    AtNow({"edit", "job", "--catch-up=2h"});
    EXPECT_EQ(Job().parameters,
              "--task job --cron '0 4 * * *' --zone UTC --catch-up=2h -- /bin/echo a b");
    AtNow({"edit", "job", "--catch-up=no", "--", "/bin/echo", "c", "d"});
    EXPECT_EQ(Job().parameters, "--task job --cron '0 4 * * *' --zone UTC -- /bin/echo c d");
    EXPECT_EQ(Job().next, cMidnight + 5 * cHour);
}

TEST_F(CliTaskCalendar, TakesThePlaceOfAPeriodAndTheOtherWayRound) {
    AtNow({"create", "job", "--at", "in 5h", "--every", "1d", "--", "/bin/echo", "a"});
    AtNow({"edit", "job", "--every", "30m"});
    EXPECT_EQ(Job().next, cNow + cHour / 2);
    EXPECT_EQ(Job().period, 1U);
    ExpectRefusedAtNow("give it one (--every)", {"edit", "job", "--cron", ""});
    AtNow({"edit", "job", "--cron", "", "--every", "2d"});
    EXPECT_EQ(Job().period, 48U);
    EXPECT_EQ(Job().program, "/bin/echo");
    EXPECT_EQ(Job().parameters, "a");
}

TEST_F(CliTaskCalendar, RefusesAPeriodAndADueTimeBesideIt) {
    Create({"--daily", "02:30"});
    for (const TStrings& arguments : {TStrings{"edit", "job", "--every", "6h"},
                                      {"edit", "job", "--at", "in 1h"},
                                      {"period", "job", "6h"},
                                      {"period", "job", "6h", "--dry-run"}})
        ExpectRefusedAtNow("is launched by its calendar, which sets its due times", arguments);
}

TEST_F(CliTaskCalendar, ResumeSetsTheDueTime) {
    Create({"--every", "15m"});
    TRow row = Job();
    row.paused = 1;
    row.next = cNow - 10 * cDay;
    WriteTable({row});
    EXPECT_EQ(AtNow({"resume", "job", "--dry-run"}), "would resume job\n");
    EXPECT_EQ(Job(), row);
    AtNow({"resume", "job"});
    EXPECT_EQ(Job().paused, 0U);
    EXPECT_EQ(Job().next, cNow + cHour / 4);
}

// A job whose last launch is behind it would be resumed for none.
TEST_F(CliTaskCalendar, ResumeOfAJobThatIsOverIsRefused) {
    Create({"--daily", "02:30", "--until", "in 2d"});
    TRow row = Job();
    row.paused = 1;
    row.next = cNow + 2 * cDay;
    WriteTable({row});
    const TToolRun run = RunTool({"resume", "job"}, AtTime(cNow + 3 * cDay));
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, HasSubstr("it ends (--until)"));
    EXPECT_EQ(Job(), row);
}

TEST_F(CliTaskCalendar, OfStartupsHasNoDueTime) {
    EXPECT_EQ(Create({"--cron", "@reboot"}),
              "created job, by the calendar @reboot, next due at the next startup\n");
    EXPECT_THAT(AtNow({"list"}), HasSubstr("\nat startup  -  "));
    EXPECT_THAT(AtNow({"show", "job"}), HasSubstr("Next due     at the next startup\n"));
    EXPECT_EQ(json::parse(AtNow({"next", "--json"})).at("runs").size(), 0U);
    AtNow({"pause", "job"});
    AtNow({"resume", "job"});
    EXPECT_EQ(Job().next, 253'402'214'400);
}

// 02:30 in Berlin is 03:30 from the end of March on.
TEST_F(CliTaskCalendar, PeriodOfDaysIsSaidToDrift) {
    const TStrings day = {"create", "a",         "--at", "tomorrow 02:30", "--every", "1d",
                          "--",     "/bin/echo", "x"};
    EXPECT_THAT(
        AtNow(day),
        EndsWith("it drifts when the clock changes, as at 2027-03-28 03:30:00: a period is a "
                 "number of hours; give --daily for a time of day\n"));
    EXPECT_THAT(AtNow({"edit", "a", "--every", "1w"}), HasSubstr("give --weekly"));
    EXPECT_THAT(AtNow({"edit", "a", "--every", "6h"}), Not(HasSubstr("drifts")));
    EXPECT_THAT(AtNow({"edit", "a", "--every", "1d", "--utc"}), Not(HasSubstr("drifts")));
}

TEST_F(CliTaskCalendar, ExportAndImportKeepIt) {
    Create({"--daily", "02:30", "--zone", "Europe/Berlin"});
    const TRow row = Job();
    const std::string exported = Output({"export"});
    EXPECT_EQ(json::parse(exported).at("tasks").at(0).at("options").at("cron"), "30 2 * * *");
    AtNow({"remove", "job"});
    WriteFile("exported", exported);
    AtNow({"import", "exported"});
    EXPECT_EQ(Job(), row);
}
