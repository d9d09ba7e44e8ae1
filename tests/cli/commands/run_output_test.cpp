// run --wait: what the program reads and writes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

#include "CliRun.h"
#include "Process.h"
#include "Tool.h"
#include "base/CDescriptor.h"

using testing::EndsWith;
using testing::HasSubstr;

INSTANTIATE_TEST_SUITE_P(Of, CliRunEitherWay, testing::Bool(), LauncherOf);

TEST_P(CliRunEitherWay, ProgramThatReadsItsInputGetsNone) {
    WriteJob("cat; echo end");
    StartHost();
    const TToolRun run = RunTool({"run", "job", "--wait"}, {}, "typed");
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.output, "end\n");
}

TEST_P(CliRunEitherWay, OutputIsThatOfBothStreamsInTheirOrder) {
    WriteJob("echo one; echo two >&2; echo three");
    StartHost();
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).output, "one\ntwo\nthree\n");
    EXPECT_EQ(Output({"output", "job"}), "one\ntwo\nthree\n");
}

// The socket of the output must not get the number of a standard stream.
TEST_P(CliRunEitherWay, ClosedStreamsTakeNoOutputOfTheProgramFromTheOthers) {
    WriteJob("head -c 3000000 /dev/zero | tr '\\0' x; exit 5");
    StartHost();
    CProgram silent({"/bin/sh", "-c", TOOL_PROGRAM " run job --wait > all 2>&-"});
    EXPECT_EQ(silent.Wait(), 5);
    EXPECT_EQ(ReadFile("all"), std::string(3'000'000, 'x'));
    CProgram closed({"/bin/sh", "-c", TOOL_PROGRAM " run job --wait >&-"});
    EXPECT_EQ(closed.Wait(), 1);
    EXPECT_THAT(closed.Output(), HasSubstr("cannot write to standard output: Bad file descriptor; "
                                           "process "));
    EXPECT_THAT(closed.Output(), HasSubstr(" keeps running\n"));
}

TEST_P(CliRunEitherWay, ReaderIsAwaitedAlsoByAnOutputThatDoesNotBlock) {
    WriteJob("head -c 3000000 /dev/zero; exit 5");
    StartHost();
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    const CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    fcntl(theirs.Get(), F_SETFL, O_NONBLOCK);
    CForkedChild run([&] {
        dup2(theirs.Get(), STDOUT_FILENO);
        execl(TOOL_PROGRAM, TOOL_PROGRAM, "run", "job", "--wait", nullptr);
        return 1;
    });
    theirs = CDescriptor();
    WaitUntil([&] {
        int size = 0;
        return ioctl(ours.Get(), FIONREAD, &size) == 0 && size == 65536;
    });
    std::size_t count = 0;
    std::array<char, 65536> block{};
    for (ssize_t part = 0; (part = read(ours.Get(), block.data(), block.size())) > 0;)
        count += static_cast<std::size_t>(part);
    EXPECT_EQ(count, 3'000'000U);
    EXPECT_EQ(run.Wait(), 5);
}

// Either nothing is launched, or all of the output is printed.
TEST_P(CliRunEitherWay, WithFewDescriptorsNoOutputIsLostSilently) {
    WriteJob("echo line; exit 5");
    StartHost();
    for (int limit = 8; limit < 16; ++limit) {
        CProgram run(
            {"/bin/sh", "-c",
             "ulimit -n " + std::to_string(limit) + "; exec " TOOL_PROGRAM " run job --wait 2>&1"});
        const int status = run.Wait();
        EXPECT_EQ(status == 5, run.Output().find("line\n") != std::string::npos)
            << limit << ": " << status << ' ' << run.Output();
    }
}

// A terminal shows how it ended in a line of its own, and gets no control characters of the program.
TEST_P(CliRunEitherWay, OutputOnATerminalIsShown) {
    WriteJob("printf 'one\\033[1m\\ntwo'");
    StartHost();
    const TToolRun run = RunToolOnTerminal({"run", "job", "--wait"}, 80);
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output,
                HasSubstr("\none\xef\xbf\xbd[1m\ntwo\nvxsched: job exited with status 0\n"));
}

// The program waits for the command, as for a pipe, so that none of it is lost.
TEST_P(CliRunEitherWay, OutputOfAHundredMegabytesIsPrintedWhole) {
    WriteJob("head -c 100000000 /dev/zero | tr '\\0' x; echo; echo end; exit 4");
    StartHost();
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 4) << run.error;
    EXPECT_EQ(run.output.size(), 100'000'005U);
    EXPECT_EQ(run.output.find_first_not_of('x'), 100'000'000U);
    EXPECT_THAT(run.output, EndsWith("x\nend\n"));
    EXPECT_EQ(LastRecord().at("outputBytes"), 100'000'005);
    const std::string kept = RunTool({"output", "job"}).output;
    EXPECT_EQ(kept.size(), std::size_t{1} << 20U) << "as much as is kept by default";
    EXPECT_TRUE(run.output.ends_with(kept));
}

// The pipe, the runner and the socket have room for it: the command reads it after the program's end.
TEST_P(CliRunEitherWay, OutputThatIsNotReadYetOutlivesTheProgramAndTheHost) {
    WriteJob(
        "echo begun; while [ ! -e write ]; do sleep 0.01; done; "
        "head -c 120000 /dev/zero | tr '\\0' x; exit 4");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("begun\n"));
    run.Kill(SIGSTOP);
    WriteFile("write", "");
    WaitUntil([] { return !Records().empty(); });
    EXPECT_EQ(LastRecord().at("outputBytes"), 120'006);
    if (host) {
        EXPECT_EQ(host->Stop(), 0) << host->Output();
        host.reset();
    }
    run.Kill(SIGCONT);
    EXPECT_TRUE(run.WaitForOutput("job exited with status 4\n"));
    EXPECT_EQ(run.Wait(), 4);
    EXPECT_THAT(run.Output(), HasSubstr(std::string(120'000, 'x')));
}

// A program that writes more than fits waits, and is stopped all the same.
TEST_P(CliRunEitherWay, ProgramThatWaitsForAStoppedCommandCanBeStopped) {
    WriteJob("echo begun; exec head -c 100000000 /dev/zero");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("begun\n"));
    run.Kill(SIGSTOP);
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr("SIGTERM"));
    EXPECT_EQ(LastRecord().at("signal"), SIGTERM);
    run.Kill(SIGCONT);
    EXPECT_TRUE(run.WaitForOutput("job was killed by SIGTERM\n"));
    EXPECT_EQ(run.Wait(), 128 + SIGTERM);
}

// The program gets no SIGPIPE, and its output is kept.
TEST_P(CliRunEitherWay, ProgramGoesOnWhenTheCommandIsKilled) {
    WriteJob(
        "echo begun; while [ ! -e write ]; do sleep 0.01; done; "
        "head -c 100000000 /dev/zero; echo end; exit 4");
    StartHost();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    ASSERT_TRUE(run.WaitForOutput("begun\n"));
    run.Kill(SIGKILL);
    run.Wait();
    WriteFile("write", "");
    WaitUntil([] { return !Records().empty(); });
    EXPECT_EQ(LastRecord().at("status"), 4);
    EXPECT_EQ(LastRecord().at("outputBytes"), 100'000'010);
}
