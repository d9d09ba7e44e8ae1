// Saves of the table in one step, in a program whose COpen and stat() make them.

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

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

static ino_t InodeOf(const char* path) {
    struct stat status {};
    EXPECT_EQ(stat(path, &status), 0);
    return status.st_ino;
}

TEST(TableSaves, ReplaceTheFileAndKeepItsMode) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "a table");
    ASSERT_EQ(chmod(cTable, 0606), 0);
    const ino_t before = InodeOf(cTable);
    EXPECT_EQ(StepsOf({"save"}), "save ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
    EXPECT_NE(InodeOf(cTable), before);
    EXPECT_EQ(std::filesystem::status(cTable).permissions(), std::filesystem::perms{0606});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("files"), {}), 1);
}

TEST(TableSaves, ThatAnExceptionEndsLeaveTheFormerTable) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "a table");
    EXPECT_EQ(StepsOf({"partial"}), "partial failed\n");
    EXPECT_EQ(ReadFile(cTable), "a table");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator("files"), {}), 1);
    EXPECT_EQ(StepsOf({"partial", "save"}), "partial failed\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
}

TEST(TableSaves, OfALinkAreMadeInPlace) {
    WriteFile("target", "a longer table");
    const ino_t before = InodeOf("target");
    EXPECT_EQ(StepsOf({"link", "save"}), "link ok\nsave ok\n");
    EXPECT_TRUE(std::filesystem::is_symlink(cTable));
    EXPECT_EQ(ReadFile("target"), "saved");
    EXPECT_EQ(InodeOf("target"), before);
}

TEST(TableSaves, OfALinkWhoseTargetHasGoneAreDiscarded) {
    EXPECT_EQ(StepsOf({"link", "stat", "save"}), "link ok\nstat failed\nsave ok\n");
    EXPECT_EQ(StepsOf({"link", "read", "save"}), "link ok\nread failed\nsave ok\n");
    EXPECT_EQ(StepsOf({"link", "save", "save"}), "link ok\nsave ok\nsave ok\n");
    EXPECT_TRUE(std::filesystem::is_symlink(cTable));
    EXPECT_FALSE(std::filesystem::exists("target"));
}

TEST(TableSaves, OfATableWithTwoHardLinksAreMadeInPlace) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "a longer table");
    std::filesystem::create_hard_link(cTable, "another name");
    EXPECT_EQ(StepsOf({"save"}), "save ok\n");
    EXPECT_EQ(ReadFile("another name"), "saved");
}

// A read or a save would wait for its other end without limit, with the store mutex held.
TEST(TableSaves, PipeInPlaceOfTheTableIsNeitherReadNorWritten) {
    EXPECT_EQ(StepsOf({"pipe", "stat", "read", "save"}),
              "pipe ok\nstat ok\nread failed\nsave ok\n");
    EXPECT_TRUE(std::filesystem::is_fifo(cTable));
    std::filesystem::remove_all("files");
    EXPECT_EQ(StepsOf({"pipe", "save"}), "pipe ok\nsave failed\n");
    EXPECT_TRUE(std::filesystem::is_fifo(cTable));
}

TEST(TableSaves, AreMadeAgainAfterAPipeWasMovedAway) {
    EXPECT_EQ(StepsOf({"pipe", "read", "directory", "stat", "save"}),
              "pipe ok\nread failed\ndirectory ok\nstat failed\nsave ok\n");
    EXPECT_EQ(ReadFile(cTable), "saved");
}

static std::string NamesAfter(const std::vector<std::string>& steps) {
    TRow first;
    first.name = "first";
    WriteTable({first});
    StepsOf(steps);
    return NamesInTable();
}

// A direct client's load sets the store mutex free in the middle of a tick.
TEST(TableSaves, KeepWhatAnotherProcessHasSavedSinceTheRead) {
    EXPECT_EQ(NamesAfter({"load", "add"}), "first ours");
    EXPECT_EQ(NamesAfter({"load", "other", "add"}), "first theirs ours");
}

TEST(TableSaves, KeepItAtTheNextSaveOfTheSameListToo) {
    EXPECT_EQ(NamesAfter({"load", "other", "add", "again"}), "first theirs ours");
    EXPECT_EQ(NamesAfter({"load", "add", "other", "again"}), "first ours theirs");
}

// Its open came before the rename, so it writes into the file that has lost its name.
TEST(TableSaves, KeepWhatAnotherProcessWritesIntoTheFormerFile) {
    EXPECT_EQ(NamesAfter({"load", "late", "add"}), "first ours theirs");
}

// After a save in place it is not known what others have saved.
TEST(TableSaves, BringNoTaskBackThatWasSavedInPlace) {
    WriteTable({});
    std::filesystem::create_hard_link(cTable, "another name");
    EXPECT_EQ(StepsOf({"load", "add", "single", "drop"}), "load ok\nadd ok\nsingle ok\ndrop ok\n");
    EXPECT_EQ(NamesInTable(), "");
}
