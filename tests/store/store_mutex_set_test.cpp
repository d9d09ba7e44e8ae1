// The set of the store mutex: making it, and a set that its maker has left without a value.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/StoreMutexSet.h"

#include <filesystem>

#include "Process.h"
#include "StoreSemaphore.h"

using namespace std::chrono_literals;
using namespace vxsched;

static struct semid_ds StatusOf(int set) {
    struct semid_ds status {};
    union {
        int val;
        struct semid_ds* buf;
    } argument{};
    argument.buf = &status;
    EXPECT_EQ(semctl(set, 0, IPC_STAT, argument), 0);
    return status;
}

TEST(StoreMutexSet, IsMadeFreeForOwnerAndGroup) {
    const TStoreMutexSet made = OpenOrMakeStoreMutex();
    EXPECT_TRUE(made.isMade);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(StatusOf(made.id).sem_perm.mode & 0777, 0660);
    const TStoreMutexSet opened = OpenOrMakeStoreMutex();
    EXPECT_FALSE(opened.isMade);
    EXPECT_EQ(opened.id, made.id);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(StoreMutexSet, StaysFreeAfterTheEndOfItsMaker) {
    CForkedChild maker([] { return OpenOrMakeStoreMutex().isMade ? 42 : 1; });
    EXPECT_EQ(maker.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// Other users than the superuser can give a set to themselves only.
TEST(StoreMutexSet, BelongsToTheOwnerThatIsGiven) {
    const TSetOwner owner =
        geteuid() == 0 ? TSetOwner{1234, 5678} : TSetOwner{geteuid(), getegid()};
    const TStoreMutexSet made = OpenOrMakeStoreMutex(owner);
    EXPECT_EQ(StatusOf(made.id).sem_perm.uid, owner.user);
    EXPECT_EQ(StatusOf(made.id).sem_perm.gid, owner.group);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(StoreMutexSet, ManyMakersAtOnceMakeOneFreeSet) {
    for (int iteration = 0; iteration < 20; ++iteration) {
        std::vector<std::unique_ptr<CForkedChild>> makers;
        for (int maker = 0; maker < 4; ++maker)
            makers.push_back(std::make_unique<CForkedChild>([] {
                OpenOrMakeStoreMutex();
                return 0;
            }));
        for (const auto& maker : makers)
            EXPECT_EQ(maker->Wait(), 0);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
        semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID);
    }
}

// ---- A set without a value, whose maker was killed ----------------------------------------------

TEST(AbandonedSet, IsGivenItsValueByWhoeverOpensIt) {
    const int set = semget(cStoreKey, 1, IPC_CREAT | 0660);
    const TStoreMutexSet opened = OpenOrMakeStoreMutex();
    EXPECT_EQ(opened.id, set);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(AbandonedSet, IsGivenItsValueByAReaderThatWaitsForIt) {
    semget(cStoreKey, 1, IPC_CREAT | 0660);
    {
        const CStoreMutexLock lock(0ms);
        EXPECT_TRUE(lock.IsHeld());
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// The end of a process that waits for a set counts as a use of it.
TEST(AbandonedSet, IsGivenItsValueAfterAWaiterWasKilled) {
    semget(cStoreKey, 1, IPC_CREAT | 0660);
    CForkedChild waiter([] {
        const CStoreMutexLock lock(10s);
        return 0;
    });
    WaitUntil([&] {
        const std::string process = "/proc/" + std::to_string(waiter.Id()) + "/stat";
        return ReadFile(process).find(") S ") != std::string::npos || HasEnded(waiter.Id());
    });
    waiter.Kill(SIGKILL);
    waiter.Wait();
    const CStoreMutexLock lock(0ms);
    EXPECT_TRUE(lock.IsHeld());
}

TEST(AbandonedSet, HeldOneIsNone) {
    const int set = MakeStoreMutex();
    sembuf take{0, -1, 0};
    ASSERT_EQ(semop(set, &take, 1), 0);
    EXPECT_FALSE(InitialiseAbandonedSet(set));
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    semctl(set, 0, IPC_RMID);
    const int given = semget(cStoreKey, 1, IPC_CREAT | 0660);
    semctl(given, 0, SETVAL, 0);
    EXPECT_FALSE(InitialiseAbandonedSet(given)) << "a process gave it this value";
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

// ---- A change -----------------------------------------------------------------------------------

TEST(LockForAChange, MakesTheSetThatIsMissing) {
    std::filesystem::create_directory("files");
    const CWriterLock writerLock(".", 0ms);
    {
        const CStoreMutexLock lock(0ms, writerLock);
        EXPECT_TRUE(lock.IsHeld());
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(LockForAChange, GoesOnWithANewSetWhenTheOneItWaitsForIsRemoved) {
    std::filesystem::create_directory("files");
    const int set = MakeStoreMutex();
    semctl(set, 0, SETVAL, 0);
    CForkedChild change([] {
        const CWriterLock writerLock(".", 0ms);
        const CStoreMutexLock lock(1h, writerLock);
        return lock.IsHeld() ? 42 : 1;
    });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    semctl(set, 0, IPC_RMID);
    EXPECT_EQ(change.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}
