// What the host makes of a table: which task a start is for, and which tasks a load passes over.

#include <gtest/gtest.h>
#include <host/CDueTasks.h>
#include <host/MissedTasks.h>

#include <ctime>
#include <filesystem>

#include "TableFile.h"

using vxsched::TTaskEntry;
using vxsched::TTime;

static constexpr TTime cNow{std::chrono::seconds(1'000'000)};

static TTime Later(int seconds) {
    return cNow + std::chrono::seconds(seconds);
}

static TTaskEntry Task(const std::string& name, TTime next, const std::string& program,
                       const std::string& parameter, std::uint32_t period = 1,
                       bool paused = false) {
    return {.name = name,
            .next = next,
            .last = TTime(),
            .period = period,
            .program = program,
            .parameter = parameter,
            .paused = paused};
}

// As "name" or "name, not due"; "" when none was found.
static std::string Found(CDueTasks& tasks, const std::vector<TTaskEntry>& table,
                         const std::string& state, const std::string& program,
                         const std::string& parameter) {
    const auto task = tasks.Find(table, state, cNow, program, parameter);
    if (!task)
        return "";
    return task->due ? task->name : task->name + ", not due";
}

// ---- Which task a start is for
// ---------------------------------------------------------------------------------

TEST(DueTasks, AreFoundByProgramAndParameter) {
    const std::vector<TTaskEntry> table = {Task("a", cNow, "/bin/run", "x"),
                                           Task("b", cNow, "/bin/run", "y"),
                                           Task("c", cNow, "/bin/two", "x")};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "1", "/bin/run", "y"), "b");
    EXPECT_EQ(Found(tasks, table, "1", "/bin/two", "x"), "c");
    EXPECT_EQ(Found(tasks, table, "1", "/bin/run", "x"), "a");
    EXPECT_EQ(Found(tasks, table, "1", "/bin/run", "z"), "");
    EXPECT_EQ(tasks.Find(table, "2", cNow, "/bin/run", "x")->due, cNow);
}

TEST(DueTasks, OfTwinsTheDueOneIsMeant) {
    const std::vector<TTaskEntry> table = {Task("later", Later(1), "/bin/run", "x"),
                                           Task("paused", cNow, "/bin/run", "x", 1, true),
                                           Task("due", cNow, "/bin/run", "x")};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "1", "/bin/run", "x"), "due");
}

TEST(DueTasks, OfDueTwinsEachIsMeantOnceATick) {
    const std::vector<TTaskEntry> table = {Task("first", cNow, "/bin/run", "x"),
                                           Task("second", Later(-5), "/bin/run", "x")};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "tick", "/bin/run", "x"), "first");
    EXPECT_EQ(Found(tasks, table, "tick", "/bin/run", "x"), "second");
    EXPECT_EQ(Found(tasks, table, "next tick", "/bin/run", "x"), "first");
}

TEST(DueTasks, WithoutADueOneTheNameIsToldWithoutADueTime) {
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, {Task("later", Later(1), "/bin/run", "x")}, "1", "/bin/run", "x"),
              "later, not due");
}

TEST(DueTasks, TableThatALoadChangedInTheMiddleOfATickDoesNotHideTheDueOnes) {
    CDueTasks tasks;
    const std::vector<TTaskEntry> table = {Task("one", cNow, "/bin/run", "1"),
                                           Task("once", cNow, "/bin/run", "2", 0),
                                           Task("other", cNow, "/bin/run", "3")};
    EXPECT_EQ(Found(tasks, table, "before", "/bin/run", "1"), "one");
    const std::vector<TTaskEntry> loaded = {Task("one", Later(3600), "/bin/run", "1"),
                                            Task("other", Later(3600), "/bin/run", "3")};
    EXPECT_EQ(Found(tasks, loaded, "after", "/bin/run", "2"), "once");
    EXPECT_EQ(Found(tasks, loaded, "after", "/bin/run", "3"), "other");
    EXPECT_EQ(Found(tasks, loaded, "after", "/bin/run", "1"), "one, not due");
}

TEST(DueTasks, ProgramIsComparedAsItIsStarted) {
    const std::vector<TTaskEntry> table = {
        Task("exe", cNow, "/bin/one.exe", "x"),
        Task("zero", cNow, std::string("/bin/two\0tail", 13), std::string("y\0z", 3))};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "1", "/bin/on", "x"), "exe");
    EXPECT_EQ(Found(tasks, table, "1", "/bin/two", "y"), "zero");
}

TEST(DueTasks, AreReadFromTheTableInTheDirectory) {
    WriteTable({{"task", std::time(nullptr) - 5, 0, 1, "/bin/program", "x", 0}});
    CDueTasks tasks;
    ASSERT_TRUE(tasks.Find("/bin/program", "x"));
    EXPECT_EQ(tasks.Find("/bin/program", "x")->due, std::nullopt) << "found in this tick before";
    WriteTable({{"renamed", std::time(nullptr) - 5, 0, 1, "/bin/program", "x", 0}});
    ASSERT_TRUE(tasks.Find("/bin/program", "x"));
    std::filesystem::remove_all("files");
    EXPECT_EQ(tasks.Find("/bin/program", "x"), std::nullopt);
}

// ---- Which tasks a load passes over
// ----------------------------------------------------------------------------

static std::string Named(const std::vector<TRunRecord>& missed) {
    std::string names;
    for (const TRunRecord& run : missed)
        names += *run.task + (run.outcome == TRunRecord::cMovedOn ? " on;" : " removed;");
    return names;
}

TEST(MissedTasks, AreThoseThatTheLoadMovesOnOrRemoves) {
    const std::vector<TTaskEntry> table = {Task("past", Later(-1), "/p", ""),
                                           Task("now", cNow, "/p", ""),
                                           Task("future", Later(1), "/p", ""),
                                           Task("once past", Later(-1), "/p", "", 0),
                                           Task("once now", cNow, "/p", "", 0),
                                           Task("once future", Later(1), "/p", "", 0),
                                           Task("paused", Later(-1), "/p", "", 1, true),
                                           Task("once paused", Later(-1), "/p", "", 0, true)};
    EXPECT_EQ(Named(FindMissed(table, cNow)),
              "past on;once past removed;once now removed;once paused removed;");
}

TEST(MissedTasks, HaveTheirDueTimeAndCommand) {
    const auto missed = FindMissed({Task("past", Later(-7), "/bin/run", "x")}, cNow);
    ASSERT_EQ(missed.size(), 1U);
    EXPECT_EQ(missed[0].due, Later(-7));
    EXPECT_EQ(missed[0].program, "/bin/run");
    EXPECT_EQ(missed[0].parameter, "x");
    EXPECT_EQ(missed[0].process, 0);
}

TEST(MissedTasks, BecomingDueWhileTheLoadWentOnCountOnlyIfItPassedThemOver) {
    const std::vector<TTaskEntry> table = {
        Task("before", Later(-1), "/p", ""), Task("passed over", cNow, "/p", ""),
        Task("kept", cNow, "/p", "k"), Task("removed", Later(1), "/p", "", 0),
        Task("future", Later(2), "/p", "")};
    std::vector<TTaskEntry> after = table;
    after[0].next = Later(3599);
    after[1].next = Later(3600);
    after.erase(after.begin() + 3);
    EXPECT_EQ(Named(FindMissedMeanwhile(table, cNow, Later(1), after)),
              "passed over on;removed removed;");
    EXPECT_EQ(Named(FindMissedMeanwhile(table, cNow, cNow, after)), "");
}
