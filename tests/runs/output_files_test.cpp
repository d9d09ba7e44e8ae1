// Which outputs of runs are kept.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>

#include "GuardedTable.h"
#include "Process.h"
#include "runs/COutputFile.h"
#include "runs/CRunningFile.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"

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
        const fs::path path = PrepareOutputFile(task, id);
        COutputFile(path, 100).Append("output");
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

TEST_F(OutputFiles, OfARunThatGoesOnAreKept) {
    TRunRecord run;
    run.id = "1";
    const CRunningFile running(run);
    ASSERT_EQ(running.Error(), "");
    Keep("gone", "1", TDays(31));
    // The lock of this process is none to itself.
    CForkedChild other([] {
        RemoveOutputsOfOthers({});
        return 0;
    });
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_EQ(vxsched::FindOutputs(".", "gone").size(), 1U);
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
