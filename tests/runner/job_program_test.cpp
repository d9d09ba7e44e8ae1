// vxrun as the program of a task, or as a command: it executes the job that its arguments describe.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class JobProgram : public testing::Test {
protected:
    JobProgram() {
        for (const char* const path : {"files", "bin", "lib"})
            fs::remove_all(path);
        fs::create_directory("files");
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    static TRunRecord OnlyRun() {
        std::vector<TRunRecord> runs;
        WaitUntil([&] {
            runs = vxsched::ReadHistory(".", {}).runs;
            return !runs.empty();
        });
        EXPECT_EQ(runs.size(), 1U);
        return runs.front();
    }

    // Expects the status of a vxrun with these arguments, and returns what it has written.
    static std::string Run(std::vector<std::string> arguments, int status) {
        arguments.insert(arguments.begin(), RUNNER_PROGRAM);
        CProgram runner(arguments);
        EXPECT_EQ(runner.Wait(), status) << runner.Output();
        return runner.Output();
    }
};

constexpr char cPrint[] = "printf '<%s>' \"$VXSCHED_TASK\" \"$@\"";

}  // namespace

// As another host launches it, which asks it for nothing.
TEST_F(JobProgram, SplitsItsOnlyArgument) {
    const std::string line = std::string("--task 'a task' -- /bin/sh -c '") +
                             R"(printf "<%s>" "$VXSCHED_TASK" "$@"; exit 3)" +
                             "' sh 'a  b' '' \\$HOME";
    EXPECT_EQ(Run({line}, 3), "<a task><a  b><><$HOME>");
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.task, "a task");
    EXPECT_EQ(run.trigger, cScheduled);
    EXPECT_EQ(run.program, "/bin/sh");
    EXPECT_THAT(run.parameter, StartsWith("-c 'printf"));
    EXPECT_THAT(run.parameter, testing::EndsWith("sh 'a  b' '' '$HOME'"));
    EXPECT_EQ(run.number, 3);
    EXPECT_NE(run.id, "");
    EXPECT_EQ(RunTool({"output", "a task"}).output, "<a task><a  b><><$HOME>");
}

TEST_F(JobProgram, TakesSeveralArgumentsAsTheyAre) {
    EXPECT_EQ(Run({"--task", "by hand", "--", "/bin/sh", "-c", cPrint, "sh", "'a b'", "$x"}, 0),
              "<by hand><'a b'><$x>");
    EXPECT_EQ(OnlyRun().trigger, cManual);
}

TEST_F(JobProgram, ExecutesATextOfAShell) {
    EXPECT_EQ(Run({"--shell 'echo a b | tr a-b c-d; exit 4'"}, 4), "c d\n");
    EXPECT_EQ(OnlyRun().number, 4);
}

TEST_F(JobProgram, IsKilledAsItsProgramIs) {
    Run({"--shell 'kill -9 $$'"}, 1009);
    EXPECT_EQ(OnlyRun().outcome, TRunRecord::cKilled);
}

TEST_F(JobProgram, RecordsALineThatIsNoJob) {
    EXPECT_THAT(Run({"--task x --timeuot 2h -- /bin/true"}, 2),
                StartsWith("vxrun: cannot read the job: unknown option \"--timeuot\""));
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(run.program, "vxrun");
    EXPECT_EQ(run.parameter, "--task x --timeuot 2h -- /bin/true");
    EXPECT_THAT(run.error, HasSubstr("unknown option \"--timeuot\""));
}

TEST_F(JobProgram, RecordsAProgramThatIsMissing) {
    EXPECT_THAT(Run({"--task x -- /nowhere"}, 127),
                HasSubstr("vxrun: cannot start /nowhere: No such file or directory"));
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.outcome, TRunRecord::cNotStarted);
    EXPECT_EQ(run.error, "cannot start /nowhere: No such file or directory");
}

TEST_F(JobProgram, WithoutAStoreRecordsNothing) {
    fs::remove_all("files");
    const std::string output = Run({"--", "/bin/echo", "a"}, 0);
    EXPECT_THAT(output, HasSubstr("vxrun: there is no files/ here: the run is not recorded\n"));
    EXPECT_THAT(output, HasSubstr("a\n"));
    EXPECT_FALSE(fs::exists("files"));
}

TEST_F(JobProgram, WithoutAJobIsAUsageError) {
    EXPECT_THAT(Run({}, 2), HasSubstr("vxrun: it needs a job: see vxrun --help\n"));
    const std::string help = Run({"--help"}, 0);
    EXPECT_THAT(help, HasSubstr("--timeout DURATION"));
    EXPECT_THAT(help, HasSubstr("--catch-up[=DURATION]"));
    EXPECT_TRUE(vxsched::ReadHistory(".", {}).runs.empty());
}

// The host launches it through a runner, which takes over the job: one process, and one record.
TEST_F(JobProgram, OfATaskIsTheRunnerThatTheHostStarts) {
    CHost host;
    CreateDue("job", RUNNER_PROGRAM, "--task other -- /usr/bin/printf '<%s>' 'a b' '' c");
    const TRunRecord run = OnlyRun();
    EXPECT_EQ(run.task, "job") << "the host knows its name";
    EXPECT_TRUE(run.due);
    EXPECT_EQ(run.program, "/usr/bin/printf");
    EXPECT_EQ(run.parameter, "'<%s>' 'a b' '' c");
    EXPECT_NE(RunnerOf(run.id), run.process);
    WaitForTheTicksEnd();
    EXPECT_EQ(RunTool({"output", "job"}).output, "<a b><><c>");
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(JobProgram, OfATaskIsShownAsTheProcessOfTheRun) {
    CHost host;
    WriteTable(
        {{"job", 4102444800, 0, 24, RUNNER_PROGRAM, "--shell 'touch begun; exec sleep 1000'", 0}});
    EXPECT_EQ(RunTool({"run", "job"}).status, 0);
    WaitUntil([] { return fs::exists("begun"); });
    EXPECT_THAT(RunTool({"run", "job"}).error, HasSubstr("is running already, as process "));
    EXPECT_THAT(RunTool({"show", "job"}).output, HasSubstr("running "));
    EXPECT_EQ(RunTool({"stop", "job"}).status, 0);
    EXPECT_EQ(OnlyRun().outcome, TRunRecord::cKilled);
    EXPECT_EQ(host.Stop(), 0);
}

// By a client that checks nothing.
TEST_F(JobProgram, ThatCannotBeExecutedIsReportedToTheHostWithTheReason) {
    CHost host;
    for (const auto& [line, reason] :
         {std::pair{"--timeuot 2h -- /bin/true",
                    "cannot read the job: unknown option \"--timeuot\""},
          std::pair{"-- /nowhere", "cannot start /nowhere: No such file or directory"}}) {
        fs::remove("files/history.jsonl");
        CreateDue("job", RUNNER_PROGRAM, line);
        const TRunRecord run = OnlyRun();
        EXPECT_EQ(run.outcome, TRunRecord::cNotStarted);
        EXPECT_THAT(run.error, StartsWith(reason));
        WaitForTheTicksEnd();
    }
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("cannot start " RUNNER_PROGRAM ": cannot start /nowhere"), 1U)
        << host.Output();
}

TEST_F(JobProgram, ThatCannotBeExecutedIsNotRunByHand) {
    WriteTable({{"wrong", 4102444800, 0, 24, RUNNER_PROGRAM, "--timeuot 2h -- /bin/true", 0},
                {"missing", 4102444800, 0, 24, RUNNER_PROGRAM, "-- /nowhere", 0}});
    EXPECT_THAT(RunTool({"run", "wrong"}).error, HasSubstr("unknown option \"--timeuot\""));
    EXPECT_THAT(RunTool({"run", "missing"}).error, HasSubstr("there is no program \"/nowhere\""));
    EXPECT_TRUE(vxsched::ReadHistory(".", {}).runs.empty());
}

// It is launched as any program, and records the run itself.
TEST_F(JobProgram, OfAHostWithoutARunnerIsRecordedOnce) {
    const fs::path program = HOST_PROGRAM;
    fs::create_directory("bin");
    fs::copy_file(program, "bin/vxschedd");
    fs::create_directory_symlink(program.parent_path().parent_path() / "lib", "lib");
    CHost host({"bin/vxschedd", "--directory", ".", "--addin", ADDIN_LIBRARY});
    CreateDue("job", RUNNER_PROGRAM, "-- /bin/sh -c 'exit 3'");
    EXPECT_EQ(OnlyRun().number, 3);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(OnlyRun().task, "job");
}
