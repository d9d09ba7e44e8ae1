// Which task of the table a launch is for.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include "host/programs/CDueTasks.h"

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Process.h"
#include "TableEntry.h"
#include "TableFile.h"

using vxsched::TTaskEntry;

// Returns "name" or "name, not due"; "" when no task was found.
static std::string Found(CDueTasks& tasks, const std::vector<TTaskEntry>& table,
                         const std::string& state, const std::string& program,
                         const std::string& parameter) {
    const auto task = tasks.Find(table, state, cNow, program, parameter);
    if (!task)
        return "";
    return task->due ? task->name : task->name + ", not due";
}

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

TEST(DueTasks, OfDuplicatesTheDueOneIsFound) {
    const std::vector<TTaskEntry> table = {Task("later", Later(1), "/bin/run", "x"),
                                           Task("paused", cNow, "/bin/run", "x", 1, true),
                                           Task("due", cNow, "/bin/run", "x")};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "1", "/bin/run", "x"), "due");
}

TEST(DueTasks, OfDueDuplicatesEachIsFoundOnceATick) {
    const std::vector<TTaskEntry> table = {Task("first", cNow, "/bin/run", "x"),
                                           Task("second", Later(-5), "/bin/run", "x")};
    CDueTasks tasks;
    EXPECT_EQ(Found(tasks, table, "tick", "/bin/run", "x"), "first");
    EXPECT_EQ(Found(tasks, table, "tick", "/bin/run", "x"), "second");
    EXPECT_EQ(Found(tasks, table, "next tick", "/bin/run", "x"), "first");
}

TEST(DueTasks, WithoutADueOneTheNameIsFoundWithoutADueTime) {
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

TEST(DueTasks, ProgramIsComparedAsItIsLaunched) {
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
    EXPECT_EQ(tasks.Find("/bin/program", "x")->due, std::nullopt)
        << "its launch was found already in this tick";
    WriteTable({{"renamed", std::time(nullptr) - 5, 0, 1, "/bin/program", "x", 0}});
    ASSERT_TRUE(tasks.Find("/bin/program", "x"));
    std::filesystem::remove_all("files");
    EXPECT_EQ(tasks.Find("/bin/program", "x"), std::nullopt);
}

// A sanitizer takes more than this limit for itself.
#ifdef PLAIN_BUILD
TEST(DueTasks, OfATableThatDoesNotFitInMemoryAreNotFound) {
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
