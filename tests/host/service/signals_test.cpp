// What a real host does on signals other than those that stop it.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>

#include "HostProgram.h"
#include "StoreSemaphore.h"

TEST(HostSignals, Usr1TicksAtOnce) {
    CHost host;
    ReplaceTable({{"task", std::time(nullptr), 0, 1, PROGRAMS "/end-with", "status 0", 0}});
    host.Kill(SIGUSR1);
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.CountInOutput("ticking at once on SIGUSR1"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

static int CountWaitersForTheMutex() {
    return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT);
}

// Also what happens when the machine sleeps: the system ends the worker's wait early.
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
        EXPECT_EQ(StoreSemaphoreValue(), 0) << "nobody but its holder gives it back";
    }
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostSignals, HupWithoutALogFileChangesNothing) {
    CHost host;
    host.Kill(SIGHUP);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("anew"), 0U) << host.Output();
}

TEST(HostSignals, HupOpensTheLogAnew) {
    std::filesystem::create_directory("work");
    // The path is the caller's, not that of the directory that the host works in.
    CProgram host({HOST_PROGRAM, "--directory", "work", "--log", "log"});
    WaitUntil([] { return LogHolds("log", "running in work") && WorkerIsIdle(); });
    std::filesystem::rename("log", "log.old");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("log", "opened the log anew"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(ReadFile("log").ends_with(" vxschedd: stopped\n")) << ReadFile("log");
    EXPECT_FALSE(LogHolds("log.old", "anew"));
    EXPECT_EQ(host.Output(), "");
}

TEST(HostSignals, LogThatCannotBeOpenedAnewIsKept) {
    std::filesystem::create_directory("folder");
    CProgram host(HostWith({"--log", "folder/log"}));
    WaitUntil([] { return LogHolds("folder/log", "running in") && WorkerIsIdle(); });
    std::filesystem::rename("folder", "moved");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("moved/log", "folder/log: No such file or directory"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}
