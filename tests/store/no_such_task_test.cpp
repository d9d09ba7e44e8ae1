// The error for an unknown name, and which name it takes for the one that was meant.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "store/NoSuchTask.h"

static std::string MessageFor(const std::string& name, const std::vector<std::string>& names) {
    vxsched::TTable table;
    for (const std::string& each : names)
        table.tasks.emplace_back().name = each;
    const vxsched::CError error = vxsched::NoSuchTask(name, table, "see the list");
    EXPECT_EQ(error.Code(), vxsched::EError::cNotFound);
    return error.what();
}

static std::string Meant(const std::string& name, const std::vector<std::string>& names) {
    const std::string message = MessageFor(name, names);
    const std::string before = "there is no task \"" + name + "\"; did you mean \"";
    return message.starts_with(before)
               ? message.substr(before.size(), message.size() - before.size() - 2)
               : "";
}

TEST(NoSuchTask, OffersTheNearestName) {
    EXPECT_EQ(Meant("bakcup", {"report", "backup", "cleanup"}), "backup") << "swapped";
    EXPECT_EQ(Meant("backu", {"report", "backup"}), "backup") << "one is missing";
    EXPECT_EQ(Meant("backupp", {"report", "backup"}), "backup") << "one too many";
    EXPECT_EQ(Meant("bacjup", {"report", "backup"}), "backup") << "another letter";
    EXPECT_EQ(Meant("Backup", {"report", "backup"}), "backup") << "another case";
    EXPECT_EQ(Meant("nightly-bakup", {"nightly-report", "nightly-backup"}), "nightly-backup");
    EXPECT_EQ(Meant("job2", {"job1", "job3"}), "job1") << "the first of those";
}

TEST(NoSuchTask, OffersNoneThatIsFar) {
    EXPECT_EQ(MessageFor("nobody", {"backup", "report"}),
              "there is no task \"nobody\"; see the list");
    EXPECT_EQ(Meant("x", {"y"}), "") << "nothing of it is right";
    EXPECT_EQ(Meant("ab", {"cd"}), "");
    EXPECT_EQ(Meant("", {"a"}), "");
    EXPECT_EQ(Meant("a", {}), "");
    const std::string tooLong(65, 'n');
    EXPECT_EQ(Meant(tooLong, {tooLong + "n"}), "");
}
