// The store mutex: its results, its locked flag, its system calls, and its effect on other
// processes.

#include <VXC_CRC32.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "Process.h"
#include "StoreSemaphore.h"

static constexpr char cName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";

// ---- Interposed system calls of the mutex -----------------------------------------------------

// Called by CMutex and by the test, on whichever thread. They record the call and pass it on to
// libc, unless gFailGet or gFailControl makes it fail, with errno as the test sets it.

static std::mutex gCallsMutex;
static std::vector<std::string> gCalls;
static int gFailGet = 0;  // which semget fails, counted from 1
static int gFailError = 0;
static bool gFailControl = false;
static std::atomic<int> gErrnoSeen{-1};

static void Record(const std::string& call) {
    const std::lock_guard<std::mutex> lock(gCallsMutex);
    gCalls.push_back(call);
}

extern "C" int semget(key_t key, int count, int flags) noexcept {
    static int calls = 0;
    Record("semget " + std::to_string(static_cast<unsigned int>(key)) + ' ' +
           std::to_string(count) + ' ' + std::to_string(flags));
    if (gFailGet > 0 && ++calls == gFailGet) {
        errno = gFailError;
        return -1;
    }
    return NextDefinition<int(key_t, int, int) noexcept>("semget")(key, count, flags);
}

extern "C" int semctl(int id, int number, int command, ...) noexcept {
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (command == SETVAL)
        Record("setval " + std::to_string(number) + ' ' +
               std::to_string(static_cast<int>(argument)));
    else if (command == IPC_RMID)
        Record("remove");
    if (command == SETVAL && gFailControl) {
        errno = EACCES;
        return -1;
    }
    return NextDefinition<int(int, int, int, ...) noexcept>("semctl")(id, number, command,
                                                                      argument);
}

static std::string Describe(const sembuf* operations, std::size_t count) {
    std::string text = std::to_string(count);
    for (std::size_t index = 0; index < count; ++index)
        text += " {" + std::to_string(operations[index].sem_num) + ' ' +
                std::to_string(operations[index].sem_op) +
                (operations[index].sem_flg == SEM_UNDO ? " undo}" : " other}");
    return text;
}

extern "C" int semop(int id, sembuf* operations, std::size_t count) noexcept {
    gErrnoSeen = errno;
    Record("semop " + Describe(operations, count));
    return NextDefinition<int(int, sembuf*, std::size_t) noexcept>("semop")(id, operations, count);
}

extern "C" int semtimedop(int id, sembuf* operations, std::size_t count,
                          const timespec* time) noexcept {
    gErrnoSeen = errno;
    Record("semtimedop " + Describe(operations, count) + ' ' + std::to_string(time->tv_sec) + ' ' +
           std::to_string(time->tv_nsec));
    return NextDefinition<int(int, sembuf*, std::size_t, const timespec*) noexcept>("semtimedop")(
        id, operations, count, time);
}

using TCalls = std::vector<std::string>;

static TCalls TakeCalls() {
    return std::exchange(gCalls, {});
}

// ---- Construction and destruction -------------------------------------------------------------

TEST(Mutex, KeyIsTheCrcOfTheName) {
    const CMutex mutex(cName);
    EXPECT_TRUE(StoreSemaphoreExists());
    EXPECT_EQ(static_cast<key_t>(VXC_GenerateCRC32(cName)), cStoreKey);
}

TEST(Mutex, ConstructionCreatesTheSetForOwnerAndGroupAndSetsItFree) {
    const CMutex mutex(cName);
    EXPECT_EQ(TakeCalls(), TCalls({"semget 3164151291 1 1968", "setval 0 1"}));
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_FALSE(mutex.isLocked());
}

TEST(Mutex, ConstructionOpensASetThatExistsAndSetsItFreeAsWell) {
    const CMutex first(cName);
    TakeCalls();
    const CMutex second(cName);
    EXPECT_EQ(TakeCalls(),
              TCalls({"semget 3164151291 1 1968", "semget 3164151291 1 432", "setval 0 1"}));
}

TEST(Mutex, DestructionRemovesTheSetWithoutAReleaseWhenItNeverLocked) {
    auto mutex = std::make_unique<CMutex>(cName);
    TakeCalls();
    mutex.reset();
    EXPECT_EQ(TakeCalls(), TCalls({"remove"}));
    EXPECT_FALSE(StoreSemaphoreExists());
}

TEST(Mutex, DestructionReleasesOnceMoreWhenItEverLocked) {
    auto mutex = std::make_unique<CMutex>(cName);
    mutex->Lock();
    mutex->Unlock();
    TakeCalls();
    mutex.reset();
    EXPECT_EQ(TakeCalls(), TCalls({"semop 1 {0 1 undo}", "remove"}));
}

TEST(Mutex, DestructionRemovesASetThatItOnlyOpened) {
    CMutex first(cName);
    auto second = std::make_unique<CMutex>(cName);
    second.reset();
    EXPECT_FALSE(StoreSemaphoreExists());
    EXPECT_FALSE(first.Lock());
    EXPECT_EQ(first.Lock(0), LOCK_FAILED);
}

// After the virtual table, the locked flag and the set's identifier.
static bool OwnerOf(const CMutex& mutex) {
    return *(reinterpret_cast<const bool*>(&mutex) + 16);
}

TEST(Mutex, KnowsWhetherItMadeTheSet) {
    const CMutex first(cName);
    const CMutex second(cName);
    EXPECT_TRUE(OwnerOf(first));
    EXPECT_FALSE(OwnerOf(second));
}

TEST(Mutex, ItNeverReopensASetThatWasRemoved) {
    CMutex first(cName);
    { const CMutex second(cName); }
    CMutex third(cName);
    EXPECT_FALSE(first.Lock());
    EXPECT_TRUE(third.Lock());
}

static_assert(std::is_nothrow_constructible_v<CMutex, const char*>);

TEST(Mutex, SetThatCannotBeCreatedEndsTheProcess) {
    gFailGet = 1;
    gFailError = EACCES;
    EXPECT_DEATH(CMutex{cName}, "terminate called");
}

TEST(Mutex, SetThatExistsButCannotBeOpenedEndsTheProcess) {
    const CMutex other(cName);
    gFailGet = 2;
    gFailError = EACCES;
    EXPECT_DEATH(CMutex{cName}, "terminate called");
}

TEST(Mutex, SetThatCannotBeSetFreeEndsTheProcess) {
    gFailControl = true;
    EXPECT_DEATH(CMutex{cName}, "terminate called");
}

// ---- Locking and releasing --------------------------------------------------------------------

TEST(Mutex, KeepsTheLockedFlagAfterARelease) {
    CMutex mutex(cName);
    EXPECT_TRUE(mutex.Lock());
    EXPECT_TRUE(mutex.isLocked());
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_TRUE(mutex.isLocked());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(Mutex, FailedReleaseClearsTheLockedFlag) {
    CMutex mutex(cName);
    mutex.Lock();
    { const CMutex other(cName); }
    EXPECT_EQ(mutex.Unlock(), -1);
    EXPECT_FALSE(mutex.isLocked());
}

TEST(Mutex, FailedLockKeepsTheLockedFlag) {
    CMutex mutex(cName);
    CMutex other(cName);
    EXPECT_EQ(mutex.Lock(0), LOCK_ACQUIRED);
    EXPECT_EQ(mutex.Lock(0), LOCK_TIMEOUT);
    EXPECT_TRUE(mutex.isLocked());
    EXPECT_EQ(other.Lock(0), LOCK_TIMEOUT);
    EXPECT_FALSE(other.isLocked());
}

TEST(Mutex, ReleaseWithoutALockLetsTwoHoldersIn) {
    CMutex mutex(cName);
    EXPECT_EQ(mutex.Unlock(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 2);
    EXPECT_FALSE(mutex.isLocked());
    EXPECT_EQ(mutex.Lock(0), LOCK_ACQUIRED);
    EXPECT_EQ(mutex.Lock(0), LOCK_ACQUIRED);
    EXPECT_EQ(mutex.Lock(0), LOCK_TIMEOUT);
}

TEST(Mutex, ConstructionUnderAHolderLetsTheNewOneInAtOnce) {
    CMutex first(cName);
    first.Lock();
    CMutex second(cName);
    EXPECT_EQ(second.Lock(0), LOCK_ACQUIRED);
}

TEST(Mutex, UnlimitedLockIsOneOperationWithoutATime) {
    CMutex mutex(cName);
    TakeCalls();
    errno = ERANGE;
    EXPECT_EQ(mutex.Lock(ULONG_MAX), LOCK_ACQUIRED);
    EXPECT_EQ(TakeCalls(), TCalls({"semop 1 {0 -1 undo}"}));
    EXPECT_EQ(gErrnoSeen, 0);
    mutex.Unlock();
    EXPECT_EQ(TakeCalls(), TCalls({"semop 1 {0 1 undo}"}));
}

struct TTimeout {
    unsigned long milliseconds;
    const char* time;
    int result;
};
void PrintTo(const TTimeout& timeout, std::ostream* out) {
    *out << timeout.milliseconds;
}

class MutexTimeout : public testing::TestWithParam<TTimeout> {};

TEST_P(MutexTimeout, BecomesSecondsAndNanoseconds) {
    const TTimeout timeout = GetParam();
    CMutex mutex(cName);
    TakeCalls();
    errno = ERANGE;
    EXPECT_EQ(mutex.Lock(timeout.milliseconds), timeout.result);
    EXPECT_EQ(TakeCalls(), TCalls({std::string("semtimedop 1 {0 -1 undo} ") + timeout.time}));
    EXPECT_EQ(gErrnoSeen, 0);
    EXPECT_EQ(mutex.isLocked(), timeout.result == LOCK_ACQUIRED);
}

INSTANTIATE_TEST_SUITE_P(
    Milliseconds, MutexTimeout,
    testing::Values(TTimeout{0, "0 0", LOCK_ACQUIRED}, TTimeout{1, "0 1000000", LOCK_ACQUIRED},
                    TTimeout{999, "0 999000000", LOCK_ACQUIRED},
                    TTimeout{1000, "1 0", LOCK_ACQUIRED},
                    TTimeout{1500, "1 500000000", LOCK_ACQUIRED},
                    TTimeout{2147483647, "2147483 647000000", LOCK_ACQUIRED},
                    TTimeout{2147483648, "-2147483 4294966648000000", LOCK_FAILED},
                    TTimeout{4294967295, "0 4294967295000000", LOCK_FAILED},
                    TTimeout{4294967301, "0 4294967301000000", LOCK_FAILED},
                    TTimeout{1UL << 58, "0 0", LOCK_ACQUIRED},
                    TTimeout{(1UL << 58) + 1500, "1 500000000", LOCK_ACQUIRED}));

TEST(Mutex, TimeoutDiffersFromFailure) {
    CMutex mutex(cName);
    mutex.Lock();
    EXPECT_EQ(mutex.Lock(0), LOCK_TIMEOUT);
    EXPECT_EQ(mutex.Lock(1), LOCK_TIMEOUT);
}

TEST(Mutex, IsNotRecursiveAndAnyThreadReleasesIt) {
    CMutex mutex(cName);
    std::thread locker([&] {
        mutex.Lock();
        mutex.Lock();
    });
    const int id = semget(cStoreKey, 1, 0);
    WaitUntil([&] { return semctl(id, 0, GETNCNT) == 1; });
    EXPECT_EQ(mutex.Unlock(), 0);
    locker.join();
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

class CRecordingMutex : public CMutex {
public:
    using CMutex::CMutex;
    using CMutex::Lock;
    int Lock(unsigned long timeout) override {
        timeouts.push_back(timeout);
        return result;
    }
    std::vector<unsigned long> timeouts;
    int result = LOCK_FAILED;
};

TEST(Mutex, LockWithoutATimeGoesThroughTheVirtualTable) {
    CRecordingMutex mutex(cName);
    CMutex& base = mutex;
    EXPECT_FALSE(base.Lock());
    mutex.result = LOCK_TIMEOUT;
    EXPECT_TRUE(base.Lock());
    mutex.result = LOCK_ACQUIRED;
    EXPECT_TRUE(base.Lock());
    EXPECT_EQ(mutex.timeouts, std::vector<unsigned long>(3, ULONG_MAX));
}

TEST(Mutex, VirtualOperationsStandInTheirOrder) {
    CMutex mutex(cName);
    CSyncObject* const object = &mutex;
    void** const table = *reinterpret_cast<void***>(object);
    // After the destructor's two entries.
    const auto lockFor = reinterpret_cast<int (*)(CSyncObject*, unsigned long)>(table[2]);
    const auto lock = reinterpret_cast<bool (*)(CSyncObject*)>(table[3]);
    const auto unlock = reinterpret_cast<int (*)(CSyncObject*)>(table[4]);
    const auto isLocked = reinterpret_cast<bool (*)(const CSyncObject*)>(table[5]);
    EXPECT_FALSE(isLocked(object));
    EXPECT_EQ(lockFor(object, 0), LOCK_ACQUIRED);
    EXPECT_EQ(lockFor(object, 0), LOCK_TIMEOUT);
    EXPECT_EQ(unlock(object), 0);
    EXPECT_TRUE(lock(object));
    EXPECT_TRUE(isLocked(object));
}

// ---- Signals, threads, processes --------------------------------------------------------------

static void OnSignal(int /*number*/) {}

// Calls `wait` on a thread and interrupts it by a handler until it returns.
template <typename Wait>
static auto Interrupted(const Wait& wait) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;  // semop ignores it
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> done{false};
    decltype(wait()) result{};
    int error = 0;
    std::thread waiter([&] {
        result = wait();
        error = errno;
        done = true;
    });
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    waiter.join();
    EXPECT_EQ(error, EINTR);
    return result;
}

TEST(Mutex, InterruptedWaitWithoutLimitHasFailed) {
    CMutex mutex(cName);
    mutex.Lock();
    EXPECT_EQ(Interrupted([&] { return mutex.Lock(ULONG_MAX); }), LOCK_FAILED);
    EXPECT_FALSE(Interrupted([&] { return mutex.Lock(); }));
}

TEST(Mutex, InterruptedTimedWaitHasFailed) {
    CMutex mutex(cName);
    mutex.Lock();
    EXPECT_EQ(Interrupted([&] { return mutex.Lock(1'000'000); }), LOCK_FAILED);
}

TEST(Mutex, WaiterFailsWhenTheSetIsRemovedUnderIt) {
    CMutex mutex(cName);
    mutex.Lock();
    int result = -1;
    std::thread waiter([&] { result = mutex.Lock(ULONG_MAX); });
    const int id = semget(cStoreKey, 1, 0);
    WaitUntil([&] { return semctl(id, 0, GETNCNT) == 1; });
    semctl(id, 0, IPC_RMID);
    waiter.join();
    EXPECT_EQ(result, LOCK_FAILED);
}

TEST(Mutex, ThreadsExcludeEachOther) {
    CMutex mutex(cName);
    long counter = 0;
    const auto count = [&] {
        for (int iteration = 0; iteration < 2000; ++iteration) {
            mutex.Lock();
            counter = counter + 1;
            mutex.Unlock();
        }
    };
    std::thread first(count);
    std::thread second(count);
    first.join();
    second.join();
    EXPECT_EQ(counter, 4000);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(Mutex, ProcessesExcludeEachOther) {
    CMutex mutex(cName);
    auto* const counter = static_cast<volatile long*>(
        mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto count = [&] {
        for (int iteration = 0; iteration < 2000; ++iteration) {
            mutex.Lock();
            *counter = *counter + 1;
            mutex.Unlock();
        }
        return 0;
    };
    CForkedChild first(count);
    CForkedChild second(count);
    CForkedChild third(count);
    EXPECT_EQ(first.Wait() + second.Wait() + third.Wait(), 0);
    EXPECT_EQ(*counter, 6000);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(Mutex, KilledHolderFreesIt) {
    CMutex mutex(cName);
    CForkedChild holder([&] {
        mutex.Lock();
        for (;;)
            pause();
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    EXPECT_EQ(mutex.Lock(0), LOCK_TIMEOUT);
    holder.Kill(SIGKILL);
    holder.Wait();
    EXPECT_TRUE(mutex.Lock());
}
