// A running host whose store mutex another process removes.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "store/CStoreMutexLock.h"

#include <filesystem>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "StoreSemaphore.h"

// A direct client that creates a task and exits normally, whose finalisers remove the store mutex.
RUN_AGAIN(CreateAndExitNormally) {
    const CAddinLibrary library;
    library.Create(arguments.at(0).c_str(), cFar, 24, "/bin/program", "");
    return 0;
}

// The host may have made it anew by the end of this.
static void LoseTheMutex() {
    const int lost = semget(cStoreKey, 1, 0);
    CProgram client(ThisProgramAs("CreateAndExitNormally", {"direct"}));
    EXPECT_EQ(client.Wait(), 0) << client.Output();
    EXPECT_NE(semget(cStoreKey, 1, 0), lost);
}

static void Tick() {
    WakeWorker();
    WaitUntil(
        [] { return StoreSemaphoreExists() && StoreSemaphoreValue() == 1 && WorkerIsIdle(); });
}

TEST(HostMutexLoss, NextTickMakesItAnewAndTheLossIsLoggedOnce) {
    WriteTable({});
    CHost host;
    LoseTheMutex();
    Tick();
    const int made = semget(cStoreKey, 1, 0);
    Tick();
    EXPECT_EQ(semget(cStoreKey, 1, 0), made);
    LoseTheMutex();
    Tick();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("the store mutex was removed"), 2U) << host.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0) << "a host that stops leaves nothing";
}

TEST(HostMutexLoss, TableIsRestoredOnlyUnderANewOne) {
    WriteTable(cThree);
    CHost host;
    LoseTheMutex();
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    EXPECT_TRUE(host.WaitForOutput("the table is restored")) << host.Output();
    const std::string log = host.Output();
    EXPECT_LT(log.find("the store mutex was removed"), log.find("the table is restored")) << log;
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostMutexLoss, TicksExcludeOthersAgain) {
    WriteTable({});
    CHost host;
    LoseTheMutex();
    Tick();
    {
        const vxsched::CStoreMutexLock lock(std::chrono::seconds(10));
        EXPECT_TRUE(lock.IsHeld());
        WakeWorker();
        WaitUntil([] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 1; });
    }
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostMutexLoss, TickDuringWhichItIsLostReleasesNoOther) {
    WriteTable({{"task", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host(HostThatPauses());
    StartTheOnlyTask();
    semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID);
    MakeStoreMutex();
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(host.Stop(), 0);
    // Not before: the guard takes it after the tick's save.
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(StoreSemaphoreExists()) << "the host did not make it";
}
