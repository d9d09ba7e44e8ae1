// Whether the worker lives: when the host looks for a sign of life, and what it makes of none.

#include <gtest/gtest.h>
#include "host/service/CWorkerWatchdog.h"

#include <chrono>

using namespace std::chrono_literals;

class WorkerWatch : public testing::Test {
protected:
    static constexpr std::chrono::steady_clock::time_point cStart{1000s};
    CWorkerWatchdog watch{100s, cStart};
};

TEST_F(WorkerWatch, LooksAtHalfOfTheLimit) {
    EXPECT_EQ(watch.NextCheck(), cStart + 50s);
    EXPECT_EQ(watch.Look(cStart + 49s, true, 0), CWorkerWatchdog::cTooEarly);
    EXPECT_EQ(watch.Look(cStart + 52s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watch.NextCheck(), cStart + 102s);
}

TEST_F(WorkerWatch, LooksMoreOftenWithoutASignOfLife) {
    EXPECT_EQ(watch.Look(cStart + 50s, false, 0), CWorkerWatchdog::cMissed);
    EXPECT_EQ(watch.NextCheck(), cStart + 60s);
    EXPECT_EQ(watch.Look(cStart + 60s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watch.NextCheck(), cStart + 110s);
}

TEST_F(WorkerWatch, CallsTheWorkerStuckAfterAQuarterOfTheLimitOnly) {
    for (const int missed : {50, 60, 70})
        EXPECT_EQ(watch.Look(cStart + missed * 1s, false, 0), CWorkerWatchdog::cMissed) << missed;
    EXPECT_EQ(watch.Look(cStart + 80s, false, 0), CWorkerWatchdog::cStuck);
    EXPECT_EQ(watch.Look(cStart + 90s, false, 0), CWorkerWatchdog::cStuck);
    EXPECT_EQ(watch.Look(cStart + 100s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watch.Look(cStart + 150s, false, 0), CWorkerWatchdog::cMissed);
}

TEST_F(WorkerWatch, StartSinceTheLastSignIsOne) {
    EXPECT_EQ(watch.Look(cStart + 50s, false, 3), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watch.Look(cStart + 100s, false, 4), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watch.Look(cStart + 150s, false, 4), CWorkerWatchdog::cMissed);
}
