// Launches that the system refuses for want of processes: a real host makes them when it can.

#include <gtest/gtest.h>
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/OwedLaunches.h"
#include "store/TaskFileName.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <system_error>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;

namespace {

constexpr char cRefusal[] = "no processes";

// For a command: it starts a process of its own.
const TEnvironment cPermitted = {{"REFUSE_LAUNCHES", "none"}};

// The system refuses each launch of a host until Permit().
class OwedLaunches : public testing::Test {
protected:
    OwedLaunches() {
        for (const auto& [name, value] : WithInterposedSystem())
            setenv(name.c_str(), value.c_str(), 1);
        setenv("REFUSE_LAUNCHES", fs::absolute(cRefusal).c_str(), 1);
        WriteFile(cRefusal, "");
    }
    static void Permit() { fs::remove(cRefusal); }

    // Has the host try to launch the task, which is due now, and returns it as it was.
    static TRow Refuse(CHost& host, std::uint32_t period = 0) {
        TRow row = {"a task", std::time(nullptr), 0, period, PROGRAMS "/append-text", "log", 0};
        ReplaceTable({row});
        WakeWorker();
        EXPECT_TRUE(host.WaitForOutput("is launched as soon as the system has a process for it"));
        WaitUntil([&] { return ReadFile(cTable) != BytesOf({row}); });
        WaitUntil(WorkerIsIdle);
        return row;
    }

    // The same on a host that ends before it can make the launch.
    static TRow RefuseAndKill(std::uint32_t period = 0) {
        CHost host;
        TRow row = Refuse(host, period);
        host.Kill(SIGKILL);
        host.Wait();
        return row;
    }

    // Leaves the task due, as a killed host does. Returns the due time.
    static std::int64_t LeaveDue(std::uint32_t period) {
        {
            CHost host;
            host.Kill(SIGKILL);
            host.Wait();
        }
        const std::int64_t due = std::time(nullptr);
        WriteTable({{"a task", due, 0, period, PROGRAMS "/append-text", "log", 0}});
        return due;
    }

    static void ExpectCancelled(const std::string& reason) {
        EXPECT_EQ(CountIn("files/owed"), 0U);
        EXPECT_FALSE(fs::exists("log"));
        const std::vector<std::string> history = Lines("files/history.jsonl");
        ASSERT_EQ(history.size(), 1U);
        const auto record = nlohmann::json::parse(history.front());
        EXPECT_EQ(record.at("outcome"), "not started");
        EXPECT_EQ(record.at("error"), reason);
        EXPECT_FALSE(record.at("due").is_null());
        EXPECT_NE(record.value("run", ""), "");
        EXPECT_EQ(record.value("trigger", ""), "catch-up");
    }

    static bool IsInASnapshot(const std::string& table) {
        std::error_code ignored;
        const fs::directory_iterator snapshots("files/snapshots", ignored);
        return std::any_of(begin(snapshots), end(snapshots), [&](const fs::directory_entry& file) {
            return ReadFile(file.path()) == table;
        });
    }

    static void ExpectNothingOwed() {
        EXPECT_EQ(CountIn("files/owed"), 0U);
        EXPECT_EQ(ReadFile("log"), "log\n") << "launched once";
    }
};

}  // namespace

TEST_F(OwedLaunches, AreMadeWhenTheSystemHasProcessesAgain) {
    CHost host;
    const TRow row = Refuse(host);
    EXPECT_EQ(CountIn("files/owed"), 1U);
    EXPECT_FALSE(fs::exists("files/history.jsonl"));
    Permit();
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    ExpectNothingOwed();
    const auto record = nlohmann::json::parse(ReadFile("files/history.jsonl"));
    EXPECT_EQ(record.at("outcome"), "exited");
    EXPECT_EQ(record.at("name"), row.name);
    EXPECT_FALSE(record.at("due").is_null());
    EXPECT_EQ(record.at("trigger"), "catch-up");
}

// As a direct client does that has read the table before the tick.
TEST_F(OwedLaunches, AreNotOwedTwiceIfTheirDueTimeIsSavedAgain) {
    for (const std::uint32_t period : {0U, 24U}) {
        fs::remove("log");
        WriteFile(cRefusal, "");
        CHost host;
        const TRow row = Refuse(host, period);
        ReplaceTable({row});
        WakeWorker();
        WaitUntil([&] { return ReadFile(cTable) != BytesOf({row}); });
        Permit();
        WaitUntil([&] { return CountIn("files/owed") == 0; });
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(Lines("log").size(), 1U) << host.Output();
    }
}

TEST_F(OwedLaunches, OfATaskThatIsMadeDueAgainWithAnotherParameterAreMadeWithThat) {
    CHost host;
    const TRow row = Refuse(host, 24);
    const TToolRun edit = RunTool({"edit", row.name, "--at", '@' + std::to_string(row.next),
                                   "--every", "1d", "--parameter", "another log"},
                                  cPermitted);
    EXPECT_EQ(edit.status, 0) << edit.error;
    Permit();
    WaitUntil([] { return fs::exists("another log"); });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_FALSE(fs::exists("log")) << host.Output();
    EXPECT_EQ(Lines("another log").size(), 1U) << host.Output();
}

TEST_F(OwedLaunches, AreMadeByTheNextHost) {
    for (const int end : {SIGKILL, SIGTERM}) {
        fs::remove_all("files");
        fs::remove("log");
        WriteFile(cRefusal, "");
        CHost host;
        Refuse(host);
        host.Kill(end);
        host.Wait();
        Permit();
        CHost next;
        EXPECT_TRUE(next.WaitForOutput("exited with status 0")) << next.Output();
        EXPECT_EQ(next.Stop(), 0);
        ExpectNothingOwed();
    }
}

TEST_F(OwedLaunches, AreMadeByAHostThatRunsOnce) {
    LeaveDue(0);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_TRUE(host.WaitForOutput("as soon as the system has a process")) << host.Output();
    Permit();
    EXPECT_EQ(host.Wait(), 0);
    ExpectNothingOwed();
}

// A direct client that exits normally removes the mutex; the worker, which would make it anew, has
// ended.
TEST_F(OwedLaunches, AreMadeByAHostThatRunsOnceUnderANewStoreMutex) {
    LeaveDue(0);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_TRUE(host.WaitForOutput("as soon as the system has a process")) << host.Output();
    const auto attempts = fs::file_size(cRefusal);
    WaitUntil([&] { return fs::file_size(cRefusal) > attempts; });
    ASSERT_EQ(semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID), 0);
    Permit();
    EXPECT_EQ(host.Wait(), 0);
    ExpectNothingOwed();
    EXPECT_FALSE(StoreSemaphoreExists());
}

// ---- A task that is changed meanwhile ------------------------------------------------------------

namespace {

struct TMeanwhile {
    std::vector<std::string> command;
    std::string reason;
};

const std::vector<TMeanwhile> cMeanwhile = {
    {{"remove", "a task"}, "the task was removed"},
    {{"pause", "a task"}, "the task was paused"},
    {{"edit", "a task", "--program", "/bin/true"}, "the program of the task was changed"},
    {{"edit", "a task", "--parameter", "other"}, "the program of the task was changed"},
};

}  // namespace

TEST_F(OwedLaunches, OfATaskThatWasChangedMeanwhileAreNotMade) {
    for (const auto& [command, reason] : cMeanwhile) {
        fs::remove_all("files");
        WriteFile(cRefusal, "");
        CHost host;
        Refuse(host, 24);
        const TToolRun run = RunTool(command, cPermitted);
        EXPECT_EQ(run.status, 0) << run.error;
        Permit();
        EXPECT_TRUE(host.WaitForOutput("is cancelled: " + reason)) << host.Output();
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("is cancelled"), 1U) << host.Output();
        ExpectCancelled(reason);
    }
}

TEST_F(OwedLaunches, OfATaskThatWasChangedWhileNoHostRanAreNotMade) {
    for (const auto& [command, reason] : cMeanwhile) {
        fs::remove_all("files");
        WriteFile(cRefusal, "");
        RefuseAndKill(24);
        const TToolRun run = RunTool(command, cPermitted);
        EXPECT_EQ(run.status, 0) << run.error;
        Permit();
        CHost next;
        EXPECT_TRUE(next.WaitForOutput("is cancelled: " + reason)) << next.Output();
        EXPECT_EQ(next.Stop(), 0);
        ExpectCancelled(reason);
    }
}

// A new name would cancel the launch.
TEST_F(OwedLaunches, OfATaskKeepItFromBeingRenamedUntilTheyAreMade) {
    CHost host;
    Refuse(host, 24);
    const std::vector<std::string> rename = {"edit", "a task", "--name", "renamed"};
    const TToolRun refused = RunTool(rename, cPermitted);
    EXPECT_EQ(refused.status, 1);
    EXPECT_NE(refused.error.find("is owed"), std::string::npos) << refused.error;
    EXPECT_EQ(NamesInTable(), "a task");
    Permit();
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    WaitUntil([] { return CountIn("files/owed") == 0; });
    const TToolRun made = RunTool(rename, cPermitted);
    EXPECT_EQ(made.status, 0) << made.error;
    EXPECT_EQ(NamesInTable(), "renamed");
    EXPECT_EQ(host.Stop(), 0);
    ExpectNothingOwed();
}

TEST_F(OwedLaunches, OfATaskThatIsPausedAreNotWaitedForByAHostThatRunsOnce) {
    const std::int64_t due = LeaveDue(24);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_TRUE(host.WaitForOutput("as soon as the system has a process")) << host.Output();
    WaitUntil([&] { return ReadTable()[0].next != due; });
    const TToolRun run = RunTool({"pause", "a task"}, cPermitted);
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(host.Wait(), 0);
    ExpectCancelled("the task was paused");
}

TEST_F(OwedLaunches, OfATaskWithAnotherDueTimeOrPeriodAreMade) {
    CHost host;
    Refuse(host, 24);
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"edit", "a task", "--at", "2090-01-01 00:00"}, {"period", "a task", "2d"}}) {
        const TToolRun run = RunTool(command, cPermitted);
        EXPECT_EQ(run.status, 0) << run.error;
    }
    Permit();
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    ExpectNothingOwed();
}

// The guard restores the task.
TEST_F(OwedLaunches, OfATaskThatTheTableLosesAreMade) {
    CHost host;
    Refuse(host, 24);
    const std::string table = ReadFile(cTable);
    // The guard restores only what it has read, after the tick.
    WaitUntil([&] { return IsInASnapshot(table); });
    WriteFile(cTable, "");
    Permit();
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    ExpectNothingOwed();
    EXPECT_EQ(ReadFile(cTable), table);
}

// ---- vxsched ------------------------------------------------------------------------------------

TEST_F(OwedLaunches, AreReportedByShowAndStatus) {
    const TRow daily = RefuseAndKill(24);
    const std::string due =
        nlohmann::json::parse(RunTool({"status", "--json"}).output).at("owed").at(0).at("due");
    EXPECT_EQ(
        nlohmann::json::parse(RunTool({"show", daily.name, "--json"}).output).at("task").at("owed"),
        nlohmann::json({due}));
    EXPECT_NE(RunTool({"status"}).output.find("Owed       a task, due "), std::string::npos);
    EXPECT_NE(RunTool({"show", daily.name}).output.find("Owed         the launch due "),
              std::string::npos);
    WriteTable({});
    const TToolRun gone = RunTool({"show", daily.name});
    EXPECT_NE(gone.error.find("there is no task \"a task\"; its launch is owed, due "),
              std::string::npos)
        << gone.error;
}

// ---- A startup ----------------------------------------------------------------------------------

// As after a kill between the refusal and the save of the table.
TEST_F(OwedLaunches, AreLeftToATableThatStillShowsThem) {
    const TRow row = RefuseAndKill();
    WriteTable({row});
    Permit();
    CHost next;
    EXPECT_TRUE(next.WaitForOutput("exited with status 0")) << next.Output();
    EXPECT_EQ(next.Stop(), 0);
    ExpectNothingOwed();
    EXPECT_EQ(ReadTable(), TRows());
}

// As after a kill between the launch and the removal of its file.
TEST_F(OwedLaunches, ThatWereMadeAreNotMadeAgain) {
    for (const bool hasRecord : {false, true}) {
        fs::remove_all("files");
        WriteFile(cRefusal, "");
        const TRow row = RefuseAndKill();
        const vxsched::TTime due{std::chrono::seconds(row.next)};
        if (hasRecord)
            WriteFile(LaunchRecordPath(
                          {.task = vxsched::FileNameOf(row.name), .due = due, .launched = {}}),
                      "");
        else
            WriteFile(
                OwedLaunchPath({.task = row.name, .due = due, .program = "", .parameter = ""}), "");
        Permit();
        CHost next;
        EXPECT_EQ(next.Stop(), 0);
        EXPECT_EQ(CountIn("files/owed"), 0U);
        EXPECT_FALSE(fs::exists("log"));
    }
}

// As after a kill while a file was written.
TEST_F(OwedLaunches, UnfinishedFilesAreRemovedAtAStartup) {
    fs::create_directories("files/owed");
    WriteFile("files/owed/a%20task@5.new-77", "abc");
    CHost host;
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountIn("files/owed"), 0U);
}

// As after a power failure that has lost the launch record and what was done to the owed launch's
// file: the launch was made or not.
TEST_F(OwedLaunches, WithAnIntentOfAnotherBootAreUnknownAndNotMade) {
    const TRow row = RefuseAndKill();
    WriteFile("boot-id", "another-boot\n");
    CLaunchIntents former("boot-id");
    former.Open();
    former.Clear();
    const TLaunchIntent intent{"a%20task", vxsched::TTime(std::chrono::seconds(row.next))};
    former.Intend(intent, [&] { return std::vector{intent}; });
    Permit();
    for (int startup = 1; startup <= 2; ++startup) {
        CHost next;
        EXPECT_EQ(next.CountInOutput("launch unknown after a power failure: task \"a task\", due "),
                  startup == 1 ? 1U : 0U)
            << next.Output();
        EXPECT_EQ(next.CountInOutput("its launch is owed"), 0U) << next.Output();
        EXPECT_EQ(next.Stop(), 0);
    }
    EXPECT_EQ(CountIn("files/owed"), 0U);
    EXPECT_FALSE(fs::exists("log"));
    EXPECT_NE(RunTool({"history"}).output.find("launch unknown, removed"), std::string::npos);
}
