// A task that gets another name while a host runs: it is neither lost, nor there twice, nor launched
// twice.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;

static const TRow cJob = {"job", cFar, 0, 24, PROGRAMS "/append-text", "log", 0};

static void Rename(const std::string& from, const std::string& to,
                   const std::vector<std::string>& more = {}) {
    std::vector<std::string> command = {"edit", from, "--name", to};
    command.insert(command.end(), more.begin(), more.end());
    const TToolRun edit = RunTool(command);
    EXPECT_EQ(edit.status, 0) << edit.error;
}

// The guard keeps a snapshot of each table that it has checked and left as it is.
static void WaitForTheGuard(const std::string& bytes) {
    WaitUntil([&] {
        std::error_code ignored;
        const fs::directory_iterator snapshots("files/snapshots", ignored);
        return std::any_of(begin(snapshots), end(snapshots), [&](const fs::directory_entry& file) {
            return ReadFile(file.path()) == bytes;
        });
    });
}

static bool IsInHistory(const std::string& name) {
    return ReadFile("files/history.jsonl").find("\"name\":\"" + name + '"') != std::string::npos;
}

TEST(RenamedTask, IsNotTakenForALossByTheGuard) {
    WriteTable(cThree);
    CHost host;
    TRows rows = cThree;
    for (const std::string name : {"renamed", "renamed again", "second"}) {
        const std::string from = rows[1].name;
        rows[1].name = name;
        Rename(from, name);
        EXPECT_EQ(ReadTable(), rows);
        WaitForTheGuard(BytesOf(rows));
    }
    EXPECT_EQ(ReadTable(), rows);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

TEST(RenamedTask, IsLaunchedUnderItsNewName) {
    WriteTable({cJob});
    CHost host;
    Rename("job", "renamed", {"--at", "now"});
    WaitUntil([] { return IsInHistory("renamed"); });
    EXPECT_EQ(NamesInTable(), "renamed");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U);
    EXPECT_FALSE(IsInHistory("job"));
}

// The change waits until the due task was launched, which is recorded by its former name, and until
// the tick is over.
TEST(RenamedTask, IsLaunchedOnceIfItIsDue) {
    for (const bool isInATick : {false, true}) {
        fs::remove_all("files");
        fs::remove("log");
        fs::create_directory("files");
        WriteTable({cJob});
        CHost host(isInATick ? HostThatPauses() : HostWith({}));
        StartTheOnlyTask();
        Rename("job", "renamed");
        const TRow row = ReadTable().at(0);
        EXPECT_EQ(row.name, "renamed");
        EXPECT_GT(row.next, std::time(nullptr));
        EXPECT_NE(row.last, 0);
        WaitForTheGuard(BytesOf({row}));
        WakeWorker();
        WaitUntil([] { return IsInHistory("job"); });
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(CountLines("log"), 1U) << host.Output();
        EXPECT_FALSE(IsInHistory("renamed"));
        EXPECT_EQ(ReadTable(), TRows{row});
    }
}

// The host is killed after the launch and before the table shows it.
TEST(RenamedTask, WithALaunchThatTheTableDoesNotShowIsRefusedUntilAHostRuns) {
    WriteTable({cJob});
    const TRows before = [] {
        CHost host(HostThatPauses());
        TRows rows = StartTheOnlyTask();
        host.Kill(SIGKILL);
        host.Wait();
        return rows;
    }();
    WriteTable(before);
    const TToolRun edit = RunTool({"edit", "job", "--name", "renamed", "--even-if-due"});
    EXPECT_EQ(edit.status, 1) << edit.error;
    EXPECT_EQ(ReadTable(), before);
    CHost next;
    Rename("job", "renamed");
    const TRow row = ReadTable().at(0);
    EXPECT_EQ(row.next, before[0].next + 24L * 3600);
    EXPECT_EQ(NamesInTable(), "renamed");
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U) << next.Output();
}

// A name is free again at once, also for the same due time.
TEST(RenamedTask, DoesNotKeepATaskOfItsFormerNameFromItsLaunch) {
    WriteTable({cJob});
    CHost host;
    const TRows before = StartTheOnlyTask();
    Rename("job", "renamed");
    const std::string due = "@" + std::to_string(before.at(0).next);
    const TToolRun create = RunTool(
        {"create", "job", "--at", "in 1d", "--every", "1d", "--", cJob.program, cJob.parameters});
    EXPECT_EQ(create.status, 0) << create.error;
    const TToolRun edit = RunTool({"edit", "job", "--at", due});
    EXPECT_EQ(edit.status, 0) << edit.error;
    WaitUntil([] { return CountLines("log") == 2; });
    Rename("renamed", "renamed again", {"--at", due});
    WaitUntil([] { return CountLines("log") == 3; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "renamed again job");
}
