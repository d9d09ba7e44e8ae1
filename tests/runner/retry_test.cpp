// Further attempts of a run that has failed. No pause between them here is waited for: it is none at all,
// or so long that it does not end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "base/Users.h"
#include "runner/Pause.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

// Each attempt adds a line to a file, and the one that finds `fails` of them ends well.
std::string FailingFirst(int fails) {
    return "--shell 'echo begun >> attempts; echo out; test $(wc -l < attempts) -gt " +
           std::to_string(fails) + "'";
}

class Retry : public testing::Test {
protected:
    Retry() {
        for (const char* const path : {"files", "attempts"})
            fs::remove_all(path);
        fs::create_directory("files");
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    // As another host launches it for a due time: with one argument.
    static std::unique_ptr<CProgram> Launch(const std::string& line) {
        return std::make_unique<CProgram>(
            std::vector<std::string>{RUNNER_PROGRAM, "--task job " + line});
    }
    static std::size_t CountBegun() { return CountLines("attempts"); }
    static std::vector<TRunRecord> History() { return vxsched::ReadHistory(".", {}).runs; }
    static std::vector<vxsched::TRunning> Running() { return vxsched::FindRunningRuns(".", "job"); }

    // Whether the second attempt has begun to wait.
    static bool IsPausing() {
        return History().size() == 1 && Running().size() == 1 && Running()[0].run.attempt == 2;
    }
};

}  // namespace

TEST_F(Retry, IsMadeUntilAnAttemptEndsWell) {
    const auto runner = Launch("--retry 5 --backoff 0s " + FailingFirst(2));
    EXPECT_EQ(runner->Wait(), 0);
    EXPECT_EQ(runner->Output(), "out\nout\nout\n");
    const std::vector<TRunRecord> runs = History();
    ASSERT_EQ(runs.size(), 3U);
    EXPECT_EQ(runs[0].trigger, cScheduled);
    EXPECT_EQ(runs[0].attempt, 1);
    EXPECT_EQ(runs[0].number, 1);
    EXPECT_EQ(runs[0].retryOf, "");
    for (const int attempt : {2, 3}) {
        const TRunRecord& run = runs[static_cast<std::size_t>(attempt) - 1];
        EXPECT_EQ(run.trigger, cRetried);
        EXPECT_EQ(run.attempt, attempt);
        EXPECT_EQ(run.retryOf, runs[0].id);
        EXPECT_EQ(run.task, "job");
        EXPECT_EQ(run.program, "/bin/sh");
        EXPECT_EQ(run.outputBytes, 4U);
        EXPECT_GT(run.id, runs[static_cast<std::size_t>(attempt) - 2].id);
    }
    EXPECT_EQ(runs[2].number, 0);
    EXPECT_TRUE(Running().empty());
}

TEST_F(Retry, IsMadeSoManyTimesAtMost) {
    EXPECT_EQ(Launch("--retry 2 --backoff 0s --shell 'exit 7'")->Wait(), 7);
    EXPECT_EQ(History().size(), 3U);
    EXPECT_EQ(History()[2].number, 7);
    EXPECT_TRUE(fs::is_empty("files/running"));
}

TEST_F(Retry, IsOfWhatHasFailed) {
    EXPECT_EQ(Launch("--retry 1 --backoff 0s --success 3 --shell 'exit 3'")->Wait(), 3);
    EXPECT_EQ(History().size(), 1U);
    EXPECT_EQ(Launch("--retry 1 --backoff 0s --success 3 --shell 'exit 0'")->Wait(), 0);
    EXPECT_EQ(History().size(), 3U);
    EXPECT_EQ(Launch("--retry 1 --backoff 0s --shell 'kill -9 $$'")->Wait(), 1000 + SIGKILL);
    EXPECT_EQ(History().size(), 5U);
    EXPECT_EQ(Launch("--retry 1 --backoff 0s -- /no/such")->Wait(), 127);
    EXPECT_EQ(History().size(), 6U) << "it would not start the next time either";
}

TEST_F(Retry, IsNotMadeOfARunThatWasStopped) {
    const auto runner = Launch("--retry 1 --backoff 0s --shell 'echo >> attempts; sleep 1000'");
    WaitUntil([] { return CountBegun() == 1; });
    runner->Kill(SIGTERM);
    EXPECT_EQ(runner->Wait(), 1000 + SIGTERM);
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].stoppedBy, FindUser(getuid()).name);
}

TEST_F(Retry, IsUnderWayWhileItWaits) {
    WriteTable({{"job", 4102444800, 0, 24, RUNNER_PROGRAM,
                 "--task job --retry 1 --backoff 1h --shell 'exit 3'", 0}});
    const auto runner = Launch("--retry 1 --backoff 1h --shell 'exit 3'");
    WaitUntil(IsPausing);
    EXPECT_THAT(RunTool({"list", "--json"}).output,
                HasSubstr("\"processes\": [\n        " + std::to_string(Running()[0].runner)));
    EXPECT_THAT(RunTool({"run", "job"}).error, HasSubstr("is running"));
    const auto other = Launch("-- /bin/true");
    EXPECT_EQ(other->Wait(), 0);
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(History()[1].outcome, TRunRecord::cSkipped);
    EXPECT_EQ(RunTool({"stop", "job"}).status, 0);
    EXPECT_EQ(runner->Wait(), 127);
    const std::vector<TRunRecord> runs = History();
    ASSERT_EQ(runs.size(), 3U);
    EXPECT_EQ(runs[2].outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(runs[2].error, "it was stopped before it began");
    EXPECT_EQ(runs[2].stoppedBy, FindUser(getuid()).name);
    EXPECT_TRUE(Running().empty());
}

// The request goes to the process that whoever has launched the job knows.
TEST_F(Retry, IsEndedByASignalToTheFirstRunner) {
    const auto runner = Launch("--retry 1 --backoff 1h --shell 'exit 3'");
    WaitUntil(IsPausing);
    runner->Kill(SIGTERM);
    EXPECT_EQ(runner->Wait(), 127);
    EXPECT_EQ(History().size(), 2U);
}

TEST_F(Retry, OfARunnerThatWasKilledIsRecorded) {
    const auto runner = Launch("--retry 1 --backoff 1h --shell 'exit 3'");
    WaitUntil(IsPausing);
    kill(Running()[0].runner, SIGKILL);
    EXPECT_EQ(runner->Wait(), 1000 + SIGKILL);
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(History()[1].outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(History()[1].error, "its runner was killed before the program began");
    EXPECT_EQ(History()[1].attempt, 2);
    const CHost host;
    WaitUntil([] { return CountIn("files/running") == 0; });
    EXPECT_EQ(History().size(), 2U) << "there is no third attempt";
}

// A run waits before its first attempt; its runner is killed, alone or with the host.
TEST_F(Retry, IsMadeOfARunWhoseRunnerWasKilledBeforeItBegan) {
    const std::string job = "--retry 1 --backoff 0s --random-delay 1000h " + FailingFirst(0);
    for (const bool isHostKilled : {false, true}) {
        fs::remove_all("files");
        fs::remove("attempts");
        fs::create_directory("files");
        auto host = std::make_unique<CHost>();
        CreateDue("job", RUNNER_PROGRAM, job);
        WaitUntil([] { return Running().size() == 1; });
        WaitForTheTicksEnd();
        if (isHostKilled) {
            host->Kill(SIGKILL);
            host->Wait();
        }
        kill(Running()[0].runner, SIGKILL);
        if (isHostKilled)
            host = std::make_unique<CHost>();
        WaitUntil([] { return History().size() == 2 && CountIn("files/running") == 0; });
        EXPECT_EQ(host->Stop(), 0);
        const std::vector<TRunRecord> runs = History();
        const std::size_t lost = runs[0].attempt == 1 ? 0 : 1;
        EXPECT_EQ(runs[lost].error, "its runner was killed before the program began");
        EXPECT_EQ(runs[lost].job, "");
        EXPECT_TRUE(runs[lost].ended);
        const TRunRecord& retry = runs[1 - lost];
        EXPECT_EQ(retry.attempt, 2);
        EXPECT_EQ(retry.retryOf, runs[lost].id);
        EXPECT_EQ(retry.trigger, cRetried);
        EXPECT_EQ(retry.due, runs[lost].due);
        EXPECT_EQ(retry.outcome, TRunRecord::cExited);
        EXPECT_EQ(retry.number, 0);
        EXPECT_EQ(CountBegun(), 1U) << host->Output();
    }
}

// The host was killed before it could record the attempt whose next it has launched.
TEST_F(Retry, IsNotMadeTwiceOfARunWhoseRunnerWasKilled) {
    const std::string job = "--retry 5 --backoff 0s --random-delay 1000h " + FailingFirst(0);
    auto host = std::make_unique<CHost>();
    CreateDue("job", RUNNER_PROGRAM, job);
    WaitUntil([] { return Running().size() == 1; });
    WaitForTheTicksEnd();
    const std::string path = "files/running/" + Running()[0].run.id;
    const std::string killed = ReadFile(path);
    kill(Running()[0].runner, SIGKILL);
    WaitUntil([] { return CountBegun() == 1 && History().size() == 2; });
    host->Kill(SIGKILL);
    host->Wait();
    const std::string history = ReadFile("files/history.jsonl");
    std::string without;
    for (const std::string& line : Lines("files/history.jsonl")) {
        if (line.find("its runner was killed") == std::string::npos)
            without += line + '\n';
    }
    WriteFile("files/history.jsonl", without);
    WriteFile(path, killed);
    host = std::make_unique<CHost>();
    WaitUntil([] { return History().size() == 2 && CountIn("files/running") == 0; });
    EXPECT_EQ(host->Stop(), 0);
    EXPECT_EQ(CountBegun(), 1U);
    EXPECT_EQ(History().size(), 2U);
}

TEST_F(Retry, IsNotMadeOfARunWhoseRunnerWasKilledWhileItsProgramRan) {
    CHost host;
    CreateDue("job", RUNNER_PROGRAM, "--retry 1 --backoff 0s " PROGRAMS "/wait-forever");
    WaitUntil([] { return Running().size() == 1 && Running()[0].run.process != 0; });
    WaitForTheTicksEnd();
    const pid_t program = Running()[0].run.process;
    kill(Running()[0].runner, SIGKILL);
    WaitUntil([] { return History().size() == 1; });
    kill(program, SIGKILL);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].outcome, TRunRecord::cRunnerDied);
}

TEST_F(Retry, IsWaitedForByWhoeverRunsTheTask) {
    WriteTable({{"job", 4102444800, 0, 24, RUNNER_PROGRAM,
                 "--retry 5 --backoff 0s " + FailingFirst(2), 0}});
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.output, "out\nout\nout\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(History().size(), 3U);
    EXPECT_EQ(History()[0].trigger, cManual);
}

TEST_F(Retry, IsMadeOfALaunchByTheHost) {
    CHost host;
    CreateDue("job", RUNNER_PROGRAM, "--retry 5 --backoff 0s " + FailingFirst(2));
    WaitUntil([] { return History().size() == 3; });
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    ASSERT_EQ(History().size(), 3U);
    EXPECT_EQ(History()[2].number, 0);
    EXPECT_EQ(History()[2].due, History()[0].due);
    EXPECT_TRUE(History()[2].due);
}

TEST(PauseAfter, DoublesUpToAnHour) {
    EXPECT_EQ(PauseAfter(1, 60s, 0.5), 60s);
    EXPECT_EQ(PauseAfter(2, 60s, 0.5), 120s);
    EXPECT_EQ(PauseAfter(6, 60s, 0.5), 1920s);
    EXPECT_EQ(PauseAfter(7, 60s, 0.5), 1h);
    EXPECT_EQ(PauseAfter(100, 60s, 0.5), 1h);
    EXPECT_EQ(PauseAfter(100, 24h * 3650, 0.99), 1h);
    EXPECT_EQ(PauseAfter(100, 0s, 0.5), 0s);
}

TEST(PauseAfter, VariesByAQuarter) {
    EXPECT_EQ(PauseAfter(1, 60s, 0), 45s);
    EXPECT_EQ(PauseAfter(1, 60s, 0.75), 67500ms);
    EXPECT_EQ(PauseAfter(100, 60s, 0), 45min);
}
