// The interposed semop(): the add-in's mutex on a set that another process removes.

#include <gtest/gtest.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "interpose/SemaphoreWait.h"

#include <atomic>
#include <thread>

#include "Process.h"
#include "StoreSemaphore.h"

static constexpr char cName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";

static std::atomic<int> gReplacements{0};
static std::atomic<int> gWaits{0};

static int Replace(int /*removed*/) noexcept {
    ++gReplacements;
    return MakeStoreMutex();
}

static int ReplaceByNothing(int /*removed*/) noexcept {
    return -1;
}

static void CountWait() noexcept {
    ++gWaits;
}

static int Value(int set) {
    return semctl(set, 0, GETVAL);
}

static void RemoveSet() {
    ASSERT_EQ(semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID), 0);
}

class FollowedSet : public testing::Test {
protected:
    FollowedSet() {
        FollowNextLockedSet({Replace, CountWait});
        mutex.Lock();
        mutex.Unlock();
    }

    CMutex mutex{cName};
};

TEST_F(FollowedSet, IsReplacedByTheNextLockAfterItsRemoval) {
    RemoveSet();
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(gReplacements, 1);
}

TEST_F(FollowedSet, IsReplacedForAThreadThatWaits) {
    mutex.Lock();
    std::thread waiter([&] {
        mutex.Lock();
        mutex.Unlock();
    });
    WaitUntil([] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 1; });
    RemoveSet();
    waiter.join();
    EXPECT_EQ(gReplacements, 1);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(mutex.Unlock(), -1) << "the set on which this thread locked is gone";
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(FollowedSet, ReleaseAfterItsRemovalFailsAndLetsNobodyIn) {
    mutex.Lock();
    RemoveSet();
    MakeStoreMutex();
    EXPECT_EQ(mutex.Unlock(), -1);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_EQ(StoreSemaphoreValue(), 0) << "on the set that another process has made";
}

TEST_F(FollowedSet, ReleaseAfterALoadOfAnotherProcessLetsNobodyIn) {
    mutex.Lock();
    MakeStoreMutex();
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    mutex.Lock();
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(FollowedSet, WaitIsReportedWhileItLasts) {
    const int set = semget(cStoreKey, 1, 0);
    mutex.Lock();
    std::thread waiter([&] { mutex.Lock(); });
    WaitUntil([] { return gWaits > 1; });
    mutex.Unlock();
    waiter.join();
    EXPECT_EQ(Value(set), 0);
}

TEST(FollowedSetWithoutReplacement, LockFailsAsInTheSystem) {
    CMutex mutex(cName);
    FollowNextLockedSet({ReplaceByNothing, nullptr});
    mutex.Lock();
    RemoveSet();
    EXPECT_FALSE(mutex.Lock());
}

TEST(UnfollowedSet, IsLeftAlone) {
    CMutex mutex(cName);
    RemoveSet();
    EXPECT_FALSE(mutex.Lock());
    EXPECT_FALSE(StoreSemaphoreExists());
}

TEST_F(FollowedSet, OtherSetsAreLeftAlone) {
    const int other = semget(IPC_PRIVATE, 1, 0600);
    ASSERT_EQ(semctl(other, 0, IPC_RMID), 0);
    sembuf take{0, -1, 0};
    EXPECT_EQ(semop(other, &take, 1), -1);
    EXPECT_EQ(gReplacements, 0);
}
