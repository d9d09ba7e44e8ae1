// The timer of the next due time: how it is set, and when its descriptor is readable. The due times
// are long past or far away, so that no test waits for the clock. No test sets the clock either: the
// calls that the kernel then fails are interposed.

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include "host/service/CDueTimer.h"
#include "interpose/NextDefinition.h"

#include <cerrno>
#include <chrono>
#include <ctime>
#include <optional>
#include <utility>

using namespace std::chrono_literals;

using std::chrono::sys_seconds;

namespace {

constexpr sys_seconds cPast(1'000'000'000s);
constexpr sys_seconds cFuture(4'102'444'800s);

// What the system clock shows; nothing: the time. The kernel's timers follow its own clock.
std::optional<sys_seconds> gNow;

// Whether the next read of a timer, or its next setting, reports that the clock was set.
bool gReportsAtRead = false;
bool gReportsAtSetting = false;

struct TSettings {
    int count = 0;
    int flags = 0;  // of the last one
} gSettings;

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

// These three are called by the timer, and the first two by the test's libraries. They differ from
// libc's as the variables above ask for; like the kernel, a setting that reports a set clock is made.
extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept {
    if (clock != CLOCK_REALTIME || !gNow)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
    *out = {.tv_sec = gNow->time_since_epoch().count(), .tv_nsec = 0};
    return 0;
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (std::exchange(gReportsAtRead, false)) {
        errno = ECANCELED;
        return -1;
    }
    return NextDefinition<ssize_t(int, void*, std::size_t)>("read")(descriptor, buffer, size);
}

extern "C" int timerfd_settime(int timer, int flags, const itimerspec* setting,
                               itimerspec* former) noexcept {
    gSettings = {.count = gSettings.count + 1, .flags = flags};
    const int result =
        NextDefinition<decltype(timerfd_settime)>("timerfd_settime")(timer, flags, setting, former);
    if (!std::exchange(gReportsAtSetting, false))
        return result;
    errno = ECANCELED;
    return -1;
}

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

// Also when no wake is asked for: the tick after the last one may have read the clock after it was
// set.
TEST(DueTimer, ReportsThatTheClockIsSet) {
    CDueTimer timer;
    for (const std::optional<sys_seconds> due :
         {std::optional(cFuture), std::optional(cPast), {}}) {
        timer.TableChanged(due);
        EXPECT_EQ(gSettings.flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
    }
    timer.TakeWake();
    EXPECT_EQ(gSettings.flags, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET);
}

// The kernel reports the end of a suspend in the same way.
TEST(DueTimer, WakesOnceMoreAfterTheClockWasSet) {
    CDueTimer timer;
    timer.TableChanged(cPast);
    EXPECT_TRUE(timer.TakeWake());
    gReportsAtRead = true;
    EXPECT_TRUE(timer.TakeWake()) << "the tick may have found nothing due";
    EXPECT_FALSE(timer.TakeWake());
    EXPECT_FALSE(IsArmed(timer));
}

TEST(DueTimer, WaitsForTheDueTimeAfterTheClockWasSet) {
    CDueTimer timer;
    timer.TableChanged(cFuture);
    gReportsAtRead = true;
    EXPECT_FALSE(timer.TakeWake());
    EXPECT_TRUE(IsArmed(timer));
}

// The tick after the last wake may have come after that, and found nothing due.
TEST(DueTimer, IsSetAgainForTheDueTimeWhenTheClockWasSetBack) {
    CDueTimer timer;
    timer.TableChanged(cFuture);
    gNow = cFuture;
    EXPECT_TRUE(timer.TakeWake());
    EXPECT_FALSE(IsArmed(timer));
    gNow = cFuture - 1h;
    gReportsAtRead = true;
    EXPECT_FALSE(timer.TakeWake());
    EXPECT_TRUE(IsArmed(timer));
    gNow.reset();
}

// The clock was set since the timer was read: by the new clock the last wake delays none.
TEST(DueTimer, IsSetAgainWhenItsSettingReportsThatTheClockWasSet) {
    CDueTimer timer;
    timer.TableChanged(cPast);
    EXPECT_TRUE(timer.TakeWake());
    gSettings.count = 0;
    gReportsAtSetting = true;
    timer.TableChanged(cPast);
    EXPECT_EQ(gSettings.count, 2);
    EXPECT_TRUE(timer.TakeWake()) << "without the pause between two wakes";
}
