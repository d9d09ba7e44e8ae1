// The records that launches leave until the table shows them.

#include <gtest/gtest.h>
#include "host/recovery/LaunchRecords.h"

#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "TableEntry.h"

TEST(LaunchRecords, AreFoundByTaskAndDueTimeWhateverTheName) {
    std::filesystem::create_directory("files");
    ASSERT_TRUE(MakeLaunchRecordDirectory());
    ASSERT_TRUE(MakeLaunchRecordDirectory()) << "it may exist already";
    const std::string longest(5'000, '\xe4');
    for (const std::string& name :
         {std::string("plain"), std::string("a/b"), std::string(".."), std::string("at@5"),
          std::string("%41"), std::string("\xff blank"), longest}) {
        WriteFile(LaunchRecordPath(name, Later(3)), "");
        const std::vector<TLaunchRecord> records = ReadLaunchRecords();
        ASSERT_EQ(records.size(), 1U) << name;
        EXPECT_TRUE(records[0].IsOf(name, Later(3))) << name;
        EXPECT_FALSE(records[0].IsOf(name, Later(4))) << name;
        EXPECT_FALSE(records[0].IsOf(std::string(name) + "x", Later(3))) << name;
        RemoveLaunchRecord(records[0]);
        EXPECT_TRUE(ReadLaunchRecords().empty()) << name;
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
