// The marks that starts leave until the table shows them.

#include <gtest/gtest.h>
#include "host/recovery/LaunchRecords.h"

#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "TableEntry.h"

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
