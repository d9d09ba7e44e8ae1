// What becomes of a table before the host loads it: which tasks the load passes over, and which stay
// due.

#include <gtest/gtest.h>
#include "host/recovery/LaunchRecords.h"
#include "host/startup/PrepareTable.h"

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "TableEntry.h"

using vxsched::TTaskEntry;
using vxsched::TTime;

static std::string Named(const std::vector<TRunRecord>& missed) {
    std::string names;
    for (const TRunRecord& run : missed)
        names += *run.task + (run.outcome == TRunRecord::cMovedOn ? " on;" : " removed;");
    return names;
}

static TPrepared Prepared(const std::vector<TTaskEntry>& table,
                          const std::vector<TLaunchRecord>& marks = {},
                          const std::optional<TUptime>& former = {}) {
    return PrepareTable(table, marks, former, cNow);
}

static std::string NamesOf(const std::vector<TTaskEntry>& tasks) {
    std::string names;
    for (const TTaskEntry& task : tasks)
        names += task.name + ';';
    return names;
}

TEST(PrepareTable, TasksThatWereDueAreMovedOnOrRemoved) {
    const std::vector<TTaskEntry> table = {Task("past", Later(-1), "/p", ""),
                                           Task("now", cNow, "/p", ""),
                                           Task("future", Later(1), "/p", ""),
                                           Task("once past", Later(-1), "/p", "", 0),
                                           Task("once now", cNow, "/p", "", 0),
                                           Task("once future", Later(1), "/p", "", 0),
                                           Task("paused", Later(-1), "/p", "", 1, true),
                                           Task("once paused", Later(-1), "/p", "", 0, true)};
    const TPrepared prepared = Prepared(table);
    EXPECT_EQ(Named(prepared.missed), "past on;once past removed;");
    EXPECT_EQ(NamesOf(prepared.tasks), "past;now;future;once now;once future;paused;once paused;");
    EXPECT_EQ(prepared.tasks[0].next, Later(3599)) << "on its grid";
    EXPECT_EQ(prepared.tasks[5], table[6]) << "a paused one stays as it is";
}

TEST(PrepareTable, MissedOnesHaveTheirDueTimeAndCommand) {
    const auto missed = Prepared({Task("past", Later(-7), "/bin/run", "x")}).missed;
    ASSERT_EQ(missed.size(), 1U);
    EXPECT_EQ(missed[0].due, Later(-7));
    EXPECT_EQ(missed[0].program, "/bin/run");
    EXPECT_EQ(missed[0].parameter, "x");
    EXPECT_EQ(missed[0].process, 0);
}

TEST(PrepareTable, WhatCameDueUnderTheFormerHostStaysDue) {
    const std::vector<TTaskEntry> table = {
        Task("watched", Later(-7), "/p", ""), Task("once watched", Later(-7), "/p", "", 0),
        Task("later", Later(-6), "/p", ""), Task("early", Later(-90'000), "/p", ""),
        Task("long ago", Later(-90'601), "/p", "")};
    const TPrepared prepared =
        Prepared(table, {}, TUptime{.since = Later(-90'000), .until = Later(-7)});
    EXPECT_EQ(NamesOf(prepared.late), "watched;once watched;early;");
    EXPECT_EQ(Named(prepared.missed), "later on;long ago on;");
    EXPECT_EQ(BeginningOfUptime(prepared, cNow), Later(-90'000))
        << "should this host be killed too";
    EXPECT_EQ(BeginningOfUptime(Prepared(table), cNow), cNow);
    EXPECT_EQ(prepared.tasks[0], table[0]);
    EXPECT_EQ(prepared.tasks[1], table[1]);
}

TEST(PrepareTable, WhatEndedTheFormerHostInItsStartIsNotStartedAgain) {
    const TPrepared prepared =
        Prepared({Task("bad", Later(-7), "/bin/a.sh", ""), Task("good", Later(-7), "/p", "")}, {},
                 TUptime{.since = Later(-60), .until = cNow});
    EXPECT_EQ(NamesOf(prepared.late), "good;");
    EXPECT_EQ(Named(prepared.missed), "bad on;");
}

TEST(PrepareTable, WithoutAFormerHostNothingStaysDue) {
    const TPrepared prepared =
        Prepared({Task("at zero", TTime(), "/p", ""),
                  Task("once before", TTime() - std::chrono::minutes(1), "/p", "", 0)});
    EXPECT_EQ(NamesOf(prepared.late), "");
    EXPECT_EQ(Named(prepared.missed), "at zero on;once before removed;");
}

TEST(PrepareTable, WhatWasStartedIsNotStartedAgain) {
    const std::vector<TTaskEntry> table = {Task("started", Later(-7), "/p", ""),
                                           Task("once started", Later(-7), "/p", "", 0),
                                           Task("not", Later(-7), "/p", "")};
    const std::vector<TLaunchRecord> marks = {
        {.task = "started", .due = Later(-7), .started = Later(-6)},
        {.task = LaunchRecordName("once started"), .due = Later(-7), .started = Later(-5)},
        {.task = "not", .due = Later(-3607), .started = Later(-3600)}};
    const TPrepared prepared = Prepared(table, marks, TUptime{.since = Later(-60), .until = cNow});
    EXPECT_EQ(NamesOf(prepared.tasks), "started;not;");
    EXPECT_EQ(prepared.tasks[0].next, Later(3593));
    EXPECT_EQ(prepared.tasks[0].last, Later(-6));
    EXPECT_EQ(NamesOf(prepared.late), "not;");
    EXPECT_EQ(Named(prepared.missed), "");
}
