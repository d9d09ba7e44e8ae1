// Two changes of one table that neither saw the other's.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "store/MergeChanges.h"

using vxsched::MergeChanges;
using vxsched::Renamed;
using vxsched::TTaskEntry;

using TTasks = std::vector<TTaskEntry>;

static TTaskEntry Task(const std::string& name, std::uint32_t period = 24) {
    return {name, vxsched::TTime(std::chrono::seconds(1000)), {}, period, "/bin/true", "text",
            false};
}

static vxsched::TTime At(int second) {
    return vxsched::TTime(std::chrono::seconds(second));
}

static std::string Bytes(const TTasks& tasks) {
    return vxsched::EncodeTable(tasks);
}

static TTasks Merge(const TTasks& base, const TTasks& ours, const TTasks& theirs) {
    return vxsched::DecodeTable(MergeChanges(Bytes(base), Bytes(ours), Bytes(theirs)), {}).tasks;
}

TEST(MergeChanges, KeepsTheNewTasksOfBoth) {
    EXPECT_EQ(Merge({Task("a")}, {Task("a"), Task("ours")}, {Task("a"), Task("theirs")}),
              (TTasks{Task("a"), Task("theirs"), Task("ours")}));
    EXPECT_EQ(Merge({}, {Task("ours")}, {Task("theirs")}), (TTasks{Task("theirs"), Task("ours")}));
}

TEST(MergeChanges, KeepsTheRemovalsOfBoth) {
    EXPECT_EQ(
        Merge({Task("a"), Task("b"), Task("c")}, {Task("b"), Task("c")}, {Task("a"), Task("c")}),
        TTasks{Task("c")});
}

TEST(MergeChanges, KeepsEveryFieldThatOneHasChanged) {
    TTaskEntry ours = Task("a");
    ours.next = At(2000);
    ours.last = At(1001);
    TTaskEntry theirs = Task("a");
    theirs.period = 48;
    theirs.program = "/bin/false";
    theirs.parameter = "other";
    theirs.paused = true;
    const TTaskEntry both{"a", At(2000), At(1001), 48, "/bin/false", "other", true};
    EXPECT_EQ(Merge({Task("a")}, {ours}, {theirs}), TTasks{both});
    EXPECT_EQ(Merge({Task("a")}, {theirs}, {ours}), TTasks{both});
}

TEST(MergeChanges, TakesTheirsOfAFieldThatBothHaveChanged) {
    TTaskEntry ours = Task("a");
    ours.next = At(2000);
    TTaskEntry theirs = Task("a");
    theirs.next = At(3000);
    EXPECT_EQ(Merge({Task("a")}, {ours}, {theirs}), TTasks{theirs});
}

// A tick reschedules a task that somebody removes meanwhile.
TEST(MergeChanges, RemovesATaskThatTheOtherHasChanged) {
    TTaskEntry rescheduled = Task("a");
    rescheduled.next = At(2000);
    EXPECT_EQ(Merge({Task("a")}, {rescheduled}, {}), TTasks{});
    EXPECT_EQ(Merge({Task("a")}, {}, {rescheduled}), TTasks{});
}

// A tick removes a task that has run once: it must not run again for another reason than a new due
// time.
TEST(MergeChanges, KeepsATaskThatRanOnceOnlyWithAnotherDueTime) {
    TTaskEntry paused = Task("a", 0);
    paused.paused = true;
    TTaskEntry again = Task("a", 0);
    again.next = At(2000);
    EXPECT_EQ(Merge({Task("a", 0)}, {}, {paused}), TTasks{});
    EXPECT_EQ(Merge({Task("a", 0)}, {}, {again}), TTasks{again});
    EXPECT_EQ(Merge({Task("a", 0)}, {again}, {}), TTasks{again});
}

TEST(MergeChanges, TakesOursWhereThereIsNothingToMerge) {
    const std::string ours = Bytes({Task("ours")});
    const std::string table = Bytes({Task("a")});
    EXPECT_EQ(MergeChanges(table, ours, table), ours);
    EXPECT_EQ(MergeChanges(table, ours, ours), ours);
    EXPECT_EQ(MergeChanges(table, ours, ""), ours) << "no table";
    EXPECT_EQ(MergeChanges("", ours, table), ours) << "nothing is known";
    EXPECT_EQ(MergeChanges(table, "cut", table + "x"), "cut");
    const std::string duplicate = Bytes({Task("a"), Task("a")});
    EXPECT_EQ(MergeChanges(table, ours, duplicate), ours);
}

TEST(Renamed, GivesTheTaskItsNewNameInItsPlace) {
    EXPECT_EQ(Renamed(Bytes({Task("a"), Task("b"), Task("c")}), {{"b", "new"}}),
              Bytes({Task("a"), Task("new"), Task("c")}));
}

TEST(Renamed, LeavesATableThatLacksTheTaskOrHasTheName) {
    for (const std::string& bytes :
         {Bytes({Task("a")}), Bytes({Task("b"), Task("new")}), std::string("no table")})
        EXPECT_EQ(Renamed(bytes, {{"b", "new"}}), bytes);
}
