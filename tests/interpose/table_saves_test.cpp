// What a program that loads the add-in puts around its calls on the table.

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

TEST(TableSaves, OfATableThatCouldNotBeReadGoNowhere) {
    EXPECT_EQ(StepsOf({"no-folder", "stat", "save"}), "no-folder ok\nstat failed\nsave ok\n");
    EXPECT_TRUE(std::filesystem::is_regular_file("files")) << "and nothing became of it";
    std::filesystem::remove("files");
}

TEST(TableSaves, AreMadeAgainBehindAReadThatSucceeds) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "a table");
    EXPECT_EQ(StepsOf({"read", "save"}), "read ok\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
}

TEST(TableSaves, AreMadeAgainWhereThereIsNoTable) {
    EXPECT_EQ(StepsOf({"no-folder", "stat", "folder", "stat", "save"}),
              "no-folder ok\nstat failed\nfolder ok\nstat failed\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
    std::filesystem::remove_all("files");
}
