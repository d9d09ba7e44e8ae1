// What the host makes of a table: which task a start is for, and which tasks a load passes over.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include "host/programs/CDueTasks.h"
#include "host/recovery/CSnapshots.h"
#include "host/recovery/LaunchRecords.h"
#include "host/startup/PrepareTable.h"
#include "store/Backups.h"

#include <ctime>
#include <filesystem>
#include <set>

#include "Process.h"
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

// A sanitizer takes more than this limit for itself.
#ifdef PLAIN_BUILD
TEST(DueTasks, OfATableThatMemoryDoesNotHoldAreNotTold) {
    WriteTable({});
    std::filesystem::resize_file(cTable, 1 << 30);
    CForkedChild child([] {
        const rlimit limit{.rlim_cur = 1 << 29, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_AS, &limit);
        return CDueTasks().Find("/bin/program", "x") ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    std::filesystem::remove_all("files");
}
#endif

// ---- What becomes of the table before the load
// ----------------------------------------------------------------------------

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

TEST(StartMarks, AreFoundByTaskAndDueTimeWhateverTheName) {
    std::filesystem::create_directory("files");
    ASSERT_TRUE(MakeLaunchRecordDirectory());
    ASSERT_TRUE(MakeLaunchRecordDirectory()) << "it may be there already";
    const std::string longest(5'000, '\xe4');
    for (const std::string& name :
         {std::string("plain"), std::string("a/b"), std::string(".."), std::string("at@5"),
          std::string("%41"), std::string("\xff blank"), longest}) {
        WriteFile(LaunchRecordPath(name, Later(3)), "");
        const std::vector<TLaunchRecord> marks = ReadLaunchRecords();
        ASSERT_EQ(marks.size(), 1U) << name;
        EXPECT_TRUE(marks[0].IsOf(name, Later(3))) << name;
        EXPECT_FALSE(marks[0].IsOf(name, Later(4))) << name;
        EXPECT_FALSE(marks[0].IsOf(std::string(name) + "x", Later(3))) << name;
        RemoveLaunchRecord(marks[0]);
        EXPECT_TRUE(ReadLaunchRecords().empty()) << name;
    }
}

TEST(StartMarks, AreShownByATableThatHasMovedOn) {
    const std::vector<TLaunchRecord> marks = {{.task = "moved", .due = cNow, .started = cNow},
                                              {.task = "behind", .due = cNow, .started = cNow},
                                              {.task = "gone", .due = cNow, .started = cNow}};
    const auto shown =
        FindSettled(marks, {Task("moved", Later(3600), "/p", ""), Task("behind", cNow, "/p", "")});
    ASSERT_EQ(shown.size(), 2U);
    EXPECT_EQ(shown[0].task, "moved");
    EXPECT_EQ(shown[1].task, "gone");
}

static void Keep(CSnapshots& snapshots, const std::string& bytes) {
    snapshots.Keep(std::make_shared<const std::string>(bytes));
}

// As a host that comes and goes.
static void KeepOnce(std::size_t limit, const std::string& bytes) {
    CSnapshots snapshots(limit);
    Keep(snapshots, bytes);
}

TEST(Snapshots, AreABoundedRingOfWholeTables) {
    std::filesystem::create_directory("files");
    CSnapshots snapshots(3);
    for (const char* const bytes : {"one", "two", "two", "three", "four"})
        Keep(snapshots, bytes);
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::set<std::string>{"two", "three", "four"}));
    CSnapshots none(0);
    Keep(none, "five");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(CSnapshots::Directory()),
                            std::filesystem::directory_iterator()),
              3);
}

TEST(Snapshots, OfHostsThatComeAndGoPushNoOtherTableOut) {
    std::filesystem::create_directory("files");
    KeepOnce(3, "other");
    for (int host = 0; host < 5; ++host)
        KeepOnce(3, "same");
    std::multiset<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::multiset<std::string>{"other", "same"}));
    std::filesystem::remove_all("files");
}

// The snapshots of a host whose clock was ahead, and that of one whose clock was set back.
class SnapshotsOfAClockThatWasSetBack : public testing::Test {
protected:
    static constexpr std::int64_t cAhead = 4'000'000'000;

    SnapshotsOfAClockThatWasSetBack() {
        std::filesystem::create_directories(CSnapshots::Directory());
        for (const char* const number : {"000008", "000009", "000010"}) {
            const std::filesystem::path file =
                CSnapshots::Directory() / ("scheduler.dat.004000000000-" + std::string(number));
            WriteFile(file, TableOf(number));
            SetTime(file, cAhead);
        }
        KeepOnce(2, TableOf("now"));
    }
    ~SnapshotsOfAClockThatWasSetBack() override { std::filesystem::remove_all("files"); }
    static std::string TableOf(const std::string& name) {
        return BytesOf({{name, cAhead, 0, 1, "/bin/program", "", 0}});
    }
    static void SetTime(const std::filesystem::path& file, std::int64_t seconds) {
        std::filesystem::last_write_time(
            file, std::chrono::file_clock::from_sys(
                      std::chrono::sys_seconds(std::chrono::seconds(seconds))));
    }
    static std::string YoungestTask() {
        const auto source = vxsched::FindBackup(".");
        return source ? source->tasks.at(0).name : "";
    }
};

TEST_F(SnapshotsOfAClockThatWasSetBack, KeepTheYoungestAndNotTheLatest) {
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::set<std::string>{TableOf("000010"), TableOf("now")}));
}

TEST_F(SnapshotsOfAClockThatWasSetBack, MendFromTheYoungest) {
    EXPECT_EQ(YoungestTask(), "now");
    WriteFile("files/scheduler.dat.before", TableOf("before"));
    SetTime("files/scheduler.dat.before", 1000);
    EXPECT_EQ(YoungestTask(), "now");
    SetTime("files/scheduler.dat.before", cAhead - 1000);
    EXPECT_EQ(YoungestTask(), "before");
}

// ---- Damaged tables that are put aside
// ------------------------------------------------------------------------------------

TEST(Quarantine, KeepsTheYoungestWhateverTheClockSays) {
    std::filesystem::create_directory("files");
    WriteFile("files/scheduler.dat.damaged-4000000000", "0");
    WriteFile("files/scheduler.dat.damaged-by-hand", "not ours");
    for (int number = 1; number <= 30; ++number)
        vxsched::Quarantine(".", std::to_string(number));
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator("files"))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept.size(), 25U);
    EXPECT_TRUE(kept.contains("not ours"));
    EXPECT_TRUE(kept.contains("30"));
    EXPECT_TRUE(kept.contains("7"));
    EXPECT_FALSE(kept.contains("6"));
    std::filesystem::remove_all("files");
}
