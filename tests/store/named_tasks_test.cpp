// Tasks in their order, found by name.

#include "store/CNamedTasks.h"

#include <gtest/gtest.h>

#include <string>

using vxsched::CNamedTasks;
using vxsched::TTaskEntry;

static TTaskEntry Task(const std::string& name, const std::string& parameter = "") {
    TTaskEntry task;
    task.name = name;
    task.parameter = parameter;
    return task;
}

static std::string NamesOf(const CNamedTasks& tasks) {
    std::string names;
    for (const TTaskEntry& task : tasks.Tasks())
        names += task.name + task.parameter;
    return names;
}

TEST(NamedTasks, KeepsTheOrder) {
    CNamedTasks tasks({Task("b"), Task("a")});
    tasks.Add(Task("c"));
    EXPECT_EQ(NamesOf(tasks), "bac");
    tasks.Remove("a");
    tasks.Rename("b", "d");
    tasks.Add(Task("a"));
    EXPECT_EQ(NamesOf(tasks), "dca");
    EXPECT_EQ(tasks.Find("b"), nullptr);
    ASSERT_NE(tasks.Find("d"), nullptr);
    EXPECT_EQ(tasks.Find("d")->name, "d");
}

TEST(NamedTasks, FindsTheFirstOfAName) {
    CNamedTasks tasks({Task("a", "1"), Task("b"), Task("a", "2")});
    EXPECT_EQ(tasks.Find("a")->parameter, "1");
    tasks.Remove("a");
    EXPECT_EQ(tasks.Find("a")->parameter, "2");
    EXPECT_EQ(NamesOf(tasks), "ba2");
    tasks.Remove("a");
    EXPECT_EQ(tasks.Find("a"), nullptr);
    EXPECT_EQ(NamesOf(tasks), "b");
}

TEST(NamedTasks, RenamedTaskStaysTheFirstOfItsPlace) {
    CNamedTasks tasks({Task("a", "1"), Task("a", "2")});
    tasks.Rename("a", "b");
    EXPECT_EQ(tasks.Find("a")->parameter, "2");
    tasks.Rename("a", "c");
    EXPECT_EQ(NamesOf(tasks), "b1c2");
}
