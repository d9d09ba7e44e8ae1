// A due time whose launch another process undoes in the table.

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

static constexpr std::int64_t cDay = 24L * 3600;
static const TRow cJob = {"job", cFar, 0, 24, PROGRAMS "/append-text", "log", 0};

// Launches the only task, and waits until the host keeps nothing of the launch but the table.
// Returns the table as it was before.
static TRows LaunchTheOnlyTask() {
    std::filesystem::remove("log");
    TRows before = StartTheOnlyTask();
    WaitUntil([&] {
        return ReadTable().at(0).next != before.at(0).next && CountIn("files/started", "@") == 0;
    });
    return before;
}

// The same of a table with this task only, and kills the host.
static TRows LaunchAndKill(const TRow& task) {
    WriteTable({task});
    CHost host;
    TRows before = LaunchTheOnlyTask();
    host.Kill(SIGKILL);
    host.Wait();
    return before;
}

static void WaitForTheNextDueTime(const TRow& before) {
    WaitUntil([&] { return ReadTable().at(0).next == before.next + cDay; });
}

// As a direct client does that has read the table before the tick.
TEST(SettledLaunches, DueTimeThatIsSavedAgainIsNotLaunchedAgain) {
    WriteTable({cJob});
    CHost host;
    const TRows before = LaunchTheOnlyTask();
    SaveTable(before);
    WakeChanged();
    WaitForTheNextDueTime(before[0]);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U) << host.Output();
}

// The worker reads no table whose change was not announced.
TEST(SettledLaunches, DueTimeThatIsSavedAgainUnannouncedIsCorrected) {
    WriteTable({cJob});
    CHost host;
    const TRows before = LaunchTheOnlyTask();
    SaveTable(before);
    WaitForTheNextDueTime(before[0]);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U) << host.Output();
}

static void ExpectNoSecondLaunchBy(CHost& host, const TRow& before) {
    WaitForTheNextDueTime(before);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U) << host.Output();
}

// Also if the former launch was in the same second as this one, or the clock was set back since.
TEST(SettledLaunches, DueTimeThatIsSavedAgainAfterAKillIsNotLaunchedAgain) {
    TRow job = cJob;
    job.last = std::time(nullptr) + 3600;
    const TRows before = LaunchAndKill(job);
    CHost next;
    SaveTable(before);
    WakeChanged();
    ExpectNoSecondLaunchBy(next, before[0]);
}

TEST(SettledLaunches, DueTimeThatIsSavedAgainWhileNoHostRunsIsNeitherLaunchedAgainNorMissed) {
    const TRows before = LaunchAndKill(cJob);
    WriteTable(before);
    CHost next;
    ExpectNoSecondLaunchBy(next, before[0]);
    EXPECT_EQ(next.CountInOutput("missed"), 0U) << next.Output();
}

TEST(SettledLaunches, LaunchOfAKilledHostIsNotMadeAgainOnceTheNextHasAppliedIt) {
    const TRows before = LaunchAndKill(cJob);
    WriteTable(before);
    {
        CHost next;
        WaitForTheNextDueTime(before[0]);
        next.Kill(SIGKILL);
        next.Wait();
    }
    WriteTable(before);
    CHost last;
    ExpectNoSecondLaunchBy(last, before[0]);
}

TEST(SettledLaunches, TaskThatACommandMakesDueAgainIsLaunchedAgain) {
    WriteTable({cJob});
    CHost host;
    const TRows before = LaunchTheOnlyTask();
    const std::string due = "@" + std::to_string(before.at(0).next);
    for (std::size_t launches = 2; launches <= 4; ++launches) {
        const TToolRun edit = RunTool({"edit", "job", "--at", due, "--every", "1d"});
        EXPECT_EQ(edit.status, 0) << edit.error;
        WaitUntil([&] { return CountLines("log") == launches; });
    }
    WaitForTheNextDueTime(before[0]);
    EXPECT_EQ(host.Stop(), 0);
}

// Exports tables as they were before their launches, from a store of its own.
static std::string ExportOf(const TRows& rows) {
    std::filesystem::create_directories("exported/files");
    WriteFile(std::string("exported/") + cTable, BytesOf(rows));
    const TToolRun exported = RunTool({"--directory", "exported", "export"});
    EXPECT_EQ(exported.status, 0) << exported.error;
    WriteFile("export", exported.output);
    return "export";
}

static void Import(const TRows& rows) {
    const TToolRun import = RunTool({"import", "--merge", ExportOf(rows)});
    EXPECT_EQ(import.status, 0) << import.error;
}

TEST(SettledLaunches, TaskThatAnImportMakesDueAgainIsLaunchedAgainOnce) {
    WriteTable({cJob, Row("other")});
    CHost host;
    const TRows before = LaunchTheOnlyTask();
    for (std::size_t launches = 2; launches <= 3; ++launches) {
        Import(before);
        WaitUntil([&] { return CountLines("log") == launches; });
        WaitForTheNextDueTime(before[0]);
    }
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 3U) << host.Output();
}

// While no host runs, and after a kill of the one that has launched it.
TEST(SettledLaunches, TaskThatAnImportMakesDueAgainIsLaunchedByTheNextHost) {
    const TRows before = LaunchAndKill(cJob);
    Import(before);
    CHost next;
    WaitUntil([] { return CountLines("log") == 2; });
    WaitForTheNextDueTime(before[0]);
    EXPECT_EQ(next.Stop(), 0);
}

TEST(SettledLaunches, TaskThatAnImportAddsAgainIsLaunched) {
    WriteTable({cJob});
    CHost host;
    const TRows before = LaunchTheOnlyTask();
    const TToolRun remove = RunTool({"remove", "job"});
    EXPECT_EQ(remove.status, 0) << remove.error;
    Import(before);
    WaitUntil([] { return CountLines("log") == 2; });
    WaitForTheNextDueTime(before[0]);
    EXPECT_EQ(host.Stop(), 0);
}

// A repair takes the due time from a backup that was made before the launch.
TEST(SettledLaunches, DueTimeThatARepairRestoresIsNotLaunchedAgain) {
    const TRows before = LaunchAndKill(cJob);
    std::filesystem::remove_all("files/snapshots");
    WriteFile("files/scheduler.dat.before", BytesOf(before));
    WriteFile(cTable, "damaged");
    const TToolRun repair = RunTool({"repair"});
    EXPECT_EQ(repair.status, 0) << repair.error;
    EXPECT_EQ(ReadTable(), before);
    CHost next;
    ExpectNoSecondLaunchBy(next, before[0]);
}

// Several of them within a second.
TEST(SettledLaunches, TaskThatACommandCreatesAnewIsLaunched) {
    for (const char* const period : {"once", "1h"}) {
        std::filesystem::remove("log");
        WriteTable({});
        CHost host;
        for (std::size_t launches = 1; launches <= 10; ++launches) {
            const TToolRun create = RunTool({"create", "job", "--replace", "--at", "now", "--every",
                                             period, "--", cJob.program, cJob.parameters});
            EXPECT_EQ(create.status, 0) << create.error;
            WaitUntil([&] { return CountLines("log") == launches; });
        }
        EXPECT_EQ(host.Stop(), 0);
    }
}

// Its host was killed after the launch, before the table showed it.
TEST(SettledLaunches, TaskThatIsDueAndLaunchedKeepsItsRecordWhenACommandChangesIt) {
    const TRows before = LaunchAndKill(cJob);
    WriteTable(before);
    for (const auto& file : std::filesystem::directory_iterator("files/settled"))
        std::filesystem::rename(file.path(), "files/started" / file.path().filename());
    const TToolRun edit = RunTool({"edit", "job", "--parameter", "log", "--even-if-due"});
    EXPECT_EQ(edit.status, 0) << edit.error;
    CHost next;
    ExpectNoSecondLaunchBy(next, before[0]);
}
