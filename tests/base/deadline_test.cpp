// The end of a wait: when it has passed, how long is left, and how the pauses between tries fit.

#include <gtest/gtest.h>
#include "base/CDeadline.h"

#include <chrono>

#include "FakeMonotonicClock.h"

using namespace std::chrono_literals;

TEST(Deadline, PausesLastUntilItHasPassedAndNoLonger) {
    CFakeMonotonicClock clock;
    const CDeadline deadline(12ms);
    int pauses = 0;
    while (deadline.Pause())
        ++pauses;
    EXPECT_EQ(pauses, 3);
    EXPECT_EQ(clock.slept, 12ms);
    EXPECT_FALSE(deadline.Pause());
    EXPECT_EQ(clock.slept, 12ms);
}

TEST(Deadline, PauseIsAsLongAsWanted) {
    CFakeMonotonicClock clock;
    const CDeadline deadline(1s);
    EXPECT_TRUE(deadline.Pause(50ms));
    EXPECT_EQ(clock.slept, 50ms);
}

TEST(Deadline, HasPassedWhenNothingIsLeft) {
    CFakeMonotonicClock clock;
    const CDeadline deadline(2500ms);
    EXPECT_EQ(deadline.TimeLeft().tv_sec, 2);
    EXPECT_EQ(deadline.TimeLeft().tv_nsec, 500'000'000);
    clock.slept = 2500ms - 1ns;
    EXPECT_FALSE(deadline.HasPassed());
    EXPECT_EQ(deadline.TimeLeft().tv_sec, 0);
    EXPECT_EQ(deadline.TimeLeft().tv_nsec, 1);
    clock.slept = 2500ms;
    EXPECT_TRUE(deadline.HasPassed());
    clock.slept = 1h;
    EXPECT_TRUE(deadline.HasPassed());
    EXPECT_EQ(deadline.TimeLeft().tv_sec, 0);
    EXPECT_EQ(deadline.TimeLeft().tv_nsec, 0);
}

TEST(Deadline, WithoutATimeoutHasPassed) {
    CFakeMonotonicClock clock;
    for (const std::chrono::milliseconds timeout : {0ms, -1ms}) {
        EXPECT_TRUE(CDeadline(timeout).HasPassed());
        EXPECT_FALSE(CDeadline(timeout).Pause());
    }
    EXPECT_EQ(clock.slept, 0ms);
}
