// What a real host does on signals other than those that stop it.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "StoreSemaphore.h"
#include "Tool.h"

// Only the signal makes this worker tick: its wait of a minute has no end, and the timer of due
// times follows the system's clock, by which the task is due in decades.
TEST(HostSignals, Usr1TicksAtOnce) {
    for (const auto& [name, value] : AtTime(cFar))
        setenv(name.c_str(), value.c_str(), 1);
    setenv("ENDLESS_MINUTES", "1", 1);
    CHost host;
    ReplaceTable({{"task", cFar, 0, 1, PROGRAMS "/end-with", "status 0", 0}});
    host.Kill(SIGUSR1);
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.CountInOutput("SIGUSR1: ticking now"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

static int CountWaitersForTheMutex() {
    return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT);
}

// The system ends the worker's wait early, as it does when the machine sleeps.
TEST(HostSignals, StopAndContinuationLeaveTheWorkerWaitingForTheMutex) {
    CHost host;
    {
        const vxsched::CStoreMutexLock lock(std::chrono::seconds(10));
        host.Kill(SIGUSR1);
        WaitUntil([] { return CountWaitersForTheMutex() == 1; });
        host.Kill(SIGSTOP);
        WaitUntil([] { return CountWaitersForTheMutex() == 0; });
        host.Kill(SIGCONT);
        WaitUntil([] { return CountWaitersForTheMutex() == 1 || StoreSemaphoreValue() != 0; });
        EXPECT_EQ(StoreSemaphoreValue(), 0) << "only its holder releases it";
    }
    WaitUntil([] { return WorkerIsIdle() && StoreSemaphoreValue() == 1; });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostSignals, HupWithoutALogFileChangesNothing) {
    CHost host;
    host.Kill(SIGHUP);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("reopened"), 0U) << host.Output();
}

TEST(HostSignals, HupReopensTheLog) {
    std::filesystem::create_directory("work");
    // The path is relative to the caller's working directory, not to the host's.
    CProgram host({HOST_PROGRAM, "--directory", "work", "--log", "log"});
    const std::string work = std::filesystem::absolute("work");
    WaitUntil([&] { return LogHolds("log", "running in " + work + " as ") && WorkerIsIdle(); });
    std::filesystem::rename("log", "log.old");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("log", "reopened the log"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(ReadFile("log").ends_with(" vxschedd: stopped\n")) << ReadFile("log");
    EXPECT_FALSE(LogHolds("log.old", "reopened"));
    EXPECT_EQ(host.Output(), "");
}

TEST(HostSignals, LogThatCannotBeReopenedIsKept) {
    std::filesystem::create_directory("directory");
    CProgram host(HostWith({"--log", "directory/log"}));
    WaitUntil([] { return LogHolds("directory/log", "running in") && WorkerIsIdle(); });
    std::filesystem::rename("directory", "moved");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("moved/log", "directory/log: No such file or directory"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}
