// The names of the files that a host makes for a task.

#include <gtest/gtest.h>
#include "store/TaskFileName.h"

#include <chrono>
#include <cstring>
#include <set>
#include <string>

TEST(FileNames, AreTheTasksNamesWithOddCharactersEncoded) {
    EXPECT_EQ(vxsched::FileNameOf("nightly-backup_2.old"), "nightly-backup_2.old");
    EXPECT_EQ(vxsched::FileNameOf(""), "%");
    EXPECT_EQ(vxsched::FileNameOf(".."), "%2E.");
    EXPECT_EQ(vxsched::FileNameOf("a/b c%\n\xFF"), "a%2Fb%20c%25%0A%FF");
}

TEST(FileNames, OfLongTasksFitAndDiffer) {
    std::set<std::string> names;
    for (const char last : {'a', 'b', 'c'})
        names.insert(vxsched::FileNameOf(std::string(70'000, '/') + last));
    EXPECT_EQ(names.size(), 3U);
    EXPECT_LE(names.begin()->size() + std::strlen(".log.1"), 255U);
    EXPECT_EQ(vxsched::FileNameOf(std::string(200, 'n')), std::string(200, 'n'));
}

TEST(FileNames, HaveNoAt) {
    EXPECT_EQ(vxsched::FileNameOf("a@b"), "a%40b");
}
