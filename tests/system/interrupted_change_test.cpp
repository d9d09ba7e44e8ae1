// Changes that are cut short - the command interrupted or stopped, its change process killed - or
// that meet a tick: what the command reports is what the table shows.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include <vxsched/Table.h>
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

static const std::string cRecorder = PROGRAMS "/record-launch";

#ifdef PLAIN_BUILD
static constexpr int cIterations = 200;
#else
static constexpr int cIterations = 40;
#endif

static std::unique_ptr<CProgram> Start(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {TOOL_PROGRAM};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return std::make_unique<CProgram>(command);
}

static void SleepUpTo(std::chrono::microseconds most, std::mt19937& random) {
    std::uniform_int_distribution<long> choose(0, most.count());
    std::this_thread::sleep_for(std::chrono::microseconds(choose(random)));
}

static bool IsPaused(const std::string& name) {
    const vxsched::CWriterLock noChange(".", 60s);
    return vxsched::ReadTable(".", 60s).Find(name)->paused;
}

// ---- What is reported -------------------------------------------------------------------------

// Pauses and resumes a task in turn; `cut` cuts the command short. The status and the table have to
// agree whenever.
template <typename Cut>
static void PauseAndResume(const Cut& cut) {
    WriteTable(cThree);
    bool isPaused = false;
    for (int iteration = 0; iteration < cIterations; ++iteration) {
        const bool wanted = !isPaused;
        const std::unique_ptr<CProgram> command = Start({wanted ? "pause" : "resume", "second"});
        cut(*command);
        const int status = command->Wait();
        isPaused = IsPaused("second");
        if (status == 0) {
            ASSERT_EQ(isPaused, wanted) << command->Output();
        } else {
            ASSERT_TRUE(status == 1 || status == 1000 + SIGINT) << status << command->Output();
            ASSERT_EQ(isPaused, !wanted) << command->Output();
        }
    }
}

TEST(InterruptedChange, IsReportedAsItIsWhenItsProcessIsKilled) {
    std::mt19937 random(1);
    PauseAndResume([&](const CProgram& command) {
        SleepUpTo(12ms, random);
        if (const std::optional<pid_t> child = ChildOf(command.Id()))
            kill(*child, SIGKILL);
    });
}

TEST(InterruptedChange, IsCancelledBeforeItBeginsAndMadeAfterwards) {
    std::mt19937 random(2);
    PauseAndResume([&](const CProgram& command) {
        SleepUpTo(12ms, random);
        command.Kill(SIGINT);
    });
}

TEST(InterruptedChange, IsCancelledWhileItWaitsForALock) {
    WriteTable(cThree);
    EXPECT_EQ(RunTool({"pause", "first"}).status, 0);
    std::unique_ptr<CProgram> command;
    pid_t child = 0;
    {
        const vxsched::CStoreMutexLock holder(10s);
        command = Start({"pause", "second"});
        WaitUntil([&] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 1; });
        child = ChildOf(command->Id()).value();
        command->Kill(SIGINT);
        EXPECT_EQ(command->Wait(), 1000 + SIGINT);
    }
    WaitUntil([&] { return HasEnded(child); });
    EXPECT_FALSE(IsPaused("second"));
}

// A command that is stopped (Ctrl-Z) while its change is prepared keeps others out for seconds at
// most.
TEST(InterruptedChange, OfAStoppedCommandIsGivenUp) {
    WriteTable(cThree);
    EXPECT_EQ(RunTool({"pause", "first"}).status, 0);
    std::unique_ptr<CProgram> command;
    {
        const vxsched::CStoreMutexLock holder(10s);
        command = Start({"pause", "second"});
        WaitUntil([&] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 1; });
        command->Kill(SIGSTOP);
    }
    EXPECT_EQ(RunTool({"pause", "third"}).status, 0);
    command->Kill(SIGCONT);
    EXPECT_EQ(command->Wait(), 1);
    EXPECT_THAT(command->Output(), testing::HasSubstr("the client was stopped"));
    EXPECT_FALSE(IsPaused("second"));
}

// One whose table is larger than what a socket holds, and which is stopped once its change has
// begun.
TEST(InterruptedChange, OfAStoppedCommandDoesNotKeepTheLocks) {
    TRows rows = cThree;
    rows[0].parameters = std::string(4'000'000, 'p');
    WriteTable(rows);
    bool isPaused = false;
    std::mt19937 random(3);
    for (int iteration = 0; iteration < 4; ++iteration) {
        const std::unique_ptr<CProgram> command = Start({isPaused ? "resume" : "pause", "second"});
        SleepUpTo(30ms, random);
        command->Kill(SIGSTOP);
        { const vxsched::CWriterLock others(".", 60s); }
        command->Kill(SIGCONT);
        const int status = command->Wait();
        EXPECT_TRUE(status == 0 || status == 1) << command->Output();
        ASSERT_EQ(IsPaused("second"), status == 0 ? !isPaused : isPaused) << command->Output();
        isPaused = IsPaused("second");
    }
}

TEST(InterruptedChange, WaitForARunEndsAndTheProgramGoesOn) {
    // No other test's process has this parameter: it would count as the task's.
    WriteTable({{"waits", cFar, 0, 24, PROGRAMS "/wait-for-it", fs::absolute("end it"), 0}});
    const std::unique_ptr<CProgram> command = Start({"run", "waits", "--wait"});
    ASSERT_TRUE(command->WaitForOutput("started waits as process"));
    command->Kill(SIGINT);
    EXPECT_EQ(command->Wait(), 1000 + SIGINT);
    EXPECT_THAT(command->Output(), testing::HasSubstr("interrupted; process "));
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

// ---- A tick -----------------------------------------------------------------------------------

// What a direct client's load does first.
static void SetMutexFree() {
    union {
        int val;
        void* other;
    } free{.val = 1};
    ASSERT_EQ(semctl(semget(cStoreKey, 1, 0), 0, SETVAL, free), 0);
}

// What a direct client's load does: it sets the mutex free, and reschedules what is due.
static void LoadDirectly(TRows rows) {
    SetMutexFree();
    for (TRow& row : rows)
        row.next = cFar;
    WriteTable(rows);
}

// The tick saves its own list after the pause.
TEST(ChangeDuringATick, IsNotOverwrittenWhenADirectClientHasSetTheMutexFree) {
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}, Row("second")});
    CHost host(HostThatPauses());
    LoadDirectly(StartTheOnlyTask());
    const TToolRun create = RunTool({"create", "new", "--at", "in 1h", "--", cRecorder});
    EXPECT_EQ(create.status, 0) << create.error;
    const TToolRun pause = RunTool({"pause", "second"});
    EXPECT_EQ(pause.status, 0) << pause.error;
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "due second new");
    EXPECT_EQ(ReadTable()[1].paused, 1U);
    EXPECT_NE(ReadTable()[0].last, 0);
}

// Pauses "second" in a process of its own. Between the checks of the change and its calls the only
// other task comes due, and the worker waits for the mutex, which the load sets free: the calls have
// to wait for the tick's end, or for a direct client's load.
static int PauseAsATickBegins(std::chrono::milliseconds lockTimeout) {
    bool isFirst = true;
    const auto makeDue = [&] {
        if (!std::exchange(isFirst, false))
            return;
        TRows rows = ReadTable();
        rows.at(0).next = std::time(nullptr);
        WriteTable(rows);
        WakeChanged();
        // The worker and the table guard.
        WaitUntil([] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 2; });
    };
    const vxsched::CStore store({.lockTimeout = lockTimeout, .onBegin = makeDue});
    try {
        store.Pause({"second"});
        return 0;
    } catch (const vxsched::CError& error) {
        WriteFile("error", error.what());
        return static_cast<int>(error.Code());
    }
}

static const TRows cDueAndSecond = {{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0},
                                    Row("second")};

static void WaitForTheLaunch() {
    WaitUntil([] { return fs::exists("log"); });
}

// The client is stopped, so that it checks the change only after the tick has overwritten it.
TEST(ChangeDuringATick, IsMadeAgainIfTheTickEndsBeforeTheClientChecks) {
    WriteTable(cDueAndSecond);
    CHost host(HostThatPauses());
    CForkedChild client([] { return PauseAsATickBegins(60s); });
    WaitForTheLaunch();
    const pid_t changing = ChildOf(client.Id()).value();
    client.Kill(SIGSTOP);
    SetMutexFree();
    WaitUntil([&] { return HasEnded(changing); });
    WaitUntil(WorkerIsIdle);
    client.Kill(SIGCONT);
    EXPECT_EQ(client.Wait(), 0) << ReadFile("error");
    EXPECT_TRUE(IsPaused("second"));
    EXPECT_NE(ReadTable()[0].last, 0) << "the tick has saved";
    EXPECT_EQ(host.Stop(), 0);
}

// The change process is killed after it has saved, and the client settles the change during the tick.
TEST(ChangeDuringATick, IsMadeAgainIfItsProcessIsKilledAsWell) {
    WriteTable(cDueAndSecond);
    CHost host(HostThatPauses());
    CForkedChild client([] { return PauseAsATickBegins(60s); });
    WaitForTheLaunch();
    const pid_t changing = ChildOf(client.Id()).value();
    SetMutexFree();
    while (ReadTable()[1].paused == 0) {
    }
    kill(changing, SIGKILL);
    EXPECT_EQ(client.Wait(), 0) << ReadFile("error");
    WaitUntil(WorkerIsIdle);
    EXPECT_TRUE(IsPaused("second"));
    EXPECT_EQ(host.Stop(), 0);
}

static bool IsStopped(pid_t process) {
    const fs::path threads = "/proc/" + std::to_string(process) + "/task";
    const fs::directory_iterator all(threads);
    return std::all_of(begin(all), end(all), [](const fs::directory_entry& thread) {
        return ReadFile(thread.path() / "status").find("State:\tT") != std::string::npos;
    });
}

// The host stops itself in the middle of the tick, after the launch.
TEST(ChangeDuringATick, IsReportedAsNotVerifiedIfTheTickDoesNotEnd) {
    WriteTable(cDueAndSecond);
    setenv("LD_PRELOAD", INTERPOSED_SYSTEM, 1);
    setenv("STOP_IN_SLEEP", "1", 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    CHost host(HostThatPauses());
    unsetenv("LD_PRELOAD");
    CForkedChild client([] { return PauseAsATickBegins(3s); });
    // All of its threads: the guard's would take the mutex.
    WaitUntil([&] { return IsStopped(host.Id()); });
    SetMutexFree();
    EXPECT_EQ(client.Wait(), static_cast<int>(vxsched::EError::cUnknown));
    EXPECT_THAT(ReadFile("error"), testing::HasSubstr("the change was made"));
    EXPECT_EQ(ReadTable()[1].paused, 1U);
    host.Kill(SIGCONT);
    EXPECT_EQ(host.Stop(), 0);
}

// The tick changes the table that the import has read, so the import has to be tried again.
TEST(ChangeDuringATick, ImportIsNotOverwrittenEither) {
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}, Row("second")});
    CHost host(HostThatPauses());
    LoadDirectly(StartTheOnlyTask());
    const auto import = [] {
        return RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})");
    };
    EXPECT_THAT(import().error, testing::HasSubstr("the table changed during the import"));
    EXPECT_TRUE(WorkerIsIdle());
    EXPECT_NE(ReadTable()[0].last, 0) << "the tick has saved";
    EXPECT_EQ(import().status, 0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "");
}
