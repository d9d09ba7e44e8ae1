// The records that launches leave until the table shows them.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include "host/recovery/LaunchRecords.h"
#include "host/recovery/OwedLaunches.h"
#include "store/TaskFileName.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "FakeMonotonicClock.h"
#include "GuardedTable.h"
#include "Process.h"
#include "TableEntry.h"

using namespace std::chrono_literals;

TEST(LaunchRecords, AreFoundByTaskAndDueTimeWhateverTheName) {
    std::filesystem::create_directory("files");
    ASSERT_TRUE(MakeLaunchRecordDirectory());
    ASSERT_TRUE(MakeLaunchRecordDirectory()) << "it may exist already";
    std::optional<vxsched::TTime> former;
    const std::string longest(5'000, '\xe4');
    for (const std::string& name :
         {std::string("plain"), std::string("a/b"), std::string(".."), std::string("at@5"),
          std::string("%41"), std::string("\xff blank"), longest}) {
        former = former ? std::nullopt : std::optional(cNow);
        WriteFile(LaunchRecordPath({.task = vxsched::FileNameOf(name),
                                    .due = Later(3),
                                    .launched = {},
                                    .formerStart = former}),
                  "");
        const std::vector<TLaunchRecord> records = ReadLaunchRecords();
        ASSERT_EQ(records.size(), 1U) << name;
        EXPECT_TRUE(records[0].IsOf(name, Later(3))) << name;
        EXPECT_EQ(records[0].formerStart, former) << name;
        EXPECT_FALSE(records[0].IsOf(name, Later(4))) << name;
        EXPECT_FALSE(records[0].IsOf(std::string(name) + "x", Later(3))) << name;
        SettleLaunches(records);
        EXPECT_TRUE(ReadLaunchRecords().empty()) << name;
    }
}

// Of a store that is open to a group, and of one that is the owner's alone.
TEST(LaunchRecords, AreInDirectoriesForThoseWhomTheStoreIsFor) {
    for (const mode_t mode : {02770U, 0700U}) {
        std::filesystem::remove_all("files");
        std::filesystem::create_directory("files");
        for (const char* const directory : {".", "files"})
            ASSERT_EQ(chmod(directory, mode), 0);
        ASSERT_TRUE(MakeLaunchRecordDirectory());
        const TLaunchRecord record = {.task = "task", .due = cNow, .launched = cNow};
        WriteFile(LaunchRecordPath(record), "");
        SettleLaunches({record});
        ASSERT_TRUE(
            KeepOwedLaunch({.task = "task", .due = cNow, .program = "/p", .parameter = ""}));
        for (const char* const directory : {"files/started", "files/settled", "files/owed"}) {
            struct stat status {};
            ASSERT_EQ(stat(directory, &status), 0) << directory;
            EXPECT_EQ(status.st_mode & 07777U, mode) << directory;
        }
    }
}

TEST(LaunchRecords, AreSettledByATableThatShowsTheLaunch) {
    const std::vector<TLaunchRecord> records = {
        {.task = "rescheduled", .due = cNow, .launched = cNow},
        {.task = "outdated", .due = cNow, .launched = cNow},
        {.task = "gone", .due = cNow, .launched = cNow}};
    const auto settled = FindSettled(
        records, {Task("rescheduled", Later(3600), "/p", ""), Task("outdated", cNow, "/p", "")});
    ASSERT_EQ(settled.size(), 2U);
    EXPECT_EQ(settled[0].task, "rescheduled");
    EXPECT_EQ(settled[1].task, "gone");
}

// A command that makes the task due again may come before the check that would settle the launch.
TEST(LaunchRecords, OwedOneIsNotOfATaskThatHasGotAnotherProgram) {
    for (const std::uint32_t period : {0U, 24U}) {
        vxsched::TTaskEntry task = Task("task", cNow, "/p", "a");
        task.period = period;
        const TLaunchRecord owed = {
            .task = "task", .due = cNow, .launched = {}, .owed = {{"/p", "a"}}};
        const auto isApplied = [&] {
            std::vector<vxsched::TTaskEntry> tasks = {task};
            return ApplyLaunchRecords({owed}, cNow, tasks) == 1;
        };
        EXPECT_TRUE(isApplied());
        task.parameter = std::string("a\0b", 3);
        EXPECT_TRUE(isApplied()) << "it is launched with the same";
        task.parameter = "b";
        EXPECT_FALSE(isApplied());
        task.parameter = "a";
        task.program = "/q";
        EXPECT_FALSE(isApplied());
    }
}

TEST(LaunchRecords, SettledOneIsOfATaskThatRepeatsAndShowsAnEarlierStart) {
    const TLaunchRecord settled = {.task = "task",
                                   .due = cNow,
                                   .launched = Later(5),
                                   .formerStart = Later(9),
                                   .isSettled = true};
    vxsched::TTaskEntry task = Task("task", cNow, "/p", "");
    task.period = 1;
    const auto isLaunchOf = [&](vxsched::TTime last) {
        task.last = last;
        return settled.IsLaunchOf(task);
    };
    EXPECT_TRUE(isLaunchOf({}));
    EXPECT_TRUE(isLaunchOf(Later(4)));
    EXPECT_TRUE(isLaunchOf(Later(9))) << "the clock was set back before the launch";
    EXPECT_FALSE(isLaunchOf(Later(5)));
    EXPECT_FALSE(isLaunchOf(Later(6)));
    task.next = Later(1);
    EXPECT_FALSE(isLaunchOf({}));
    task.next = cNow;
    task.period = 0;
    EXPECT_FALSE(isLaunchOf({}));
}

static bool IsFound(const TLaunchRecord& record) {
    vxsched::TTaskEntry task = Task(record.task, record.due, "/p", "");
    task.period = 1;
    return FindRecentLaunch(task).has_value();
}

TEST(LaunchRecords, SettledOneIsFoundUntilItIsRemovedAfterAMinute) {
    CFakeMonotonicClock clock;
    std::filesystem::create_directory("files");
    ASSERT_TRUE(MakeLaunchRecordDirectory());
    const TLaunchRecord first = {.task = "first", .due = cNow, .launched = cNow};
    const TLaunchRecord second = {.task = "second", .due = cNow, .launched = cNow};
    WriteFile(LaunchRecordPath(first), "");
    SettleLaunches({first});
    clock.slept += 59s;
    SettleLaunches({second});
    EXPECT_TRUE(IsFound(first));
    EXPECT_EQ(CountIn("files/settled", "first@"), 1U);
    clock.slept += 1s;
    EXPECT_FALSE(IsFound(first));
    SettleLaunches({});
    EXPECT_EQ(CountIn("files/settled", "first@"), 0U);
    EXPECT_TRUE(IsFound(second));
}

TEST(LaunchRecords, SettledOneOfAFormerHostIsTakenOver) {
    std::filesystem::remove_all("files");
    std::filesystem::create_directories("files/settled");
    WriteFile("files/settled/former@" + std::to_string(cNow.time_since_epoch().count()) + "@-1",
              "");
    const std::vector<TLaunchRecord> records = TakeOverSettledLaunches();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_TRUE(records[0].isSettled);
    EXPECT_EQ(records[0].formerStart, vxsched::TTime(-1s));
    EXPECT_TRUE(IsFound({.task = "former", .due = cNow, .launched = cNow}));
}

TEST(LaunchRecords, HaveTheNamesOfTheirTasks) {
    TLaunchRecord record = {.task = vxsched::FileNameOf("a/b c-1@2"),
                            .due = vxsched::TTime(std::chrono::seconds(7)),
                            .launched = {}};
    EXPECT_EQ(LaunchRecordPath(record), "files/started/" + vxsched::FileNameOf("a/b c-1@2") + "@7");
    record.formerStart = vxsched::TTime(std::chrono::seconds(-1));
    EXPECT_EQ(LaunchRecordPath(record),
              "files/started/" + vxsched::FileNameOf("a/b c-1@2") + "@7@-1");
}
