// Whether the worker is alive: when the host checks, and what it concludes.

#include <gtest/gtest.h>
#include "host/service/CWorkerWatchdog.h"

#include <chrono>

using namespace std::chrono_literals;

class WorkerWatchdog : public testing::Test {
protected:
    static constexpr std::chrono::steady_clock::time_point cStart{1000s};
    CWorkerWatchdog watchdog{100s, cStart};
};

TEST_F(WorkerWatchdog, ChecksAtHalfOfTheLimit) {
    EXPECT_EQ(watchdog.NextCheck(), cStart + 50s);
    EXPECT_EQ(watchdog.Check(cStart + 49s, true, 0), CWorkerWatchdog::cTooEarly);
    EXPECT_EQ(watchdog.Check(cStart + 52s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watchdog.NextCheck(), cStart + 102s);
}

TEST_F(WorkerWatchdog, ChecksMoreOftenAfterAMiss) {
    EXPECT_EQ(watchdog.Check(cStart + 50s, false, 0), CWorkerWatchdog::cMissed);
    EXPECT_EQ(watchdog.NextCheck(), cStart + 60s);
    EXPECT_EQ(watchdog.Check(cStart + 60s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watchdog.NextCheck(), cStart + 110s);
}

TEST_F(WorkerWatchdog, CallsTheWorkerStuckAfterAQuarterOfTheLimitOnly) {
    for (const int missed : {50, 60, 70})
        EXPECT_EQ(watchdog.Check(cStart + missed * 1s, false, 0), CWorkerWatchdog::cMissed)
            << missed;
    EXPECT_EQ(watchdog.Check(cStart + 80s, false, 0), CWorkerWatchdog::cStuck);
    EXPECT_EQ(watchdog.Check(cStart + 90s, false, 0), CWorkerWatchdog::cStuck);
    EXPECT_EQ(watchdog.Check(cStart + 100s, true, 0), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watchdog.Check(cStart + 150s, false, 0), CWorkerWatchdog::cMissed);
}

TEST_F(WorkerWatchdog, LaunchSinceTheLastCheckMeansAlive) {
    EXPECT_EQ(watchdog.Check(cStart + 50s, false, 3), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watchdog.Check(cStart + 100s, false, 4), CWorkerWatchdog::cAlive);
    EXPECT_EQ(watchdog.Check(cStart + 150s, false, 4), CWorkerWatchdog::cMissed);
}
