// The next-run rule: the next due time of a task whose due time has passed. Tests call the
// file-local function and the exported functions that use it.

#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "Process.h"
#include "TableFile.h"

static constexpr time_t cNow = 1'000'000;

class NextRun : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        inside = std::make_unique<CInsideLibrary>();
    }

    // A task in the list, which owns it.
    TTask* Add(const char* name, time_t next, std::uint32_t period) {
        auto* const task = new TTask;
        task->name = name;
        task->nextExecution = next;
        task->period = period;
        inside->TaskList()->push_back(task);
        return task;
    }

    // The due time to which the rule reschedules a repeating task.
    time_t Move(time_t now, time_t next, std::uint32_t period) {
        system.now = now;
        TTask* const task = Add("moved", next, period);
        inside->SetNextTime(task, false);
        return task->nextExecution;
    }

    std::string Names() {
        std::string names;
        for (const TTask* task : *inside->TaskList())
            names += (names.empty() ? "" : " ") + task->name;
        return names;
    }

    CFakeSystem system{cNow};
    std::unique_ptr<CInsideLibrary> inside;
};

struct TMove {
    time_t now;
    time_t next;
    std::uint32_t period;
    time_t moved;
};
void PrintTo(const TMove& move, std::ostream* out) {
    *out << "now " << move.now << ", next " << move.next << ", period " << move.period;
}

class NextRunTable : public NextRun, public testing::WithParamInterface<TMove> {};

TEST_P(NextRunTable, GoesToTheFirstPointOfTheGridThatIsNotPast) {
    const TMove move = GetParam();
    EXPECT_EQ(Move(move.now, move.next, move.period), move.moved);
}

INSTANTIATE_TEST_SUITE_P(HourlyFrom1000, NextRunTable,
                         testing::Values(TMove{999, 1000, 1, 1000}, TMove{1000, 1000, 1, 1000},
                                         TMove{1001, 1000, 1, 4600}, TMove{4600, 1000, 1, 4600},
                                         TMove{4601, 1000, 1, 8200}, TMove{19001, 1000, 1, 22600}));

INSTANTIATE_TEST_SUITE_P(
    Periods, NextRunTable,
    testing::Values(TMove{1001, 1000, 24, 1000 + 86400},
                    // Ten periods late.
                    TMove{1000 + 10 * 86400, 1000, 24, 1000 + 10 * 86400},
                    TMove{1001 + 10 * 86400, 1000, 24, 1000 + 11 * 86400},
                    // The longest step that does not wrap, and the first that does.
                    TMove{1001, 1000, 1193046, 1000 + 4294965600},
                    TMove{1001, 1000, 1193047, 1000 + 1904},
                    TMove{1000 + 1905, 1000, 1193047, 1000 + 2 * 1904},
                    TMove{1001, 1000, 4294967295, 1000 + 4294963696},
                    TMove{1001, 1000, 268435457, 1000 + 3600}));

INSTANTIATE_TEST_SUITE_P(StepOfZeroThatIsNotPast, NextRunTable,
                         testing::Values(TMove{999, 1000, 268435456, 1000},
                                         TMove{1000, 1000, 268435456, 1000},
                                         TMove{1000, 1000, 3221225472, 1000}));

INSTANTIATE_TEST_SUITE_P(EndsOfTheRange, NextRunTable,
                         testing::Values(TMove{cNow, INT64_MAX, 1, INT64_MAX},
                                         TMove{INT64_MAX, INT64_MAX, 1, INT64_MAX},
                                         TMove{INT64_MIN, INT64_MIN, 1, INT64_MIN},
                                         TMove{-5000, -10000, 1, -2800},
                                         TMove{INT64_MIN + 1, INT64_MIN, 1, INT64_MIN + 3600},
                                         TMove{INT64_MIN, cNow, 1, cNow},
                                         TMove{INT64_MAX - 1, INT64_MAX - 3601, 1, INT64_MAX - 1}));

static std::string CpuTimeOf(pid_t process) {
    const std::string stat = ReadFile("/proc/" + std::to_string(process) + "/stat");
    std::size_t position = stat.rfind(')');
    for (int field = 0; field < 12; ++field)
        position = stat.find(' ', position + 1);
    return stat.substr(position + 1, stat.find(' ', position + 1) - position - 1);
}

// It neither ends nor sleeps: it uses the processor until it is killed.
static void ExpectEndless(const std::function<int()>& body) {
    CForkedChild child(body);
    WaitUntil([&] { return std::stoul(CpuTimeOf(child.Id())) >= 20; });
    child.Kill(SIGKILL);
    EXPECT_EQ(child.Wait(), 1000 + SIGKILL);
}

// It wraps to the first second and continues from there, practically for ever; undefined behaviour
// would make the sanitizers abort it.
TEST_F(NextRun, CatchUpBeyondTheLastSecondIsNoUndefinedBehaviour) {
    ExpectEndless([&] {
        Move(INT64_MAX, INT64_MAX - 10, 1);
        return 0;
    });
}

TEST_F(NextRun, StepOfZeroNeverCatchesUp) {
    for (const std::uint32_t period : {268435456U, 536870912U}) {
        ExpectEndless([&] {
            Move(1001, 1000, period);
            return 0;
        });
    }
}

TEST_F(NextRun, TaskThatIsNotDueIsLeftAloneAndNothingIsSaved) {
    TTask* const once = Add("once", cNow + 1, 0);
    TTask* const often = Add("often", cNow + 1, 1);
    std::filesystem::remove(cTable);
    inside->SetNextTime(once, true);
    inside->SetNextTime(often, true);
    EXPECT_FALSE(std::filesystem::exists(cTable));
    EXPECT_EQ(Names(), "once often");
    EXPECT_EQ(often->nextExecution, cNow + 1);
}

TEST_F(NextRun, DueRepeatingTaskIsSavedAfterTheChange) {
    inside->SetNextTime(Add("often", cNow - 1, 1), true);
    EXPECT_EQ(ReadTable(), TRows({{"often", cNow - 1 + 3600, 0, 1, "", "", 0}}));
}

TEST_F(NextRun, RepeatingTaskExactlyAtItsTimeIsSavedToo) {
    std::filesystem::remove(cTable);
    inside->SetNextTime(Add("often", cNow, 1), true);
    EXPECT_EQ(ReadTable(), TRows({{"often", cNow, 0, 1, "", "", 0}}));
}

TEST_F(NextRun, RemovalIsSaved) {
    Add("stays", cNow + 1, 0);
    inside->SetNextTime(Add("once", cNow, 0), true);
    EXPECT_EQ(NamesInTable(), "stays");
}

TEST_F(NextRun, WithoutTheSaveFlagTheFileIsNotTouched) {
    std::filesystem::remove(cTable);
    inside->SetNextTime(Add("often", cNow - 1, 1), false);
    inside->SetNextTime(Add("once", cNow, 0), false);
    EXPECT_FALSE(std::filesystem::exists(cTable));
    EXPECT_EQ(Names(), "often");
}

TEST_F(NextRun, TaskThatRunsOnceAndIsNotInTheListRemovesNothing) {
    Add("another", cNow, 0);
    TTask outside;
    outside.name = "outside";
    outside.nextExecution = cNow - 1;
    inside->SetNextTime(&outside, false);
    EXPECT_EQ(Names(), "another");
    EXPECT_EQ(outside.nextExecution, cNow - 1);
}

TEST_F(NextRun, TaskThatIsNotInTheListRemovesTheOneOfItsName) {
    Add("same", cNow + 1000, 24);
    TTask outside;
    outside.name = "same";
    outside.nextExecution = cNow;
    inside->SetNextTime(&outside, false);
    EXPECT_EQ(Names(), "");
}

TEST_F(NextRun, OfTwoOfANameTheFirstIsRemovedWhicheverIsPassed) {
    Add("same", cNow - 2, 0);
    TTask* const second = Add("same", cNow - 1, 0);
    inside->SetNextTime(second, false);
    ASSERT_EQ(inside->TaskList()->size(), 1U);
    EXPECT_EQ(inside->TaskList()->front(), second);
}

TEST_F(NextRun, NameWithAZeroByteIsNeverFoundSoTheTaskStays) {
    TTask* const task = Add("", cNow, 0);
    task->name = std::string("a\0b", 3);
    inside->SetNextTime(task, false);
    EXPECT_EQ(inside->TaskList()->size(), 1U);
    // The part before the zero byte may be another task's name: that task is removed.
    Add("a", cNow + 5000, 1);
    inside->SetNextTime(task, false);
    ASSERT_EQ(inside->TaskList()->size(), 1U);
    EXPECT_EQ(inside->TaskList()->front(), task);
}

TEST_F(NextRun, TimeIsReadOnce) {
    TTask* const task = Add("often", cNow - 100'000, 1);
    const int before = system.timeReadings;
    inside->SetNextTime(task, false);
    EXPECT_EQ(system.timeReadings - before, 1);
}

TEST_F(NextRun, NoTaskAtAllFailsTheAssertion) {
    EXPECT_DEATH(
        inside->SetNextTime(nullptr, false),
        "Scheduler\\.cpp:[0-9]+: void SetNextTime\\(TTask\\*, bool\\): Assertion `Task' failed");
}
