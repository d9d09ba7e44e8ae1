// Which ends of a job are good.

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

static TRunRecord RunJob(const std::string& line, int status) {
    fs::remove_all("files");
    fs::create_directory("files");
    CProgram runner({RUNNER_PROGRAM, line});
    EXPECT_EQ(runner.Wait(), status) << runner.Output();
    const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", {}).runs;
    EXPECT_EQ(runs.size(), 1U);
    return runs.empty() ? TRunRecord() : runs[0];
}

TEST(Success, IsRecordedIfTheJobSaysWhichStatusesAreGood) {
    EXPECT_EQ(RunJob("--success 0,3 --shell 'exit 3'", 3).success, true);
    EXPECT_EQ(RunJob("--success 0,3 --shell 'exit 0'", 0).success, true);
    EXPECT_EQ(RunJob("--success 0,3 --shell 'exit 1'", 1).success, false);
    EXPECT_EQ(RunJob("--success 3 --shell 'exit 0'", 0).success, false);
    EXPECT_EQ(RunJob("--success 0,15 --shell 'kill -15 $$'", 1000 + SIGTERM).success, false);
    EXPECT_FALSE(RunJob("--shell 'exit 3'", 3).success);
}
