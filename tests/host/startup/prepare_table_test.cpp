// What becomes of a table before the host loads it: which tasks were missed, and which stay due.

#include <gtest/gtest.h>
#include "host/recovery/LaunchRecords.h"
#include "host/startup/PrepareTable.h"
#include "store/TaskFileName.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "TableEntry.h"
#include "store/CSchedule.h"

using vxsched::cNever;
using vxsched::TTaskEntry;
using vxsched::TTime;

static std::string Named(const std::vector<TRunRecord>& missed) {
    std::string names;
    for (const TRunRecord& run : missed) {
        static const std::map<TRunRecord::EOutcome, std::string> outcomes = {
            {TRunRecord::cRescheduled, " rescheduled;"},
            {TRunRecord::cRemoved, " removed;"},
            {TRunRecord::cLaunchUnknownRescheduled, " unknown, rescheduled;"},
            {TRunRecord::cLaunchUnknownRemoved, " unknown, removed;"}};
        names += *run.task + outcomes.at(run.outcome);
    }
    return names;
}

static TPrepared Prepared(const std::vector<TTaskEntry>& table,
                          const std::vector<TLaunchRecord>& records = {},
                          const std::optional<TUptime>& previous = {},
                          const std::vector<TLaunchIntent>& intents = {}) {
    return PrepareTable(table, records, intents, previous, cNow, Later(-100));
}

static std::string NamesOf(const std::vector<TTaskEntry>& tasks) {
    std::string names;
    for (const TTaskEntry& task : tasks)
        names += task.name + ';';
    return names;
}

TEST(PrepareTable, TasksThatWereDueAreRescheduledOrRemoved) {
    const std::vector<TTaskEntry> table = {Task("past", Later(-1), "/p", ""),
                                           Task("now", cNow, "/p", ""),
                                           Task("future", Later(1), "/p", ""),
                                           Task("once past", Later(-1), "/p", "", 0),
                                           Task("once now", cNow, "/p", "", 0),
                                           Task("once future", Later(1), "/p", "", 0),
                                           Task("paused", Later(-1), "/p", "", 1, true),
                                           Task("once paused", Later(-1), "/p", "", 0, true)};
    const TPrepared prepared = Prepared(table);
    EXPECT_EQ(Named(prepared.notLaunched), "past rescheduled;once past removed;");
    EXPECT_EQ(NamesOf(prepared.tasks), "past;now;future;once now;once future;paused;once paused;");
    EXPECT_EQ(prepared.tasks[0].next, Later(3599)) << "on its grid";
    EXPECT_EQ(prepared.tasks[5], table[6]) << "a paused one stays as it is";
}

TEST(PrepareTable, MissedOnesHaveTheirDueTimeAndCommand) {
    const auto missed = Prepared({Task("past", Later(-7), "/bin/run", "x")}).notLaunched;
    ASSERT_EQ(missed.size(), 1U);
    EXPECT_EQ(missed[0].due, Later(-7));
    EXPECT_EQ(missed[0].program, "/bin/run");
    EXPECT_EQ(missed[0].parameter, "x");
    EXPECT_EQ(missed[0].process, 0);
}

TEST(PrepareTable, TasksThatCameDueUnderThePreviousHostStayDue) {
    const std::vector<TTaskEntry> table = {
        Task("while up", Later(-7), "/p", ""), Task("once while up", Later(-7), "/p", "", 0),
        Task("later", Later(-6), "/p", ""), Task("early", Later(-90'000), "/p", ""),
        Task("long ago", Later(-90'601), "/p", "")};
    const TPrepared prepared =
        Prepared(table, {}, TUptime{.since = Later(-90'000), .until = Later(-7)});
    EXPECT_EQ(NamesOf(prepared.late), "while up;once while up;early;");
    EXPECT_EQ(Named(prepared.notLaunched), "later rescheduled;long ago rescheduled;");
    EXPECT_EQ(BeginningOfUptime(prepared, cNow), Later(-90'000))
        << "in case this host is killed too";
    EXPECT_EQ(BeginningOfUptime(Prepared(table), cNow), cNow);
    EXPECT_EQ(prepared.tasks[0], table[0]);
    EXPECT_EQ(prepared.tasks[1], table[1]);
}

TEST(PrepareTable, ProgramWhoseLaunchEndedThePreviousHostIsNotLaunchedAgain) {
    const TPrepared prepared =
        Prepared({Task("bad", Later(-7), "/bin/a.sh", ""), Task("good", Later(-7), "/p", "")}, {},
                 TUptime{.since = Later(-60), .until = cNow});
    EXPECT_EQ(NamesOf(prepared.late), "good;");
    EXPECT_EQ(Named(prepared.notLaunched), "bad rescheduled;");
}

TEST(PrepareTable, WithoutAPreviousHostNothingStaysDue) {
    const TPrepared prepared =
        Prepared({Task("at zero", TTime(), "/p", ""),
                  Task("once before", TTime() - std::chrono::minutes(1), "/p", "", 0)});
    EXPECT_EQ(NamesOf(prepared.late), "");
    EXPECT_EQ(Named(prepared.notLaunched), "at zero rescheduled;once before removed;");
}

TEST(PrepareTable, LaunchedTasksAreNotLaunchedAgain) {
    const std::vector<TTaskEntry> table = {Task("launched", Later(-7), "/p", ""),
                                           Task("once launched", Later(-7), "/p", "", 0),
                                           Task("not", Later(-7), "/p", "")};
    const std::vector<TLaunchRecord> records = {
        {.task = "launched", .due = Later(-7), .launched = Later(-6)},
        {.task = vxsched::FileNameOf("once launched"), .due = Later(-7), .launched = Later(-5)},
        {.task = "not", .due = Later(-3607), .launched = Later(-3600)}};
    const TPrepared prepared =
        Prepared(table, records, TUptime{.since = Later(-60), .until = cNow});
    EXPECT_EQ(NamesOf(prepared.tasks), "launched;not;");
    EXPECT_EQ(prepared.tasks[0].next, Later(3593));
    EXPECT_EQ(prepared.tasks[0].last, Later(-6));
    EXPECT_EQ(NamesOf(prepared.late), "not;");
    EXPECT_EQ(Named(prepared.notLaunched), "");
}

TEST(PrepareTable, IntentWithoutALaunchRecordLeavesALaunchUnknown) {
    const std::vector<TTaskEntry> table = {Task("launched", Later(-7), "/p", ""),
                                           Task("perhaps", Later(-7), "/p", ""),
                                           Task("once perhaps", Later(-7), "/p", "", 0),
                                           Task("after a clock set back", Later(7), "/p", ""),
                                           Task("shown", Later(3593), "/p", ""),
                                           Task("not", Later(-7), "/p", "")};
    std::vector<TLaunchIntent> intents;
    for (std::size_t index = 0; index < 4; ++index)
        intents.push_back({vxsched::FileNameOf(table[index].name), table[index].next});
    intents.push_back({"shown", Later(-7)});
    intents.push_back({"gone", Later(-7)});
    const TPrepared prepared =
        Prepared(table, {{.task = "launched", .due = Later(-7), .launched = Later(-6)}},
                 TUptime{.since = Later(-60), .until = cNow}, intents);
    EXPECT_EQ(Named(prepared.notLaunched),
              "perhaps unknown, rescheduled;once perhaps unknown, removed;"
              "after a clock set back unknown, rescheduled;");
    EXPECT_EQ(NamesOf(prepared.late), "not;");
    EXPECT_EQ(NamesOf(prepared.tasks), "launched;perhaps;after a clock set back;shown;not;");
    EXPECT_EQ(prepared.tasks[1].next, Later(3593));
    EXPECT_EQ(prepared.tasks[2].next, Later(3607));
}

// ---- Jobs with a calendar -----------------------------------------------------------------------

// cNow is 1970-01-12 13:46:40 UTC.
static TTaskEntry Job(const std::string& options, TTime next, TTime last = TTime()) {
    TTaskEntry task = Task("job", next, "/usr/bin/vxrun", options + " -- /bin/true");
    task.last = last;
    return task;
}

TEST(PrepareTable, TaskOfStartupsIsDueOnceInEachBoot) {
    const std::string options = "--cron @reboot";
    EXPECT_EQ(Prepared({Job(options, cNever)}).tasks[0].next, cNow);
    EXPECT_EQ(Prepared({Job(options, cNever, Later(-101))}).tasks[0].next, cNow);
    EXPECT_EQ(Prepared({Job(options, cNever, Later(-100))}).tasks[0].next, cNever);
    TTaskEntry paused = Job(options, cNever);
    paused.paused = true;
    EXPECT_EQ(Prepared({paused}).tasks[0], paused);
    EXPECT_TRUE(
        Prepared({Job(options + " --until 1970-01-01T00:00:00.000Z", cNever)}).tasks.empty());
    EXPECT_TRUE(Prepared({Job(options, cNever)}).notLaunched.empty());
}

// It was due when the host ended that should have launched it.
TEST(PrepareTable, TaskOfStartupsThatWasNotLaunchedStaysDue) {
    const TPrepared prepared = Prepared({Job("--cron @reboot", Later(-7))}, {},
                                        TUptime{.since = Later(-60), .until = cNow});
    EXPECT_EQ(NamesOf(prepared.late), "job;");
    EXPECT_EQ(prepared.tasks[0].next, Later(-7));
}

TEST(PrepareTable, WhatWasMissedIsCountedByTheCalendar) {
    const TPrepared prepared = Prepared({Job("--cron '*/10 * * * *' --zone UTC", Later(-3400))});
    EXPECT_EQ(Named(prepared.notLaunched), "job rescheduled;");
    EXPECT_EQ(prepared.notLaunched[0].due, Later(-3400));
    EXPECT_EQ(prepared.notLaunched[0].missed, 6U);
    EXPECT_EQ(prepared.tasks[0].next, Later(200));
}

TEST(PrepareTable, LastTimeThatWasMissedIsCaughtUpIfItIsNotTooLate) {
    const std::string cron = "--cron '*/10 * * * *' --zone UTC --catch-up=";
    const TPrepared prepared = Prepared({Job(cron + "7m", Later(-3400))});
    EXPECT_EQ(NamesOf(prepared.caughtUp), "job;");
    EXPECT_EQ(prepared.tasks[0].next, Later(-400));
    EXPECT_EQ(prepared.notLaunched[0].missed, 5U);
    EXPECT_EQ(Prepared({Job(cron + "6m", Later(-3400))}).caughtUp.size(), 0U);
    EXPECT_EQ(NamesOf(Prepared({Job("--catch-up", Later(-7))}).caughtUp), "job;") << "of a period";
}

TEST(PrepareTable, JobThatIsOverIsRemoved) {
    const std::string until = " --until 1970-01-12T13:50:00.000Z";
    EXPECT_EQ(Prepared({Job("--cron '*/10 * * * *' --zone UTC" + until, Later(-400))}).tasks.size(),
              1U);
    EXPECT_EQ(Prepared({Job("--cron '0 * * * *' --zone UTC" + until, Later(-2800))}).tasks.size(),
              0U);
    EXPECT_EQ(Prepared({Job(until, Later(-7))}).tasks.size(), 0U) << "of a period of an hour";
}
