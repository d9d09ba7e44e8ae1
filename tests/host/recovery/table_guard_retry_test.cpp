// How often the guard tries to check a table that can be neither read nor restored.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include "host/recovery/CTableGuard.h"
#include "store/Layout.h"

#include <chrono>
#include <filesystem>
#include <future>

#include "FakeMonotonicClock.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

// A wait of the guard's thread takes no real time until an hour of the fake clock has passed; from
// then on it lasts until the guard is woken. Both are for that thread, until `hasPassed` is set.
struct TFakeHour {
    CFakeMonotonicClock clock;
    int waits = 0;
    std::promise<void> hasPassed;
};

static TFakeHour* gHour = nullptr;

// Called by the guard's thread; comes before libc's.
extern "C" int poll(pollfd* descriptors, nfds_t count, int timeout) {
    if (gHour != nullptr && timeout >= 0 && gHour->clock.slept < 1h) {
        ++gHour->waits;
        gHour->clock.slept += std::chrono::milliseconds(timeout);
        if (gHour->clock.slept < 1h)
            return 0;
        gHour->hasPassed.set_value();
    }
    return ppoll(descriptors, count, nullptr, nullptr);
}

// Each attempt takes the store mutex and reads the table, and may write a snapshot. Every 100 ms it
// would be made 36,000 times in an hour, every 5 s 720 times.
static void ExpectFewAttempts() {
    std::filesystem::create_directories(cTable);  // no file: each check fails
    const CForkedChild idleWorker(
        [] { return CEvent(vxsched::cStopEventName, false).Wait(-1) == 0 ? 1 : 0; });
    WaitUntil(WorkerIsIdle);
    TFakeHour hour;
    gHour = &hour;
    CTableGuard guard(0);
    guard.Begin();
    hour.hasPassed.get_future().wait();
    guard.End();
    EXPECT_GT(hour.waits, 700);
    EXPECT_LT(hour.waits, 750);
}

TEST(TableGuardRetry, IsMadeEverMoreSeldomWhileItFails) {
    MakeStoreMutex();
    ExpectFewAttempts();
}

// The worker is asked to make it, and cannot.
TEST(TableGuardRetry, IsMadeEverMoreSeldomWhileThereIsNoMutex) {
    ExpectFewAttempts();
}
