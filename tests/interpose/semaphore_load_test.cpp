// The interposed semctl(): a load of the add-in by a process that has taken the store mutex.

#include <gtest/gtest.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>
#include "interpose/SemaphoreLoad.h"

#include <csignal>
#include <cstddef>
#include <new>

#include "Process.h"
#include "StoreSemaphore.h"

static constexpr char cName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";

static void Take(int set) {
    sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
    ASSERT_EQ(semop(set, &take, 1), 0);
}

// What each load of the add-in does. The mutex is never destroyed, which would remove the set.
static void Load() {
    alignas(CMutex) static std::byte place[sizeof(CMutex)];
    new (place) CMutex(cName);
}

TEST(SemaphoreLoad, ReleasesWhatThisProcessHolds) {
    const int set = MakeStoreMutex();
    Take(set);
    ReleaseAtLoad(set);
    Load();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    Take(set);
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

TEST(SemaphoreLoad, LeavesAnotherProcessesHoldAlone) {
    const int set = MakeStoreMutex();
    Take(set);
    Load();  // as a direct client does
    CForkedChild holder([&] {
        Take(set);
        WriteFile("held", "");
        pause();
        return 0;
    });
    WaitUntil([] { return access("held", F_OK) == 0; });
    ReleaseAtLoad(set);
    Load();
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    holder.Kill(SIGKILL);
    holder.Wait();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(SemaphoreLoad, SetsEveryOtherValue) {
    const int set = MakeStoreMutex();
    Take(set);
    ReleaseAtLoad(set);
    ReleaseAtLoad(-1);
    Load();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    ASSERT_EQ(semctl(set, 0, SETVAL, 5), 0);
    EXPECT_EQ(semctl(set, 0, GETVAL), 5);
}

TEST(SemaphoreLoad, HealsAMutexThatLetsSeveralIn) {
    const int set = MakeStoreMutex();
    ASSERT_EQ(semctl(set, 0, SETVAL, 3), 0);
    Take(set);
    ReleaseAtLoad(set);
    Load();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}
