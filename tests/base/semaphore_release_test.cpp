// The release of a semaphore that only counts while it is taken.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "base/SemaphoreRelease.h"

#include <cerrno>

#include "Process.h"

class SemaphoreRelease : public testing::Test {
protected:
    SemaphoreRelease() { semctl(set, 0, SETVAL, 1); }

    bool Take() const {
        sembuf take{0, -1, IPC_NOWAIT | SEM_UNDO};
        return semop(set, &take, 1) == 0;
    }
    int Value() const { return semctl(set, 0, GETVAL); }

    const int set = semget(IPC_PRIVATE, 1, 0600);
};

TEST_F(SemaphoreRelease, ReleasesWhatThisProcessHasTaken) {
    for (int iteration = 0; iteration < 3; ++iteration) {
        ASSERT_TRUE(Take());
        EXPECT_EQ(ReleaseIfTaken(set), 0);
        EXPECT_EQ(Value(), 1);
    }
}

TEST_F(SemaphoreRelease, DoesNothingWithoutATake) {
    EXPECT_EQ(ReleaseIfTaken(set), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaphoreRelease, DoesNothingAfterTheValueWasSet) {
    ASSERT_TRUE(Take());
    semctl(set, 0, SETVAL, 1);
    EXPECT_EQ(ReleaseIfTaken(set), -1);
    EXPECT_EQ(errno, ERANGE);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaphoreRelease, LeavesNothingToUndo) {
    CForkedChild child([&] { return Take() && ReleaseIfTaken(set) == 0 ? 42 : 1; });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaphoreRelease, LetsAWaiterIn) {
    ASSERT_TRUE(Take());
    CForkedChild waiter([&] {
        sembuf take{0, -1, SEM_UNDO};
        return semop(set, &take, 1) == 0 ? 42 : 1;
    });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    EXPECT_EQ(ReleaseIfTaken(set), 0);
    EXPECT_EQ(waiter.Wait(), 42);
    EXPECT_EQ(Value(), 1);
}

TEST_F(SemaphoreRelease, OfARemovedSetFails) {
    ASSERT_TRUE(Take());
    semctl(set, 0, IPC_RMID);
    EXPECT_EQ(ReleaseIfTaken(set), -1);
    EXPECT_EQ(errno, EINVAL);
}
