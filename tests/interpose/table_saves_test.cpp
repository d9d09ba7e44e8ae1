// The interposed file functions through which the add-in reads and saves its table.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "TableFile.h"

static std::string StepsOf(std::vector<std::string> steps) {
    steps.insert(steps.begin(), PROGRAMS "/table-steps");
    CProgram program(steps);
    EXPECT_EQ(program.Wait(), 0);
    return program.Output();
}

TEST(TableSaves, AreDiscardedAfterAFailedRead) {
    EXPECT_EQ(StepsOf({"no-directory", "stat", "save"}), "no-directory ok\nstat failed\nsave ok\n");
    EXPECT_TRUE(std::filesystem::is_regular_file("files")) << "nothing was saved";
    std::filesystem::remove("files");
}

TEST(TableSaves, AreMadeAgainAfterAReadThatSucceeds) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "a table");
    EXPECT_EQ(StepsOf({"read", "save"}), "read ok\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
}

TEST(TableSaves, AreMadeAgainWhereThereIsNoTable) {
    EXPECT_EQ(StepsOf({"no-directory", "stat", "directory", "stat", "save"}),
              "no-directory ok\nstat failed\ndirectory ok\nstat failed\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
    std::filesystem::remove_all("files");
}
