// What becomes of a launch by the schedule while a run of the same task is under way.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
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

// Makes a file of its own, and goes on until there is the file "go".
constexpr char cText[] =
    "--shell 'touch begun/$$; while [ -e files ] && [ ! -e go ]; do sleep 0.01; done'";

class Overlap : public testing::Test {
protected:
    Overlap() {
        for (const char* const path : {"files", "begun", "go"})
            fs::remove_all(path);
        fs::create_directory("files");
        fs::create_directory("begun");
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }
    ~Overlap() override { WriteFile("go", ""); }

    // As another host launches it for a due time: with one argument.
    static std::unique_ptr<CProgram> Launch(const std::string& options) {
        return std::make_unique<CProgram>(
            std::vector<std::string>{RUNNER_PROGRAM, options + ' ' + cText});
    }

    static std::size_t CountBegun() {
        const fs::directory_iterator entries("begun");
        return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
    }

    static std::vector<TRunRecord> History() { return vxsched::ReadHistory(".", {}).runs; }

    static std::size_t CountRunning() { return vxsched::FindRunningRuns(".", "job").size(); }

    static std::size_t CountSkipped() { return CountRuns(TRunRecord::cSkipped); }
    static std::size_t CountDead() { return CountRuns(TRunRecord::cRunnerDied); }

    // Once its file has the process of its program.
    static void KillRunner(CProgram& runner) {
        WaitUntil([] { return vxsched::FindRunningRuns(".", "job").at(0).run.process != 0; });
        runner.Kill(SIGKILL);
        EXPECT_EQ(runner.Wait(), 1000 + SIGKILL);
    }

private:
    static std::size_t CountRuns(TRunRecord::EOutcome outcome) {
        const std::vector<TRunRecord> runs = History();
        return static_cast<std::size_t>(
            std::count_if(runs.begin(), runs.end(),
                          [&](const TRunRecord& run) { return run.outcome == outcome; }));
    }
};

}  // namespace

TEST_F(Overlap, LaunchByTheScheduleIsSkippedWhileARunIsUnderWay) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    const std::string id = vxsched::FindRunningRuns(".", "job").at(0).run.id;
    const auto second = Launch("--task job");
    EXPECT_EQ(second->Wait(), 0) << second->Output();
    EXPECT_EQ(second->Output(), "");
    ASSERT_EQ(CountSkipped(), 1U);
    EXPECT_EQ(History()[0].task, "job");
    EXPECT_EQ(History()[0].underWay, id);
    EXPECT_EQ(History()[0].output, "");
    EXPECT_GT(History()[0].id, id);
    WriteFile("go", "");
    EXPECT_EQ(first->Wait(), 0);
    EXPECT_EQ(CountBegun(), 1U);
    const auto third = Launch("--task job");
    EXPECT_EQ(third->Wait(), 0);
    EXPECT_EQ(CountBegun(), 2U) << "none is under way";
    EXPECT_EQ(CountSkipped(), 1U);
}

TEST_F(Overlap, OneOfSeveralThatBeginAtOnceRuns) {
    constexpr std::size_t cCount = 8;
    for (std::size_t round = 1; round <= 10; ++round) {
        std::vector<std::unique_ptr<CProgram>> runners;
        for (std::size_t number = 0; number < cCount; ++number)
            runners.push_back(Launch("--task job"));
        WaitUntil([&] { return CountSkipped() == round * (cCount - 1); });
        WaitUntil([&] { return CountBegun() == round; });
        WriteFile("go", "");
        for (const auto& runner : runners)
            EXPECT_EQ(runner->Wait(), 0) << runner->Output();
        EXPECT_EQ(CountBegun(), round);
        fs::remove("go");
    }
    const std::vector<TRunRecord> runs = History();
    EXPECT_EQ(runs.size(), 10 * cCount);
    for (const TRunRecord& run : runs) {
        const bool isKnown = std::any_of(runs.begin(), runs.end(), [&](const TRunRecord& other) {
            return other.outcome == TRunRecord::cExited && other.id == run.underWay;
        });
        EXPECT_EQ(isKnown, run.outcome == TRunRecord::cSkipped) << run.id;
    }
}

TEST_F(Overlap, IsOfOneTaskAlone) {
    const auto first = Launch("--task one");
    const auto second = Launch("--task two");
    WaitUntil([] { return CountBegun() == 2; });
    WriteFile("go", "");
    EXPECT_EQ(first->Wait() + second->Wait(), 0);
    EXPECT_EQ(CountSkipped(), 0U);
}

TEST_F(Overlap, IsAllowedIfTheJobSaysSo) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    const auto second = Launch("--task job --overlap allow");
    WaitUntil([] { return CountBegun() == 2; });
    WriteFile("go", "");
    EXPECT_EQ(first->Wait() + second->Wait(), 0);
}

TEST_F(Overlap, IsAllowedByHand) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    CProgram second({RUNNER_PROGRAM, "--task", "job", "--", "/bin/true"});
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(CountSkipped(), 0U);
}

TEST_F(Overlap, RunWhoseRunnerWasKilledIsUnderWayWhileItsProgramLives) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    KillRunner(*first);
    const auto second = Launch("--task job");
    EXPECT_EQ(second->Wait(), 0);
    EXPECT_EQ(CountSkipped(), 1U);
    CHost().Stop();
    EXPECT_EQ(CountDead(), 1U) << "the host has recorded it";
    const auto third = Launch("--task job");
    EXPECT_EQ(third->Wait(), 0);
    EXPECT_EQ(CountSkipped(), 2U);
    EXPECT_EQ(CountBegun(), 1U);
    WriteFile("go", "");
    WaitUntil([] { return vxsched::FindOrphans(".", "job").empty(); });
    const auto fourth = Launch("--task job");
    EXPECT_EQ(fourth->Wait(), 0);
    EXPECT_EQ(CountBegun(), 2U);
    EXPECT_TRUE(fs::is_empty("files/orphans"));
}

TEST_F(Overlap, ProgramWhoseRunnerWasKilledIsReplaced) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    KillRunner(*first);
    const auto second = Launch("--task job --overlap replace");
    WaitUntil([] { return CountBegun() == 2; });
    EXPECT_TRUE(vxsched::FindOrphans(".", "job").empty());
    WriteFile("go", "");
    EXPECT_EQ(second->Wait(), 0);
    EXPECT_EQ(CountSkipped(), 0U);
}

// A process that got the number of one that has ended is another one.
TEST_F(Overlap, ProcessOfTheSameNumberIsNotTheProgram) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    KillRunner(*first);
    TRunRecord run = vxsched::FindOrphans(".", "job").at(0).run;
    run.processStart += 1;
    WriteFile("files/running/" + run.id, JsonLine(run));
    EXPECT_TRUE(vxsched::FindOrphans(".", "job").empty());
}

TEST_F(Overlap, HostRecordsASkippedLaunchOnce) {
    CHost host;
    CreateDue("job", RUNNER_PROGRAM, cText);
    WaitUntil([] { return CountBegun() == 1; });
    WaitForTheTicksEnd();
    CreateDue("job", RUNNER_PROGRAM, cText);
    WaitUntil([] { return CountSkipped() == 1; });
    WaitForTheTicksEnd();
    WriteFile("go", "");
    WaitUntil([] { return History().size() == 2; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(History().size(), 2U);
    EXPECT_EQ(CountBegun(), 1U);
    EXPECT_EQ(CountSkipped(), 1U);
    EXPECT_TRUE(History()[0].due);
    EXPECT_EQ(RunTool({"history", "job", "--failed", "--json"}).output.find("skipped"),
              std::string::npos);
    EXPECT_THAT(RunTool({"history", "job"}).output, HasSubstr("skipped: run "));
}

// ---- Waiting and replacing --------------------------------------------------------------------

TEST_F(Overlap, OneLaunchWaitsIfTheJobSaysSo) {
    const auto first = Launch("--task job --overlap queue");
    WaitUntil([] { return CountBegun() == 1; });
    const auto second = Launch("--task job --overlap queue");
    WaitUntil([] { return CountRunning() == 2; });
    const auto third = Launch("--task job --overlap queue");
    EXPECT_EQ(third->Wait(), 0);
    EXPECT_EQ(CountSkipped(), 1U);
    EXPECT_EQ(History()[0].underWay, vxsched::FindRunningRuns(".", "job").at(1).run.id);
    EXPECT_EQ(CountBegun(), 1U);
    WriteFile("go", "");
    EXPECT_EQ(first->Wait(), 0);
    EXPECT_EQ(second->Wait(), 0);
    EXPECT_EQ(CountBegun(), 2U);
    ASSERT_EQ(History().size(), 3U);
    EXPECT_EQ(History()[2].underWay, "");
    EXPECT_GE(*History()[2].started, *History()[1].ended);
}

TEST_F(Overlap, LaunchThatWaitsCanBeStopped) {
    const auto first = Launch("--task job");
    WaitUntil([] { return CountBegun() == 1; });
    const auto second = Launch("--task job --overlap queue");
    WaitUntil([] { return CountRunning() == 2; });
    second->Kill(SIGTERM);
    EXPECT_EQ(second->Wait(), 127);
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].error, "it was stopped before it began");
    WriteFile("go", "");
    EXPECT_EQ(first->Wait(), 0);
    EXPECT_EQ(CountBegun(), 1U);
}

TEST_F(Overlap, RunIsReplacedIfTheJobSaysSo) {
    const auto first = Launch("--task job --retry 3");
    WaitUntil([] { return CountBegun() == 1; });
    const auto second = Launch("--task job --overlap replace");
    EXPECT_EQ(first->Wait(), 1000 + SIGTERM);
    WaitUntil([] { return CountBegun() == 2; });
    WriteFile("go", "");
    EXPECT_EQ(second->Wait(), 0);
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(History()[0].stoppedBy, FindUser(getuid()).name);
    EXPECT_EQ(CountSkipped(), 0U);
}

TEST_F(Overlap, LaunchThatWaitsIsReplacedToo) {
    CProgram first({RUNNER_PROGRAM,
                    "--task job --shell 'trap \"\" TERM; touch begun/1; "
                    "while [ -e files ] && [ ! -e go ]; do sleep 0.01; done'"});
    WaitUntil([] { return CountBegun() == 1; });
    const auto second = Launch("--task job --overlap queue");
    WaitUntil([] { return CountRunning() == 2; });
    const auto third = Launch("--task job --overlap replace");
    EXPECT_EQ(second->Wait(), 127);
    EXPECT_EQ(CountBegun(), 1U);
    WriteFile("go", "");
    EXPECT_EQ(third->Wait(), 0);
    EXPECT_EQ(CountBegun(), 2U);
}

TEST_F(Overlap, HostDoesNotWaitForALaunchThatWaits) {
    CHost host;
    const std::string line = std::string("--overlap queue ") + cText;
    CreateDue("job", RUNNER_PROGRAM, line);
    WaitUntil([] { return CountBegun() == 1; });
    WaitForTheTicksEnd();
    CreateDue("job", RUNNER_PROGRAM, line);
    WaitUntil([] { return CountRunning() == 2; });
    WaitForTheTicksEnd();
    WriteFile("go", "");
    WaitUntil([] { return History().size() == 2; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountBegun(), 2U);
    EXPECT_EQ(CountSkipped(), 0U);
}
