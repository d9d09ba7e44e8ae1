// The time limit of a job, and a stop that reaches all that it has started. The runner waits for ten
// seconds before it kills; here it does not wait for as long.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "base/Processes.h"
#include "base/Users.h"
#include "runner/CJob.h"
#include "runner/Descendants.h"
#include "runs/HistoryReader.h"

namespace fs = std::filesystem;

using std::chrono::milliseconds;

namespace {

class JobLimit : public testing::Test {
protected:
    JobLimit() {
        for (const char* const path : {"files", "begun", "left", "signals", "output"})
            fs::remove_all(path);
    }

    // A job that executes the text of a shell. This process is the runner.
    class CShellJob {
    public:
        explicit CShellJob(const std::string& text, milliseconds killAfter = milliseconds(100))
            : job(nullptr, follower, killAfter), file("output", 1000), script(text) {
            job.ReachAll();
        }

        TRunRecord RunFor(milliseconds limit) {
            job.LimitTime(limit, milliseconds(100));
            Launch();
            return Wait();
        }

        // Asks it to end once the script has made the file "begun".
        TRunRecord Stop() {
            Launch();
            WaitUntil([] { return fs::exists("begun"); });
            kill(getpid(), SIGTERM);
            return Wait();
        }

    private:
        void Launch() {
            std::string program = "/bin/sh";
            std::string option = "-c";
            char* const command[] = {program.data(), option.data(), script.data(), nullptr};
            EXPECT_EQ(job.Launch(InheritedExecution(), command[0], command).error, 0);
            job.KeepIn(file);
        }

        TRunRecord Wait() {
            TRunRecord run;
            job.WaitForEnd(run);
            return run;
        }

        CFollower follower{-1};
        CJob job;
        COutputFile file;
        std::string script;
    };

    static pid_t Left() { return std::stoi(ReadFile("left")); }
};

}  // namespace

TEST_F(JobLimit, EndsAJobThatExceedsIt) {
    const TRunRecord run = CShellJob("sleep 1000").RunFor(milliseconds(50));
    EXPECT_EQ(run.outcome, TRunRecord::cKilled);
    EXPECT_EQ(run.number, SIGTERM);
    EXPECT_EQ(run.timeLimit, std::chrono::seconds(1)) << "rounded up";
    EXPECT_EQ(run.stoppedBy, "");
}

// A program that ends well when it is asked to has not done what it should have.
TEST_F(JobLimit, IsRecordedWhateverTheJobMakesOfTheSignal) {
    const TRunRecord run =
        CShellJob("trap 'exit 0' TERM; touch begun; while :; do sleep 0.01; done")
            .RunFor(milliseconds(1000));
    EXPECT_EQ(run.timeLimit, std::chrono::seconds(1));
}

// By its own delay, not by that of a stop.
TEST_F(JobLimit, KillsWhatIgnoresIt) {
    const TRunRecord run =
        CShellJob("trap '' TERM; while :; do sleep 0.01; done", std::chrono::hours(24))
            .RunFor(milliseconds(1000));
    EXPECT_EQ(run.outcome, TRunRecord::cKilled);
    EXPECT_EQ(run.timeLimit, std::chrono::seconds(1));
}

TEST_F(JobLimit, LeavesAJobAloneThatKeepsIt) {
    const TRunRecord run = CShellJob("exit 3").RunFor(std::chrono::hours(24 * 3650));
    EXPECT_EQ(run.outcome, TRunRecord::cExited);
    EXPECT_EQ(run.number, 3);
    EXPECT_FALSE(run.timeLimit);
}

TEST_F(JobLimit, OfACommandIsRecorded) {
    fs::create_directory("files");
    CProgram runner(
        {RUNNER_PROGRAM, "--task", "job", "--timeout", "1s", "--", "/bin/sleep", "1000"});
    EXPECT_EQ(runner.Wait(), 1000 + SIGTERM);
    const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", "job").runs;
    ASSERT_EQ(runs.size(), 1U);
    EXPECT_EQ(runs[0].timeLimit, std::chrono::seconds(1));
    EXPECT_EQ(runs[0].number, SIGTERM);
}

TEST_F(JobLimit, KillsWhatIgnoresTheRequestToEnd) {
    const TRunRecord run =
        CShellJob("trap '' TERM; touch begun; while :; do sleep 0.01; done").Stop();
    EXPECT_EQ(run.number, SIGKILL);
    EXPECT_EQ(run.stoppedBy, FindUser(getuid()).name);
    EXPECT_FALSE(run.timeLimit);
}

TEST_F(JobLimit, StopReachesWhatHasLeftTheProcessGroup) {
    const TRunRecord run = CShellJob(
                               "setsid sh -c 'echo $$ > left; touch begun; exec sleep 1000' &"
                               "wait")
                               .Stop();
    EXPECT_EQ(run.number, SIGTERM);
    EXPECT_TRUE(vxsched::HasEnded(Left()));
}

// Its parent has ended: it is an orphan of a session of its own, that ignores the request.
TEST_F(JobLimit, StopReachesADaemon) {
    const TRunRecord run =
        CShellJob(
            "setsid sh -c '(trap \"\" TERM; while :; do sleep 0.01; done) & echo $! > left';"
            "touch begun; exec sleep 1000")
            .Stop();
    EXPECT_EQ(run.number, SIGTERM) << "the program itself does end";
    EXPECT_TRUE(vxsched::HasEnded(Left()));
}

TEST_F(JobLimit, StopReachesWhatIsStartedAfterIt) {
    CShellJob(
        "trap 'setsid sleep 1000 & echo $! > left; exit' TERM; touch begun;"
        "while :; do sleep 0.01; done")
        .Stop();
    EXPECT_TRUE(vxsched::HasEnded(Left()));
}

TEST_F(JobLimit, StopReachesWhatIsStopped) {
    CShellJob("sh -c 'echo $$ > left; touch begun; kill -STOP $$' & wait").Stop();
    EXPECT_TRUE(vxsched::HasEnded(Left()));
}

// The second one has many programs end without what they do at the first.
TEST_F(JobLimit, RequestToEndComesOnce) {
    CShellJob("trap 'echo >> signals' TERM; touch begun; while :; do sleep 0.01; done",
              milliseconds(300))
        .Stop();
    EXPECT_EQ(CountLines("signals"), 1U);
}

// Each process that is found has made another one by then, or has not. There are not so many that the
// machine would have no number for others, should the stop fail.
TEST_F(JobLimit, StopReachesWhatAlwaysBecomesAnotherProcess) {
    WriteFile("hopping", "");
    WriteFile("hop.sh",
              "trap '' TERM\n[ -e hopping ] && [ $1 -lt 5000 ] && sh hop.sh $(($1 + 1)) &\n");
    CShellJob("setsid sh hop.sh 0 & touch begun; exec sleep 1000").Stop();
    const std::vector<pid_t> left = FindDescendants();
    fs::remove("hopping");
    for (const pid_t process : left)
        EXPECT_TRUE(vxsched::HasEnded(process)) << process;
}
