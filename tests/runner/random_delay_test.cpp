// The random time before the program of a launch by the schedule. It is random between none and so long
// that no test sees its end, or a second at most.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "Tool.h"
#include "base/Users.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"

namespace fs = std::filesystem;

using testing::HasSubstr;

namespace {

constexpr char cLine[] = "--task job --random-delay 3650d --on-failure 'touch told' -- /bin/true";

class RandomDelay : public testing::Test {
protected:
    RandomDelay() {
        fs::remove_all("files");
        fs::create_directory("files");
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    static std::vector<TRunRecord> History() { return vxsched::ReadHistory(".", {}).runs; }
    static std::size_t CountRunning() { return vxsched::FindRunningRuns(".", "job").size(); }
};

}  // namespace

TEST_F(RandomDelay, IsUnderWayAndReportedAtOnce) {
    CHost host;
    CreateDue("job", RUNNER_PROGRAM, cLine);
    WaitUntil([] { return CountRunning() == 1; });
    // The host has waited for the report only.
    WaitForTheTicksEnd();
    const vxsched::TRunning running = vxsched::FindRunningRuns(".", "job").at(0);
    EXPECT_EQ(running.run.process, 0);
    CProgram other({RUNNER_PROGRAM, cLine});
    EXPECT_EQ(other.Wait(), 0);
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].underWay, running.run.id);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(RunTool({"stop", "job"}).status, 0);
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(History()[1].id, running.run.id);
    EXPECT_EQ(History()[1].stoppedBy, FindUser(getuid()).name);
}

TEST_F(RandomDelay, EndsWithinItsTime) {
    CProgram runner({RUNNER_PROGRAM, "--task job --random-delay 1s -- /bin/echo text"});
    EXPECT_EQ(runner.Wait(), 0);
    EXPECT_EQ(runner.Output(), "text\n");
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].outcome, TRunRecord::cExited);
    CProgram missing({RUNNER_PROGRAM, "--task job --random-delay 1s --retry 1 -- /no/such"});
    EXPECT_EQ(missing.Wait(), 127);
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(History()[1].error, "cannot start /no/such: No such file or directory");
}

TEST_F(RandomDelay, IsNotOfALaunchByHand) {
    CProgram runner(
        {RUNNER_PROGRAM, "--task", "job", "--random-delay", "3650d", "--", "/bin/true"});
    EXPECT_EQ(runner.Wait(), 0);
}

TEST_F(RandomDelay, EndsAtAStop) {
    CProgram runner({RUNNER_PROGRAM, cLine});
    WaitUntil([] { return CountRunning() == 1; });
    runner.Kill(SIGTERM);
    EXPECT_EQ(runner.Wait(), 127);
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(History()[0].error, "it was stopped before it began");
    EXPECT_EQ(CountRunning(), 0U);
    EXPECT_FALSE(fs::exists("told"));
}
