// run --wait: how the program ends, and what is reported if that is not known.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "CliRun.h"
#include "HostProgram.h"
#include "Process.h"
#include "Tool.h"
#include "base/Users.h"

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

INSTANTIATE_TEST_SUITE_P(Of, CliRunEitherWay, testing::Bool(), LauncherOf);

TEST_P(CliRunEitherWay, ProgramThatIsKilledIsReported) {
    WriteJob("echo before; kill -KILL $$");
    StartHost();
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 128 + SIGKILL);
    EXPECT_EQ(run.output, "before\n");
    EXPECT_THAT(run.error, EndsWith("job was killed by SIGKILL\n"));
    EXPECT_EQ(LastRecord().at("signal"), SIGKILL);
    EXPECT_EQ(Output({"output", "job"}), "before\n");
}

// What it leaves behind writes nothing, or without end, and so overwrites what is kept of the
// output.
TEST_P(CliRunEitherWay, WhatAProgramLeavesBehindIsNotWaitedFor) {
    for (const std::string left : {"sleep 1000", "yes"}) {
        fs::remove("left");
        WriteJob("echo begin; " + left + " & echo $! > left; exit 6");
        if (!host)
            StartHost();
        const TToolRun run = RunTool({"run", "job", "--wait"});
        kill(ReadPid("left"), SIGKILL);
        EXPECT_EQ(run.status, 6);
        if (left != "yes") {
            EXPECT_EQ(run.output, "begin\n");
        }
        EXPECT_THAT(run.error, EndsWith("job exited with status 6\n"));
        EXPECT_EQ(LastRecord().at("status"), 6);
    }
}

TEST_P(CliRunEitherWay, ProgramThatIsStoppedFromElsewhereIsReported) {
    WriteJob("trap 'echo bye; exit 5' TERM; echo begun; while :; do sleep 0.01; done");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("begun\n"));
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr(": exited 5\n"));
    EXPECT_EQ(run.Wait(), 5);
    EXPECT_THAT(run.Output(), EndsWith("bye\nvxsched: job exited with status 5\n"));
    // In between may be what the shell writes of its sleep.
    EXPECT_THAT(Output({"output", "job"}), AllOf(StartsWith("begun\n"), EndsWith("\nbye\n")));
    EXPECT_EQ(LastRecord().at("stoppedBy"), FindUser(getuid()).name);
}

TEST_P(CliRunEitherWay, InterruptedWaitLeavesTheProgramRunning) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP()
        << "the thread sanitizer runs a handler only when recv() returns, and with SA_RESTART "
           "it does not";
#endif
    WriteJob("echo begun; while [ ! -e end ]; do sleep 0.01; done; exit 7");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("begun\n"));
    run.Kill(SIGINT);
    EXPECT_EQ(run.Wait(), 1000 + SIGINT);
    EXPECT_THAT(run.Output(), HasSubstr("interrupted; process "));
    EXPECT_THAT(run.Output(), HasSubstr("keeps running"));
    WriteFile("end", "");
    WaitUntil([] { return !Records().empty(); });
    EXPECT_EQ(LastRecord().at("status"), 7);
}

TEST_P(CliRunEitherWay, RunWhoseRunnerIsKilledHasFailed) {
    WriteJob("echo $PPID > runner; echo $$ > program; sleep 1000");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("started job"));
    const pid_t program = ReadPid("program");
    kill(ReadPid("runner"), SIGKILL);
    EXPECT_EQ(run.Wait(), 1);
    EXPECT_THAT(run.Output(), HasSubstr("the runner of process " + std::to_string(program) +
                                        " was killed: how the program ends is not known"));
    kill(-program, SIGKILL);
    EXPECT_THAT(Output({"history", "job", "--failed"}), HasSubstr("runner died"));
    EXPECT_THAT(Output({"show", "job"}), HasSubstr("runner died"));
    // Without a host nobody else notices, and the next launch records it.
    if (!host) {
        EXPECT_TRUE(Records().empty());
        WriteJob("while [ -e files ] && [ ! -e end ]; do sleep 0.01; done");
        Output({"run", "job"});
    }
    WaitUntil([] { return !Records().empty(); });
    EXPECT_EQ(LastRecord().at("outcome"), "runner died");
    EXPECT_EQ(LastRecord().at("trigger"), "manual");
    EXPECT_EQ(LastRecord().at("process"), program);
    EXPECT_EQ(Records().size(), 1U);
    EXPECT_THAT(Output({"history", "job"}), Not(ContainsRegex("runner died(.|\n)*runner died")));
    WriteFile("end", "");
}

TEST_F(CliRun, WithoutAHistoryTheEndIsNotKnown) {
    WriteJob("echo done");
    CHost host(HostWith({"--history-size", "0"}));
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.output, "done\n");
    EXPECT_THAT(run.error, HasSubstr("there is no record of how"));
    EXPECT_EQ(host.Stop(), 0);
}

// Its runner has left it in its own file.
TEST_P(CliRunEitherWay, EndThatCannotBeRecordedIsKnown) {
    WriteJob("echo done; exit 4");
    fs::create_directory(cHistory);
    StartHost();
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 4);
    EXPECT_EQ(run.output, "done\n");
    EXPECT_THAT(run.error, EndsWith("job exited with status 4\n"));
}
