// When the host wakes the worker because a task falls due. No test waits for the clock.

#include <gtest/gtest.h>
#include "host/service/CDueWake.h"
#include "host/service/EarliestDue.h"

#include <vector>

#include <vxsched/Table.h>

using namespace std::chrono_literals;

using std::chrono::sys_seconds;

namespace {

constexpr sys_seconds cDue(1'800'000'000s);

CDueWake WakeFor(sys_seconds due) {
    CDueWake wake;
    wake.TableChanged(due);
    return wake;
}

vxsched::TTaskEntry Task(sys_seconds next, bool paused = false) {
    vxsched::TTaskEntry task;
    task.next = next;
    task.paused = paused;
    return task;
}

// A due time that counts its comparisons.
struct TCountedTime {
    int time = 0;
    static inline int comparisons = 0;
    bool operator<(const TCountedTime& other) const {
        ++comparisons;
        return time < other.time;
    }
};

struct TCountedTask {
    TCountedTime next;
    bool paused = false;
};

}  // namespace

TEST(DueWake, IsAskedForAtTheDueTimeNotBeforeAndNotTwice) {
    CDueWake wake = WakeFor(cDue);
    EXPECT_EQ(wake.Next(), cDue);
    EXPECT_FALSE(wake.Take(cDue - 1ns));
    EXPECT_TRUE(wake.Take(cDue));
    EXPECT_FALSE(wake.Take(cDue));
    EXPECT_FALSE(wake.Take(cDue + 1h));
    EXPECT_EQ(wake.Next(), std::nullopt);
}

TEST(DueWake, FollowsTheTable) {
    CDueWake wake;
    EXPECT_EQ(wake.Next(), std::nullopt) << "no table was read";
    wake.TableChanged(cDue);
    wake.TableChanged(cDue + 1h);
    EXPECT_EQ(wake.Next(), cDue + 1h) << "postponed";
    wake.TableChanged(cDue - 1h);
    EXPECT_EQ(wake.Next(), cDue - 1h) << "an earlier task was made";
    wake.TableChanged({});
    EXPECT_EQ(wake.Next(), std::nullopt) << "removed or paused";
    EXPECT_FALSE(wake.Take(cDue + 1h));
    wake.TableChanged(cDue);
    EXPECT_EQ(wake.Next(), cDue) << "restored";
}

TEST(DueWake, FollowsTheRescheduling) {
    CDueWake wake = WakeFor(cDue);
    EXPECT_TRUE(wake.Take(cDue));
    wake.TableChanged(cDue + 24h);
    EXPECT_FALSE(wake.Take(cDue + 24h - 1ns));
    EXPECT_TRUE(wake.Take(cDue + 24h));
}

TEST(DueWake, IsRepeatedForWhatATickLeftDueTenTimesASecondAtMost) {
    CDueWake wake = WakeFor(cDue);
    EXPECT_TRUE(wake.Take(cDue + 1ms));
    wake.TableChanged(cDue);
    EXPECT_FALSE(wake.Take(cDue + 2ms));
    EXPECT_EQ(wake.Next(), cDue + 101ms);
    wake.TableChanged(cDue);
    EXPECT_FALSE(wake.Take(cDue + 101ms - 1ns));
    EXPECT_TRUE(wake.Take(cDue + 101ms));
    wake.TableChanged(cDue);
    EXPECT_EQ(wake.Next(), cDue + 201ms);
}

TEST(DueWake, OneThatIsLongDueIsAskedForAtOnce) {
    CDueWake wake = WakeFor(sys_seconds());
    EXPECT_TRUE(wake.Take(cDue));
    wake = WakeFor(sys_seconds(-1h));
    EXPECT_EQ(wake.Next(), sys_seconds()) << "a timer takes no time before 1970";
    EXPECT_TRUE(wake.Take(cDue));
}

TEST(DueWake, ComesAfterAForwardJumpOrASuspend) {
    CDueWake wake = WakeFor(cDue);
    wake.ClockSet();
    EXPECT_TRUE(wake.Take(cDue + 24h));
    EXPECT_FALSE(wake.Take(cDue + 24h));
}

// The tick after the wake may have read the clock after the jump, and found nothing due.
TEST(DueWake, IsRepeatedAfterABackwardJumpOnceTheClockReachesTheDueTime) {
    CDueWake wake = WakeFor(cDue);
    EXPECT_TRUE(wake.Take(cDue));
    wake.ClockSet();
    EXPECT_EQ(wake.Next(), cDue);
    EXPECT_FALSE(wake.Take(cDue - 1h));
    EXPECT_TRUE(wake.Take(cDue));
}

// A wake by the former clock, which may have been years ahead, keeps none back.
TEST(DueWake, IsNotDelayedByOneBeforeABackwardJump) {
    CDueWake wake = WakeFor(cDue);
    EXPECT_TRUE(wake.Take(cDue + 24h));
    wake.TableChanged(cDue);
    wake.ClockSet();
    EXPECT_TRUE(wake.Take(cDue));
}

TEST(DueWake, DueTimesMayBeAnyNumberOfSeconds) {
    const sys_seconds year2100(4'102'444'800s);
    EXPECT_EQ(WakeFor(year2100).Next(), year2100);
    const sys_seconds latest = sys_seconds::max();
    ASSERT_TRUE(WakeFor(latest).Next());
    EXPECT_GT(*WakeFor(latest).Next(), year2100);
    const sys_seconds first = sys_seconds::min();
    EXPECT_EQ(WakeFor(first).Next(), sys_seconds());
}

TEST(EarliestDue, IsThatOfTheActiveTasks) {
    using TTasks = std::vector<vxsched::TTaskEntry>;
    EXPECT_EQ(EarliestDue(TTasks()), std::nullopt);
    EXPECT_EQ(EarliestDue(TTasks{Task(cDue, true)}), std::nullopt);
    EXPECT_EQ(EarliestDue(
                  TTasks{Task(cDue + 2s), Task(cDue - 1s, true), Task(cDue + 1s), Task(cDue + 3s)}),
              cDue + 1s);
}

TEST(EarliestDue, ComparesEachOfTenThousandTasksOnce) {
    constexpr int cTasks = 10'000;
    std::vector<TCountedTask> tasks;
    tasks.reserve(cTasks);
    for (int number = 0; number < cTasks; ++number)
        tasks.push_back({.next = {.time = 7919 * number % 10'007}, .paused = number % 10 == 0});
    TCountedTime::comparisons = 0;
    ASSERT_TRUE(EarliestDue(tasks));
    EXPECT_LE(TCountedTime::comparisons, cTasks);
}
