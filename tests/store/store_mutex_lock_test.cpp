// The store mutex as clients take it: without a store, while another process holds it, and when the
// holder dies.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/CStoreMutexLock.h"
#include "store/TableFile.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>

#include "ClientError.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;

TEST(ClientLock, WithoutAStoreNothingIsHeldAndNothingMade) {
    const CStoreMutexLock lock(0ms);
    EXPECT_FALSE(lock.IsHeld());
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

static int MakeStore(int value) {
    const int set = semget(cStoreKey, 1, IPC_CREAT | 0660);
    semctl(set, 0, SETVAL, value);
    return set;
}

TEST(ClientLock, TakesAndReleasesTheMutex) {
    MakeStore(1);
    {
        const CStoreMutexLock lock(0ms);
        EXPECT_TRUE(lock.IsHeld());
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(ClientLock, ForgottenOneIsNotReleased) {
    const int set = MakeStore(1);
    {
        CStoreMutexLock lock(0ms);
        semctl(set, 0, SETVAL, 1);
        lock.Forget();
        EXPECT_FALSE(lock.IsHeld());
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(ClientLock, LoadOfAnotherProcessMeanwhileIsTheRelease) {
    const int set = MakeStore(1);
    {
        const CStoreMutexLock lock(0ms);
        semctl(set, 0, SETVAL, 1);
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// The holder before the load releases the mutex while this process holds it, and ends after that.
TEST(ClientLock, ReleaseOfAFormerHolderMeanwhileIsNotTakenForALoad) {
    const int set = MakeStore(1);
    CForkedChild former([&] {
        sembuf take{0, -1, SEM_UNDO};
        sembuf release{0, 1, SEM_UNDO};
        semop(set, &take, 1);
        WaitUntil([] { return std::filesystem::exists("release"); });
        semop(set, &release, 1);
        WaitUntil([] { return std::filesystem::exists("end"); });
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    semctl(set, 0, SETVAL, 1);
    {
        const CStoreMutexLock lock(0ms);
        WriteFile("release", "");
        WaitUntil([] { return StoreSemaphoreValue() == 1; });
    }
    WriteFile("end", "");
    former.Wait();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(ClientLock, BytesOfTheTableAreReadWithoutIt) {
    MakeStore(0);
    EXPECT_EQ(vxsched::ReadTableBytes("."), std::string(8, '\0'));
    std::filesystem::create_directory("files");
    WriteFile(cTable, "any bytes");
    EXPECT_EQ(vxsched::ReadTableBytes("."), "any bytes");
}

TEST(ClientLock, HolderIsReportedOnATimeoutAndNotInterrupted) {
    const int set = MakeStore(1);
    CForkedChild holder([&] {
        sembuf take{0, -1, SEM_UNDO};
        semop(set, &take, 1);
        for (;;)
            pause();
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    const std::string message = ErrorOf(EError::cBusy, [] { const CStoreMutexLock lock(1ms); });
    EXPECT_EQ(message, "the store mutex is held, last by process " + std::to_string(holder.Id()) +
                           ", and did not become free within 1 ms");
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    ErrorOf(EError::cBusy, [] { vxsched::ReadTable(".", 0ms); });
    holder.Kill(SIGKILL);
    holder.Wait();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(ClientLock, DeadClientReleasesIt) {
    MakeStore(1);
    CForkedChild client([] {
        const CStoreMutexLock lock(0ms);
        raise(SIGKILL);
        return 0;
    });
    client.Wait();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(ClientLock, StoreThatGoesAwayWhileItIsWaitedForIsNoStore) {
    const int set = MakeStore(0);
    CForkedChild client([] {
        const CStoreMutexLock lock(1h);
        return lock.IsHeld() ? 1 : 42;
    });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    semctl(set, 0, IPC_RMID);
    EXPECT_EQ(client.Wait(), 42);
}

TEST(ClientLock, MissingAccessSaysWhatToDo) {
    ASSERT_NE(semget(cStoreKey, 1, IPC_CREAT), -1);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        const std::string message =
            ErrorOf(EError::cNoAccess, [] { const CStoreMutexLock lock(0ms); });
        EXPECT_EQ(message,
                  "cannot take the store mutex: Permission denied; run as the user, or in the "
                  "group, of the scheduling process");
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
