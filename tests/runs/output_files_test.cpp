// Which outputs of runs are kept.

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <list>
#include <set>
#include <string>

#include "GuardedTable.h"
#include "Process.h"
#include "runs/COutputFile.h"
#include "runs/OutputFiles.h"

namespace fs = std::filesystem;

namespace {

using TDays = std::chrono::days;

void SetAge(const fs::path& path, TDays age) {
    fs::last_write_time(path, fs::file_time_type::clock::now() - age);
}

class OutputFiles : public testing::Test {
protected:
    OutputFiles() {
        fs::remove_all("files");
        fs::create_directory("files");
    }

    // Leaves an output of that age.
    static fs::path Keep(const std::string& task, const std::string& id, TDays age) {
        MakeOutputFile(task, id, 100).Append("output");
        const fs::path path = OutputPathOf(task, id);
        SetAge(path, age);
        SetAge(path.parent_path(), age);
        return path;
    }
};

}  // namespace

TEST_F(OutputFiles, OfTasksThatAreGoneAreRemovedOnceAllOfATaskAreOld) {
    Keep("in the table", "1", TDays(400));
    Keep("gone", "1", TDays(31));
    Keep("gone", "2", TDays(31));
    const fs::path latest = Keep("gone lately", "1", TDays(29));
    SetAge(Keep("gone lately", "2", TDays(400)).parent_path(), TDays(400));
    SetAge(latest, TDays(29));
    RemoveOutputsOfOthers({"in the table", "another"});
    EXPECT_EQ(vxsched::FindOutputs(".", "in the table").size(), 1U);
    EXPECT_EQ(vxsched::FindOutputs(".", "gone lately").size(), 2U);
    EXPECT_EQ(CountIn("files/output"), 2U);
}

// By the runner, or by who keeps what the program has left behind writes.
TEST_F(OutputFiles, ThatAreStillWrittenAreKept) {
    COutputFile file = MakeOutputFile("gone", "1", 100);
    const fs::path path = OutputPathOf("gone", "1");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    CForkedChild keeper([&] {
        char byte = 0;
        return static_cast<int>(read(ends[0], &byte, 1));
    });
    file.Close();
    SetAge(path, TDays(31));
    SetAge(path.parent_path(), TDays(31));
    RemoveOutputsOfOthers({});
    EXPECT_TRUE(fs::exists(path));
    for (int number = 100; number < 120; ++number)
        Keep("gone", std::to_string(number), TDays(0));
    EXPECT_EQ(vxsched::FindOutputs(".", "gone").size(), 10U);
    EXPECT_TRUE(fs::exists(path));
    EXPECT_TRUE(IsOutputWritten(path));
    EXPECT_EQ(write(ends[1], "x", 1), 1);
    EXPECT_EQ(keeper.Wait(), 1);
    RemoveOldOutputs("gone");
    EXPECT_TRUE(fs::exists(path)) << "there are ten";
    Keep("gone", "120", TDays(0));
    EXPECT_FALSE(fs::exists(path));
}

// Or a run whose ten predecessors go on would have no output.
TEST_F(OutputFiles, LatestIsKeptBesidesThoseThatAreWritten) {
    Keep("a", "1", TDays(0));
    std::list<COutputFile> written;
    for (int number = 100; number < 112; ++number)
        written.emplace_back(OutputPathOf("a", std::to_string(number)), 100);
    Keep("a", "112", TDays(0));
    Keep("a", "113", TDays(0));
    RemoveOldOutputs("a");
    EXPECT_EQ(vxsched::FindOutputs(".", "a").size(), 13U);
    EXPECT_EQ(vxsched::FindOutputs(".", "a").front().id, "113");
}

// Neither what is no directory of the outputs', nor what is no output.
TEST_F(OutputFiles, OnlyOutputsAreRemoved) {
    fs::create_directory("elsewhere");
    WriteFile("elsewhere/1.log", "");
    SetAge("elsewhere/1.log", TDays(400));
    Keep("gone", "1", TDays(31));
    fs::create_directory_symlink("../../elsewhere", "files/output/link");
    WriteFile("files/output/gone/notes", "mine");
    WriteFile("files/output/file", "mine");
    SetAge("files/output/gone", TDays(31));
    SetAge("files/output/file", TDays(31));
    RemoveOutputsOfOthers({});
    EXPECT_TRUE(fs::exists("elsewhere/1.log"));
    EXPECT_TRUE(fs::exists("files/output/file"));
    EXPECT_TRUE(fs::exists("files/output/gone/notes"));
    EXPECT_FALSE(fs::exists("files/output/gone/1.log"));
    fs::remove_all("elsewhere");
}

TEST_F(OutputFiles, NoneAreNoError) {
    RemoveOutputsOfOthers({});
    EXPECT_TRUE(vxsched::FindOutputs(".", "a").empty());
}
