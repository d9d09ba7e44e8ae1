// The store mutex while a real host runs: a wedged one is set free, any other is left alone.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include "host/recovery/CTableGuard.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/Layout.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "Tool.h"
#include "WedgedMutex.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

static constexpr char cSetFree[] = "it is set free";

// What a load of the add-in does to the table's file, as far as the host can see.
static void OpenTheTable() {
    WriteTable(ReadTable());
}

TEST(HostMutexWatch, MutexThatIsWedgedAfterALoadIsSetFreeAndLogged) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        Wedge();
        OpenTheTable();
        EXPECT_TRUE(host.WaitForOutput(cSetFree)) << host.Output();
        WaitUntil([] { return StoreSemaphoreValue() == 1; });
        WakeWorker();
        WaitUntil(WorkerIsIdle);
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput(cSetFree), 1U) << host.Output();
        EXPECT_EQ(ReadTable(), cThree);
    });
}

TEST(HostMutexWatch, MutexThatTheWorkerWaitsForIsSetFree) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        Wedge();
        WakeWorker();
        EXPECT_TRUE(host.WaitForOutput(cSetFree)) << host.Output();
        // The guard may hold it for a moment: it tries to check the table once the worker waits.
        WaitUntil([] { return WorkerIsIdle() && StoreSemaphoreValue() == 1; });
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(HostMutexWatch, MutexThatLetsSeveralInIsSetToLetInOne) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        Change(semget(cStoreKey, 1, 0), 2, 0);
        OpenTheTable();
        EXPECT_TRUE(host.WaitForOutput("let 3 processes in at once")) << host.Output();
        WaitUntil([] { return StoreSemaphoreValue() == 1; });
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_FALSE(StoreSemaphoreExists());
    });
}

TEST(HostMutexWatch, ProcessThatMayHoldItIsLoggedOnceAndItsEndHealsIt) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        {
            const CProgram other(LoadAndSleep());
            WaitUntil([] { return fs::exists("ready"); });
            Wedge();
            WakeWorker();
            EXPECT_TRUE(host.WaitForOutput("the store mutex is not released: process " +
                                           std::to_string(other.Id())))
                << host.Output();
            // Three more checks.
            std::this_thread::sleep_for(std::chrono::seconds(3));
            EXPECT_EQ(StoreSemaphoreValue(), 0);
        }
        EXPECT_TRUE(host.WaitForOutput(cSetFree)) << host.Output();
        WaitUntil(WorkerIsIdle);
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("the store mutex is not released"), 1U) << host.Output();
    });
}

TEST(HostMutexWatch, MutexThatLetsSeveralInIsHealedAfterTheEndOfAProcessThatMayHoldIt) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        {
            const CProgram other(LoadAndSleep());
            WaitUntil([] { return fs::exists("ready"); });
            Change(semget(cStoreKey, 1, 0), 2, 0);
            OpenTheTable();
            // Until a check has found that process.
            std::this_thread::sleep_for(std::chrono::seconds(5));
            EXPECT_EQ(StoreSemaphoreValue(), 3);
        }
        EXPECT_TRUE(host.WaitForOutput("let 3 processes in at once")) << host.Output();
        EXPECT_EQ(host.Stop(), 0);
    });
}

// Before the guard watches the table's file.
TEST(HostMutexWatch, MutexThatWasWedgedDuringTheStartupIsHealed) {
    Inspectable([] {
        WriteTable(cThree);
        Change(MakeStoreMutex(), 2, 0);
        CEvent healed(vxsched::cStopEventName, false);
        CForkedChild observer([&] {
            WaitUntil([] { return StoreSemaphoreValue() == 1; });
            healed.SetEvent();
            return 0;
        });
        CTableGuard guard(0);
        guard.Begin();
        // A thread that waits for an event does not hold the mutex, unlike one that only sleeps.
        healed.Wait(-1);
        EXPECT_EQ(observer.Wait(), 0);
    });
}

TEST(HostMutexWatch, LongTickIsNoWedge) {
    Inspectable([] {
        TRows rows;
        for (const char* name : {"a", "b", "c"})
            rows.push_back({name, cFar, 0, 24, PROGRAMS "/append-text", name, 0});
        WriteTable(rows);
        CHost host;
        for (auto& row : rows)
            row.next = std::time(nullptr);
        ReplaceTable(rows);
        WakeWorker();
        WaitUntil([] { return fs::exists("c"); });
        WaitUntil(WorkerIsIdle);
        // The guard's check takes the mutex as well.
        WaitUntil([] { return StoreSemaphoreValue() == 1; });
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("store mutex"), 0U) << host.Output();
    });
}

// ---- With vxsched -------------------------------------------------------------------------------

// Runs the command with --json.
static void ExpectInJson(std::vector<std::string> command, const std::string& part) {
    command.emplace_back("--json");
    const std::string output = RunTool(command).output;
    EXPECT_NE(output.find(part), std::string::npos) << output;
}

TEST(WedgedMutex, IsSetFreeByAChangeThatWaitsForIt) {
    Inspectable([] {
        WriteTable(cThree);
        Wedge();
        const TToolRun run = RunTool({"pause", "first"});
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(ReadTable().at(0).paused, 1U);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    });
}

TEST(WedgedMutex, IsSetFreeByAChangeWhileAHostRuns) {
    Inspectable([] {
        WriteTable(cThree);
        CHost host;
        Wedge();
        const TToolRun run = RunTool({"pause", "first"});
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(ReadTable().at(0).paused, 1U);
        WaitUntil(WorkerIsIdle);
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(WedgedMutex, IsSetFreeByARepair) {
    Inspectable([] {
        WriteTable(cThree);
        Wedge();
        const TToolRun run = RunTool({"repair"});
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_NE(run.output.find(cSetFree), std::string::npos) << run.output;
        EXPECT_NE(run.output.find("nothing to repair"), std::string::npos) << run.output;
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    });
}

TEST(WedgedMutex, OfWhichAProcessMayBeTheHolderIsReportedByARepair) {
    Inspectable([] {
        WriteTable(cThree);
        MakeStoreMutex();
        const CProgram other(LoadAndSleep());
        WaitUntil([] { return fs::exists("ready"); });
        Wedge();
        const TToolRun run = RunTool({"--lock-timeout", "4", "repair"});
        EXPECT_NE(run.status, 0);
        EXPECT_NE(run.error.find("process " + std::to_string(other.Id())), std::string::npos)
            << run.error;
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

TEST(WedgedMutex, IsNotAssumedByARepairThatMayNotWait) {
    Inspectable([] {
        WriteTable(cThree);
        Wedge();
        const TToolRun run = RunTool({"--lock-timeout", "0", "repair"});
        EXPECT_EQ(run.status, 1);
        EXPECT_NE(run.error.find("within 0 ms; nothing was changed: a wedged one is set free once "
                                 "it was seen unchanged for 2000 ms"),
                  std::string::npos)
            << run.error;
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

// A client that makes a change may hold the mutex in any of its waits.
TEST(WedgedMutex, IsNotAssumedByStatusDuringAChange) {
    Inspectable([] {
        WriteTable(cThree);
        Wedge();
        const vxsched::CWriterLock change(".", 0ms);
        const std::string output = RunTool({"--lock-timeout", "0", "status"}).output;
        EXPECT_NE(output.find("Mutex      held by process "), std::string::npos) << output;
        EXPECT_EQ(output.find("may hold it"), std::string::npos) << output;
    });
}

// Its maker was killed before it gave the set a value.
TEST(AbandonedMutex, IsReportedByStatusWithTheRemedyAndLeftAlone) {
    WriteTable(cThree);
    ASSERT_NE(semget(cStoreKey, 1, IPC_CREAT | 0660), -1);
    const vxsched::CWriterLock change(".", 0ms);
    const TToolRun run = RunTool({"status"});
    const std::string problem =
        "made, but never given a value, and cannot be taken; run vxsched repair";
    EXPECT_NE(run.output.find("Mutex      " + problem), std::string::npos) << run.output;
    EXPECT_EQ(run.status, 1);
    ExpectInJson({"status"}, "\"mutex_problem\": \"" + problem + '"');
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

TEST(HeldMutex, IsNoProblemToStatus) {
    ASSERT_TRUE(DropGainedCapabilities());
    WriteTable(cThree);
    MakeStoreMutex();
    const vxsched::CStoreMutexLock tick(10s);
    ExpectInJson({"--lock-timeout", "0", "status"}, "\"mutex\": 0");
    ExpectInJson({"--lock-timeout", "0", "status"}, "\"mutex_problem\": null");
    EXPECT_EQ(RunTool({"--lock-timeout", "0", "status"}).status, 1) << "the table was not read";
}

TEST(AbandonedMutex, IsGivenItsValueByARepair) {
    WriteTable(cThree);
    ASSERT_NE(semget(cStoreKey, 1, IPC_CREAT | 0660), -1);
    const TToolRun run = RunTool({"repair"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_NE(RunTool({"status"}).output.find("3 tasks in "), std::string::npos);
}

TEST(WedgedMutex, IsReportedByStatusWithTheRemedyAndLeftAlone) {
    Inspectable([] {
        WriteTable(cThree);
        Wedge();
        const std::string problem = "held by no process, and cannot be taken; run vxsched repair";
        const TToolRun run = RunTool({"status"});
        EXPECT_NE(run.output.find("Mutex      " + problem), std::string::npos) << run.output;
        EXPECT_EQ(run.status, 1) << "no permission is lacking";
        ExpectInJson({"status"}, "\"mutex_problem\": \"" + problem + '"');
        EXPECT_EQ(StoreSemaphoreValue(), 0);
        const CProgram other(LoadAndSleep());
        WaitUntil([] { return fs::exists("ready"); });
        Wedge();
        const std::string output = RunTool({"--lock-timeout", "0", "status"}).output;
        const std::string holder = "process " + std::to_string(other.Id()) + ' ';
        EXPECT_NE(output.find(holder), std::string::npos) << output;
        ExpectInJson({"--lock-timeout", "0", "status"}, holder);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}
