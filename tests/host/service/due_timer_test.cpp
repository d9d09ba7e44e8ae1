// The timer of the next due time: how it is set, and when its descriptor is readable. The due times
// are long past or far away, so that no test waits for the clock.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>
#include "host/service/CDueTimer.h"

#include <chrono>

using namespace std::chrono_literals;

using std::chrono::sys_seconds;

namespace {

constexpr sys_seconds cPast(1'000'000'000s);
constexpr sys_seconds cFuture(4'102'444'800s);

bool IsReadable(const CDueTimer& timer, int milliseconds) {
    pollfd descriptor{.fd = timer.Descriptor().Get(), .events = POLLIN, .revents = 0};
    return poll(&descriptor, 1, milliseconds) == 1;
}

bool IsArmed(const CDueTimer& timer) {
    itimerspec setting{};
    EXPECT_EQ(timerfd_gettime(timer.Descriptor().Get(), &setting), 0);
    return setting.it_value.tv_sec != 0 || setting.it_value.tv_nsec != 0;
}

}  // namespace

TEST(DueTimer, IsReadableUntilTheWakeIsTaken) {
    CDueTimer timer;
    EXPECT_FALSE(IsArmed(timer));
    timer.TableChanged(cPast);
    ASSERT_TRUE(IsReadable(timer, -1));
    EXPECT_TRUE(timer.TakeWake());
    EXPECT_FALSE(IsReadable(timer, 0));
    EXPECT_FALSE(IsArmed(timer)) << "not twice";
    EXPECT_FALSE(timer.TakeWake());
}

TEST(DueTimer, IsSetForWhatATickLeftDue) {
    CDueTimer timer;
    timer.TableChanged(cPast);
    ASSERT_TRUE(IsReadable(timer, -1));
    EXPECT_TRUE(timer.TakeWake());
    timer.TableChanged(cPast);
    ASSERT_TRUE(IsReadable(timer, -1));
    EXPECT_TRUE(timer.TakeWake());
}

TEST(DueTimer, WaitsForTheDueTime) {
    CDueTimer timer;
    for (const sys_seconds due : {cFuture, sys_seconds::max()}) {
        timer.TableChanged(due);
        EXPECT_TRUE(IsArmed(timer));
        EXPECT_FALSE(IsReadable(timer, 0));
        EXPECT_FALSE(timer.TakeWake());
        EXPECT_TRUE(IsArmed(timer)) << "still";
    }
}

TEST(DueTimer, IsStoppedWhenNoTaskIsActive) {
    CDueTimer timer;
    timer.TableChanged(cFuture);
    timer.TableChanged({});
    EXPECT_FALSE(IsArmed(timer));
    timer.TableChanged(cPast);
    timer.TableChanged({});
    EXPECT_FALSE(IsReadable(timer, 0));
    EXPECT_FALSE(timer.TakeWake());
}

TEST(DueTimer, DueTimeBefore1970IsPast) {
    CDueTimer timer;
    timer.TableChanged(sys_seconds(-1h));
    ASSERT_TRUE(IsReadable(timer, -1));
    EXPECT_TRUE(timer.TakeWake());
}
