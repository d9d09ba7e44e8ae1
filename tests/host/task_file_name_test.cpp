// The names of the files that a host makes for a task.

#include <gtest/gtest.h>
#include "host/TaskFileName.h"
#include "host/recovery/LaunchRecords.h"

#include <chrono>
#include <cstring>
#include <set>
#include <string>

TEST(FileNames, AreTheTasksNamesWithOddCharactersEncoded) {
    EXPECT_EQ(FileNameOf("nightly-backup_2.old"), "nightly-backup_2.old");
    EXPECT_EQ(FileNameOf(""), "%");
    EXPECT_EQ(FileNameOf(".."), "%2E.");
    EXPECT_EQ(FileNameOf("a/b c%\n\xFF"), "a%2Fb%20c%25%0A%FF");
}

TEST(FileNames, OfLongTasksFitAndDiffer) {
    std::set<std::string> names;
    for (const char last : {'a', 'b', 'c'})
        names.insert(FileNameOf(std::string(70'000, '/') + last));
    EXPECT_EQ(names.size(), 3U);
    EXPECT_LE(names.begin()->size() + std::strlen(".log.1"), 255U);
    EXPECT_EQ(FileNameOf(std::string(200, 'n')), std::string(200, 'n'));
}

TEST(FileNames, OfLaunchRecordsAreTheSame) {
    TLaunchRecord record = {.task = FileNameOf("a/b c-1@2"),
                            .due = vxsched::TTime(std::chrono::seconds(7)),
                            .launched = {}};
    EXPECT_EQ(LaunchRecordPath(record), "files/started/" + FileNameOf("a/b c-1@2") + "@7");
    record.formerStart = vxsched::TTime(std::chrono::seconds(-1));
    EXPECT_EQ(LaunchRecordPath(record), "files/started/" + FileNameOf("a/b c-1@2") + "@7@-1");
    EXPECT_EQ(FileNameOf("a@b"), "a%40b");
}
