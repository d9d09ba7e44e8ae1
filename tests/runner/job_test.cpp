// How a job that does not end when it is asked to is ended. The runner waits for ten seconds before it
// kills; here it does not wait for as long.

#include "runner/CJob.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "Process.h"
#include "base/Processes.h"
#include "base/Users.h"

namespace fs = std::filesystem;

// Reports how a shell script ends that this process, the runner, is asked to end once the script has
// made the file "begun". `group` gets its process group.
static TRunRecord Stop(const std::string& script, pid_t& group) {
    std::string program = "/bin/sh";
    std::string option = "-c";
    std::string text = script;
    char* const command[] = {program.data(), option.data(), text.data(), nullptr};
    CFollower follower(-1);
    CJob job(nullptr, follower, std::chrono::milliseconds(100));
    EXPECT_EQ(job.Launch(InheritedExecution(), command[0], command).error, 0);
    COutputFile file("output", 1000);
    job.KeepIn(file);
    WaitUntil([] { return fs::exists("begun"); });
    kill(getpid(), SIGTERM);
    TRunRecord run;
    job.WaitForEnd(run);
    group = job.Process();
    return run;
}

TEST(Job, ThatIgnoresTheRequestToEndIsKilled) {
    pid_t group = 0;
    const TRunRecord run = Stop("trap '' TERM; touch begun; while :; do sleep 0.01; done", group);
    EXPECT_EQ(run.outcome, TRunRecord::cKilled);
    EXPECT_EQ(run.number, SIGKILL);
    EXPECT_EQ(run.stoppedBy, FindUser(getuid()).name);
    EXPECT_FALSE(vxsched::IsGroupAlive(group));
}

// The program ends when it is asked to, its child only when it is killed. A record without the child's
// time has almost none.
TEST(Job, CountsTheResourcesOfWhatItKills) {
    for (int time = 0; time < 10; ++time) {
        fs::remove("begun");
        pid_t group = 0;
        const TRunRecord run = Stop(
            "(trap '' TERM; i=0; while [ $i -lt 100000 ]; do i=$((i+1)); done; touch begun; "
            "while :; do sleep 0.01; done) & wait",
            group);
        EXPECT_EQ(run.outcome, TRunRecord::cKilled);
        EXPECT_EQ(run.number, SIGTERM);
        EXPECT_FALSE(vxsched::IsGroupAlive(group));
        EXPECT_GT((run.usage.user + run.usage.system).count(), 20'000) << "microseconds";
    }
}
