// Named events: the result and effect of a wait, across objects, threads and processes, and after
// kills and removals.

#include <CEvent.h>
#include <VXC_CRC32.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <memory>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "ForeignStore.h"
#include "Process.h"
#include "StoreSemaphore.h"

static constexpr char cName[] = "an event";

union TSemaphoreArgument {
    int val;
    struct semid_ds* buf;
};

static void RemoveTheOnlySet() {
    ASSERT_EQ(semctl(TheOnlySet(), 0, IPC_RMID), 0);
}

static void WaitForWaiters(int count) {
    WaitUntil([&] { return semctl(TheOnlySet(), 0, GETNCNT) == count; });
}

// ---- Interposed: the clock and the wait --------------------------------------------------------

// Called by CEvent. While gWaits is not null, the monotonic clock is that of the test, and a wait
// is only recorded, in nanoseconds; it then takes 200 ms and is interrupted by a signal handler, or
// runs out if it was shorter.
static std::vector<long>* gWaits = nullptr;
static long gClock = 0;

extern "C" int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (gWaits == nullptr || clock != CLOCK_MONOTONIC)
        return NextDefinition<int(clockid_t, timespec*)>("clock_gettime")(clock, time);
    *time = {.tv_sec = gClock / 1'000'000'000, .tv_nsec = gClock % 1'000'000'000};
    return 0;
}

extern "C" int semtimedop(int id, sembuf* operations, std::size_t count,
                          const timespec* time) noexcept {
    if (gWaits == nullptr)
        return NextDefinition<int(int, sembuf*, std::size_t, const timespec*)>("semtimedop")(
            id, operations, count, time);
    constexpr long beforeSignal = 200'000'000;
    const long wait = time->tv_sec * 1'000'000'000 + time->tv_nsec;
    gWaits->push_back(wait);
    gClock += std::min(wait, beforeSignal);
    errno = wait <= beforeSignal ? EAGAIN : EINTR;
    return -1;
}

// ---- The grid ---------------------------------------------------------------------------------

struct TCase {
    bool manualReset;
    bool signalled;
    int milliseconds;
};
void PrintTo(const TCase& grid, std::ostream* out) {
    *out << (grid.manualReset ? "manual" : "auto")
         << (grid.signalled ? ", signalled, " : ", not signalled, ") << grid.milliseconds << " ms";
}

class EventGrid : public testing::TestWithParam<TCase> {};

TEST_P(EventGrid, WaitReportsTheStateAndConsumesItOnlyIfAutoReset) {
    const auto [manualReset, signalled, milliseconds] = GetParam();
    CEvent event(cName, manualReset);
    if (signalled)
        event.SetEvent();
    EXPECT_EQ(event.Wait(milliseconds) != 0, signalled);
    EXPECT_EQ(event.Wait(0) != 0, signalled && manualReset);
}

INSTANTIATE_TEST_SUITE_P(States, EventGrid,
                         testing::Values(TCase{true, true, 0}, TCase{true, true, 1},
                                         TCase{true, true, -1}, TCase{true, true, INT_MAX},
                                         TCase{true, true, INT_MIN}, TCase{true, false, 0},
                                         TCase{true, false, 1}, TCase{false, true, 0},
                                         TCase{false, true, 1}, TCase{false, true, -1},
                                         TCase{false, true, INT_MAX}, TCase{false, true, INT_MIN},
                                         TCase{false, false, 0}, TCase{false, false, 1}));

class EventWaiter : public testing::TestWithParam<TCase> {};

TEST_P(EventWaiter, WaitInProgressEndsWhenItIsSignalled) {
    const auto [manualReset, signalled, milliseconds] = GetParam();
    CEvent event(cName, manualReset);
    int result = 0;
    std::thread waiter([&, time = milliseconds] { result = event.Wait(time); });
    WaitForWaiters(1);
    event.SetEvent();
    waiter.join();
    EXPECT_NE(result, 0);
    EXPECT_EQ(event.Wait(0) != 0, manualReset);
}

INSTANTIATE_TEST_SUITE_P(States, EventWaiter,
                         testing::Values(TCase{true, false, -1}, TCase{true, false, INT_MAX},
                                         TCase{false, false, -1}, TCase{false, false, INT_MAX}));

// ---- One process ------------------------------------------------------------------------------

TEST(Event, BeginsNotSignalled) {
    CEvent event(cName, true);
    EXPECT_EQ(event.Wait(0), 0);
}

TEST(Event, SetAndResetAreIdempotent) {
    CEvent event(cName, false);
    event.SetEvent();
    event.SetEvent();
    EXPECT_NE(event.Wait(0), 0);
    EXPECT_EQ(event.Wait(0), 0);
    event.SetEvent();
    event.ResetEvent();
    event.ResetEvent();
    EXPECT_EQ(event.Wait(0), 0);
}

TEST(Event, ObjectsOfOneNameAreOneEventAndOthersAreNot) {
    CEvent first(cName, true);
    CEvent second(cName, true);
    CEvent other("another event", true);
    CEvent empty("", true);
    first.SetEvent();
    EXPECT_NE(second.Wait(0), 0);
    EXPECT_EQ(other.Wait(0), 0);
    EXPECT_EQ(empty.Wait(0), 0);
    second.ResetEvent();
    EXPECT_EQ(first.Wait(0), 0);
}

TEST(Event, FlagBelongsToTheObject) {
    CEvent manual(cName, true);
    CEvent automatic(cName, false);
    manual.SetEvent();
    EXPECT_NE(manual.Wait(0), 0);
    EXPECT_NE(automatic.Wait(0), 0);
    EXPECT_EQ(manual.Wait(0), 0) << "the other object consumed it";
}

TEST(Event, SecondsAreCutShortByASignal) {
    CEvent event(cName, false);
    int result = 0;
    std::thread waiter([&] { result = event.WaitSignalOrTimeout(100'000); });
    WaitForWaiters(1);
    event.SetEvent();
    waiter.join();
    EXPECT_NE(result, 0);
    EXPECT_EQ(event.WaitSignalOrTimeout(0), 0);
    event.SetEvent();
    EXPECT_NE(event.WaitSignalOrTimeout(INT_MAX), 0);
    event.SetEvent();
    EXPECT_NE(event.WaitSignalOrTimeout(-1), 0);
}

TEST(Event, VirtualOperationsBeginWithDestructorAndWait) {
    CEvent event(cName, true);
    event.SetEvent();
    void** const table = *reinterpret_cast<void***>(&event);
    EXPECT_NE(reinterpret_cast<int (*)(CEvent*, int)>(table[2])(&event, 0), 0);
    auto* const other = new CEvent("another event", true);
    void** const itsTable = *reinterpret_cast<void***>(other);
    reinterpret_cast<void (*)(CEvent*)>(itsTable[1])(other);  // the one that deletes
    EXPECT_EQ(CountSemaphoreSets(), 1);
}

TEST(Event, OneSignalLetsOneOfSeveralAutoResetWaitersPass) {
    CEvent event(cName, false);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int index = 0; index < 5; ++index)
        waiters.emplace_back([&] { passed += event.Wait(-1) != 0 ? 1 : 0; });
    WaitForWaiters(5);
    for (int left = 4; left >= 0; --left) {
        event.SetEvent();
        WaitForWaiters(left);
        WaitUntil([&] { return passed == 5 - left; });
    }
    for (std::thread& waiter : waiters)
        waiter.join();
}

TEST(Event, OneSignalLetsEveryManualResetWaiterPassEvenIfResetAtOnce) {
    CEvent event(cName, true);
    std::atomic<int> passed{0};
    std::vector<std::thread> waiters;
    for (int index = 0; index < 5; ++index)
        waiters.emplace_back([&] { passed += event.Wait(-1) != 0 ? 1 : 0; });
    WaitForWaiters(5);
    event.SetEvent();
    event.ResetEvent();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(passed, 5);
    EXPECT_EQ(event.Wait(0), 0);
}

static std::atomic<int> gSignals{0};
static void OnSignal(int /*number*/) {
    ++gSignals;
}

static constexpr long cMillisecond = 1'000'000;

TEST(Event, WaitsMillisecondsAndKeepsItsEndAfterASignal) {
    CEvent event(cName, true);
    std::vector<long> waits;
    gWaits = &waits;
    const int result = event.Wait(500);
    gWaits = nullptr;
    EXPECT_EQ(result, 0);
    EXPECT_EQ(waits,
              std::vector<long>({500 * cMillisecond, 300 * cMillisecond, 100 * cMillisecond}));
}

TEST(Event, WaitSignalOrTimeoutWaitsSeconds) {
    CEvent event(cName, false);
    std::vector<long> waits;
    gWaits = &waits;
    const int result = event.WaitSignalOrTimeout(60);
    gWaits = nullptr;
    EXPECT_EQ(result, 0);
    ASSERT_EQ(waits.size(), 300U);
    EXPECT_EQ(waits.front(), 60'000 * cMillisecond);
    EXPECT_EQ(waits.back(), 200 * cMillisecond);
}

TEST(Event, WaitGoesOnAfterASignalHandlerRan) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGUSR1, &action, nullptr);
    CEvent event(cName, true);
    for (const int milliseconds : {-1, INT_MAX}) {
        event.ResetEvent();
        std::atomic<bool> returned{false};
        std::thread waiter([&, milliseconds] {
            EXPECT_NE(event.Wait(milliseconds), 0);
            returned = true;
        });
        for (int iteration = 0; iteration < 5; ++iteration) {
            WaitForWaiters(1);
            const int before = gSignals;
            pthread_kill(waiter.native_handle(), SIGUSR1);
            WaitUntil([&] { return gSignals > before; });
        }
        WaitForWaiters(1);
        EXPECT_FALSE(returned);
        event.SetEvent();
        waiter.join();
    }
}

// ---- Keys -------------------------------------------------------------------------------------

TEST(Event, KeyDiffersFromThatOfAMutexOfTheSameName) {
    CMutex mutex(cName);
    CEvent event(cName, true);
    EXPECT_EQ(CountSemaphoreSets(), 2);
    EXPECT_TRUE(mutex.Lock());
    event.SetEvent();
    EXPECT_EQ(mutex.Lock(0), LOCK_TIMEOUT);
    EXPECT_NE(event.Wait(0), 0);
}

// The CRC-32 of this name would make the key 0 (IPC_PRIVATE), under which every open creates a new
// set.
TEST(Event, KeyIsNeverThePrivateOne) {
    constexpr std::uint32_t wanted = 0x45564E54;
    const std::string name = "cztrci";
    ASSERT_EQ(VXC_GenerateCRC32(name), wanted);
    CEvent first(name, true);
    CEvent second(name, true);
    EXPECT_EQ(CountSemaphoreSets(), 1);
    EXPECT_NE(KeyOfTheOnlySet(), IPC_PRIVATE);
    EXPECT_NE(KeyOfTheOnlySet(), static_cast<key_t>(wanted)) << "that is a mutex of the name";
    first.SetEvent();
    EXPECT_NE(second.Wait(0), 0);
}

// ---- Lifetime ---------------------------------------------------------------------------------

TEST(Event, LastCloseTakesItOutOfTheSystem) {
    auto first = std::make_unique<CEvent>(cName, true);
    auto second = std::make_unique<CEvent>(cName, true);
    auto third = std::make_unique<CEvent>(cName, false);
    first.reset();
    EXPECT_EQ(CountSemaphoreSets(), 1);
    third->SetEvent();
    third.reset();
    EXPECT_NE(second->Wait(0), 0);
    second.reset();
    EXPECT_EQ(CountSemaphoreSets(), 0);
    CEvent again(cName, true);
    EXPECT_EQ(again.Wait(0), 0);
}

TEST(Event, SeenAcrossProcesses) {
    CEvent event(cName, true);
    CForkedChild setter([] {
        CEvent(cName, true).SetEvent();
        return 0;
    });
    EXPECT_NE(event.Wait(-1), 0);
    setter.Wait();
    EXPECT_NE(event.Wait(0), 0) << "the exit of the setter undoes nothing";
    CForkedChild resetter([] {
        CEvent(cName, true).ResetEvent();
        return 0;
    });
    resetter.Wait();
    EXPECT_EQ(event.Wait(0), 0);
}

TEST(Event, OneOfSeveralProcessesConsumesAnAutoResetSignal) {
    CEvent event(cName, false);
    std::vector<std::unique_ptr<CForkedChild>> waiters;
    for (int index = 0; index < 3; ++index)
        waiters.push_back(std::make_unique<CForkedChild>(
            [] { return CEvent(cName, false).Wait(-1) != 0 ? 42 : 1; }));
    for (int left = 3; left > 0; --left) {
        WaitForWaiters(left);
        event.SetEvent();
        WaitForWaiters(left - 1);
    }
    for (const auto& waiter : waiters)
        EXPECT_EQ(waiter->Wait(), 42);
    EXPECT_EQ(event.Wait(0), 0);
}

TEST(Event, KilledWaiterLeavesNothingBehind) {
    CEvent event(cName, false);
    CForkedChild waiter([] { return CEvent(cName, false).Wait(-1); });
    WaitForWaiters(1);
    waiter.Kill(SIGKILL);
    waiter.Wait();
    event.SetEvent();
    EXPECT_NE(event.Wait(0), 0) << "not consumed by the killed waiter";
}

TEST(Event, SignalOfAKilledSetterStaysForThoseWhoHaveItOpen) {
    CEvent event(cName, true);
    CForkedChild setter([] {
        CEvent own(cName, true);
        own.SetEvent();
        raise(SIGKILL);
        return 0;
    });
    EXPECT_EQ(setter.Wait(), 1000 + SIGKILL);
    EXPECT_NE(event.Wait(0), 0);
}

TEST(Event, EventThatOnlyKilledProcessesHadOpenIsFoundNotSignalled) {
    for (const bool signalled : {true, false}) {
        CForkedChild killed([=] {
            CEvent own(cName, true);
            if (signalled)
                own.SetEvent();
            raise(SIGKILL);
            return 0;
        });
        killed.Wait();
        EXPECT_EQ(CountSemaphoreSets(), 1);
        {
            CEvent event(cName, true);
            EXPECT_EQ(event.Wait(0), 0);
            event.SetEvent();
            EXPECT_NE(event.Wait(0), 0);
        }
        EXPECT_EQ(CountSemaphoreSets(), 0) << "the killed one does not count as an opener";
    }
}

TEST(Event, SetThatAKilledCloserHadRetiredIsReplaced) {
    {
        auto event = std::make_unique<CEvent>(cName, true);
        TSemaphoreArgument one{};
        one.val = 1;
        ASSERT_EQ(semctl(TheOnlySet(), 2, SETVAL, one), 0);
        const int retired = TheOnlySet();
        CEvent next(cName, true);
        EXPECT_NE(TheOnlySet(), retired);
        event->SetEvent();  // its set is removed: it opens the new one
        EXPECT_NE(next.Wait(0), 0);
    }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// Sets who may use the semaphores of the only event.
static void SetMode(unsigned short mode) {
    TSemaphoreArgument argument{};
    struct semid_ds status {};
    argument.buf = &status;
    ASSERT_EQ(semctl(TheOnlySet(), 0, IPC_STAT, argument), 0);
    status.sem_perm.mode = mode;
    ASSERT_EQ(semctl(TheOnlySet(), 0, IPC_SET, argument), 0);
}

// Another user's set can be retired for ever, and cannot be removed.
TEST(Event, SetThatAnotherUserHasRetiredIsRefused) {
    REQUIRE_SUPERUSER();
    CEvent event(cName, true);
    SetMode(0666);
    ASSERT_EQ(semctl(TheOnlySet(), 2, SETVAL, 1), 0);
    CForkedChild other([] {
        if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        try {
            const CEvent refused(cName, true);
            return 2;
        } catch (const std::system_error& error) {
            return error.code().value() == EPERM ? 42 : 3;
        }
    });
    EXPECT_EQ(other.Wait(), 42);
}

// It cannot be removed by that user, and one that is retired cannot be opened either.
TEST(Event, SetOfAnotherUserIsNotRetiredByItsLastCloser) {
    REQUIRE_SUPERUSER();
    CForkedChild maker([] {
        // Ends without closing it.
        static_cast<void>(std::make_unique<CEvent>(cName, true).release());
        SetMode(0666);
        return 42;
    });
    ASSERT_EQ(maker.Wait(), 42);
    CForkedChild other([] {
        if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        for (int times = 0; times < 2; ++times)
            CEvent(cName, true).SetEvent();
        return 42;
    });
    EXPECT_EQ(other.Wait(), 42);
    EXPECT_EQ(CEvent::UseOf(cName).openers, 0);
    const CEvent event(cName, true);
    EXPECT_EQ(CountSemaphoreSets(), 1);
}

TEST(Event, CopyInAForkedChildDoesNotCloseTheParents) {
    auto event = std::make_unique<CEvent>(cName, true);
    CForkedChild child([&] {
        event->SetEvent();
        event.reset();
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(CountSemaphoreSets(), 1);
    EXPECT_NE(event->Wait(0), 0);
    event.reset();
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(Event, OpenedAndClosedByManyAtOnceItStaysUsable) {
    std::vector<std::unique_ptr<CForkedChild>> children;
    for (int index = 0; index < 6; ++index)
        children.push_back(std::make_unique<CForkedChild>([=] {
            for (int iteration = 0; iteration < 300; ++iteration) {
                CEvent event(cName, true);
                event.SetEvent();
                if (index % 2 == 0)
                    event.ResetEvent();
            }
            return 42;
        }));
    for (const auto& child : children)
        EXPECT_EQ(child->Wait(), 42);
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(Event, SignalIsNeverLostToOthersWhoOpenAndClose) {
    std::optional<CForkedChild> churn;
    churn.emplace([] {
        for (;;)
            CEvent(cName, true).Wait(0);
        return 0;
    });
    for (int iteration = 0; iteration < 300; ++iteration) {
        CEvent setter(cName, true);
        CEvent waiter(cName, true);
        setter.SetEvent();
        ASSERT_NE(waiter.Wait(0), 0);
        setter.ResetEvent();
    }
}

// ---- Removed from outside ---------------------------------------------------------------------

TEST(Event, RemovedUnderAWaiterItIsMadeAnewAndTheWaitGoesOn) {
    CEvent event(cName, true);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = event.Wait(-1); });
    WaitForWaiters(1);
    RemoveTheOnlySet();
    WaitForWaiters(1);
    EXPECT_EQ(result, -1);
    CEvent(cName, true).SetEvent();
    waiter.join();
    EXPECT_NE(result, 0);
}

TEST(Event, RemovedUnderSeveralWaitersItIsMadeAnewOnce) {
    CEvent event(cName, true);
    std::thread first([&] { event.Wait(-1); });
    std::thread second([&] { event.Wait(-1); });
    WaitForWaiters(2);
    RemoveTheOnlySet();
    WaitForWaiters(2);
    EXPECT_EQ(CountSemaphoreSets(), 1);
    EXPECT_EQ(semctl(TheOnlySet(), 1, GETVAL), 1) << "one object, opened once";
    event.SetEvent();
    first.join();
    second.join();
}

TEST(Event, RemovedItIsMadeAnewByWhateverComesNext) {
    CEvent event(cName, true);
    event.SetEvent();
    RemoveTheOnlySet();
    EXPECT_EQ(event.Wait(0), 0) << "the signal is gone with the set";
    RemoveTheOnlySet();
    event.SetEvent();
    EXPECT_NE(event.Wait(0), 0);
    RemoveTheOnlySet();
    event.ResetEvent();
    EXPECT_EQ(CountSemaphoreSets(), 1);
}

TEST(Event, RemovedBeforeItsCloseLeavesNothing) {
    {
        const CEvent event(cName, true);
        RemoveTheOnlySet();
    }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(Event, CloseWithoutACountOfOpenersLeavesTheSet) {
    {
        const CEvent event(cName, true);
        ASSERT_EQ(semctl(TheOnlySet(), 1, SETVAL, 0), 0);
    }
    EXPECT_EQ(CountSemaphoreSets(), 1);
    { const CEvent next(cName, true); }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// ---- Who uses it ------------------------------------------------------------------------------

TEST(Event, UseOfCountsOpenersAndWaitersWithoutBeingOne) {
    EXPECT_EQ(CEvent::UseOf(cName).openers, 0);
    EXPECT_EQ(CountSemaphoreSets(), 0);
    CEvent event(cName, false);
    const CEvent another(cName, false);
    EXPECT_EQ(CEvent::UseOf(cName).openers, 2);
    EXPECT_EQ(CEvent::UseOf(cName).waiters, 0);
    CForkedChild waiter([&] { return event.Wait(-1); });
    WaitUntil([] { return CEvent::UseOf(cName).waiters == 1; });
    EXPECT_EQ(CEvent::UseOf(cName).openers, 2);
    event.SetEvent();
    EXPECT_EQ(waiter.Wait(), 1);
    EXPECT_EQ(CEvent::UseOf(cName).waiters, 0);
}

TEST(Event, UseOfAnUnreadableEventIsZero) {
    const CEvent event(cName, false);
    SetMode(0);
    CForkedChild child([&] {
        if (!DropCapabilities())
            return 1;
        return 10 + CEvent::UseOf(cName).openers + CEvent::UseOf(cName).waiters;
    });
    EXPECT_EQ(child.Wait(), 10);
}

// ---- Events that cannot be opened -------------------------------------------------------------

template <typename Call>
static void ExpectError(const Call& call, int error) {
    try {
        call();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& caught) {
        EXPECT_EQ(caught.code().value(), error);
        EXPECT_NE(std::string(caught.what()).find(cName), std::string::npos) << caught.what();
        EXPECT_NE(std::string(caught.what()).find(std::generic_category().message(error)),
                  std::string::npos)
            << caught.what();
    }
}

TEST(Event, KeyTakenBySomethingElseIsAnErrorWithNameAndReason) {
    TakeTheKeyOfEvent(cName);
    ExpectError([] { const CEvent event(cName, true); }, EINVAL);
}

TEST(Event, MoreOpenersThanTheSystemCountsAreAnError) {
    const CEvent event(cName, true);
    ASSERT_EQ(semctl(TheOnlySet(), 1, SETVAL, 32767), 0);
    ExpectError([] { const CEvent another(cName, true); }, ERANGE);
    ASSERT_EQ(semctl(TheOnlySet(), 1, SETVAL, 1), 0);
}

TEST(Event, MissingPermissionIsAnErrorWithNameAndReason) {
    CEvent event(cName, true);
    SetMode(0);
    CForkedChild child([&] {
        if (!DropCapabilities())
            return 1;
        ExpectError([] { const CEvent own(cName, true); }, EACCES);
        ExpectError([&] { event.SetEvent(); }, EACCES);
        ExpectError([&] { event.ResetEvent(); }, EACCES);
        ExpectError([&] { event.Wait(0); }, EACCES);
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
