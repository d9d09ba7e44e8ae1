// Jobs that harm themselves, their runner or their store, and lines made to harm.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Cli.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "base/Processes.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::Not;

namespace {

// What an argument may have, but for its last byte.
constexpr std::size_t cLongestLine = 131071;

class HostileJob : public Cli {
protected:
    HostileJob() {
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    // As another host launches it. Returns how its runner ends.
    static int Launch(const std::string& line) {
        CProgram runner({"/bin/sh", "-c", "exec " RUNNER_PROGRAM " \"$0\" > /dev/null", line});
        return runner.Wait();
    }

    static TRunRecord OnlyRun() {
        const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", {}).runs;
        EXPECT_EQ(runs.size(), 1U);
        return runs.empty() ? TRunRecord() : runs[0];
    }
};

}  // namespace

TEST_F(HostileJob, OutputWithoutEndTakesTheRoomOfItsSizeAndEndsWithTheLimit) {
    EXPECT_EQ(Launch("--task job --timeout 1s -- /usr/bin/yes"), 1000 + SIGTERM);
    const TRunRecord run = OnlyRun();
    EXPECT_GT(run.outputBytes, 1U << 21U);
    EXPECT_LE(fs::file_size(run.output), (1U << 20U) + 1000);
    EXPECT_TRUE(run.timeLimit);
}

// It makes at most two hundred processes, none of which ends by itself.
TEST_F(HostileJob, ProcessesThatMakeProcessesEndWithTheLimit) {
    EXPECT_EQ(Launch("--task job --timeout 1s --kill-after 1s --shell "
                     "'trap \"\" TERM; echo $$ > first; b() { [ $1 -le 0 ] || { b $(($1-1)) & b "
                     "$(($1-1)) & }; sleep 1000; }; b 6 & sleep 1000'"),
              1000 + SIGKILL);
    EXPECT_TRUE(OnlyRun().timeLimit);
    EXPECT_FALSE(vxsched::IsGroupAlive(std::stoi(ReadFile("first"))));
}

TEST_F(HostileJob, ThatClosesEverythingIsRecorded) {
    EXPECT_EQ(Launch("--task job -- /usr/bin/python3 -c 'import os,time; os.closerange(0, 1000); "
                     "time.sleep(0.1); os._exit(7)'"),
              7);
    EXPECT_EQ(OnlyRun().number, 7);
}

TEST_F(HostileJob, ThatStopsItselfEndsWithTheLimit) {
    EXPECT_EQ(Launch("--task job --timeout 1s --kill-after 1s --shell 'kill -STOP $$; sleep 1000'"),
              1000 + SIGKILL);
    EXPECT_TRUE(OnlyRun().timeLimit);
}

// The run is recorded anew in what the end of it makes.
TEST_F(HostileJob, ThatDeletesTheStoreEndsAll) {
    const std::string files = fs::absolute("files");
    EXPECT_EQ(Launch("--task job -- /bin/rm -rf " + files), 0);
    EXPECT_TRUE(vxsched::FindRunningRuns(".", "job").empty());
    fs::create_directory("files");
    EXPECT_EQ(Launch("--task job -- /bin/true"), 0);
    EXPECT_EQ(OnlyRun().number, 0);
}

TEST_F(HostileJob, ThatKillsItsRunnerIsRecordedAsThat) {
    EXPECT_EQ(Launch("--task job --shell 'kill -KILL $PPID; sleep 0.1'"), 1000 + SIGKILL);
    CHost().Stop();
    EXPECT_EQ(OnlyRun().outcome, TRunRecord::cRunnerDied);
}

TEST_F(HostileJob, LongestLineIsExecutedAndALongerOneRefused) {
    const std::string head = "--task job -- /bin/sh -c 'echo ${#1} > length' x ";
    EXPECT_EQ(Launch(head + std::string(cLongestLine - head.size(), 'a')), 0);
    EXPECT_EQ(ReadFile("length"), std::to_string(cLongestLine - head.size()) + '\n');
    const auto create = [](std::size_t size) {
        return RunTool({"create", "job", "--at", "in 1h", "--replace", "--", "/bin/echo", "x",
                        std::string(size, 'a')});
    };
    const std::size_t most = cLongestLine - std::string("--task job -- /bin/echo x ").size();
    EXPECT_EQ(create(most).status, 0);
    EXPECT_EQ(ReadTable().at(0).parameters.size(), cLongestLine);
    const TToolRun refused = create(most + 1);
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.error, HasSubstr("at most 131071"));
    EXPECT_LT(refused.error.size(), 1000U);
    EXPECT_EQ(ReadTable().at(0).parameters.size(), cLongestLine);
}

TEST_F(HostileJob, ExpressionOfTenThousandCharactersIsRefusedAtOnce) {
    for (const char* const part : {"1,", "*/1,", "* ", "1-", "((((", "\x1b[31m"}) {
        std::string expression;
        while (expression.size() < 10'000)
            expression += part;
        const TToolRun run = RunTool({"create", "job", "--cron", expression, "--", "/bin/true"});
        EXPECT_EQ(run.status, 2) << part;
        EXPECT_LT(run.error.size(), 1000U) << part;
        EXPECT_THAT(run.error, Not(HasSubstr("\x1b")));
    }
    EXPECT_FALSE(fs::exists(cTable));
}

TEST_F(HostileJob, ControlCharactersReachNoTerminal) {
    const std::string evil = "a\x1b[2Jb\nc\rd\x7f";
    EXPECT_EQ(RunTool({"create", evil, "--daily", "03:00", "--env", "A=" + evil, "--on-failure",
                       evil, "--", "/bin/echo", evil})
                  .status,
              0);
    for (const std::vector<std::string>& arguments : {std::vector<std::string>{"list"},
                                                      {"show", evil},
                                                      {"next"},
                                                      {"edit", evil, "--daily", "04:00"}}) {
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, 0) << run.error;
        for (const char control : {'\x1b', '\r', '\x7f'})
            EXPECT_EQ(run.output.find(control), std::string::npos) << arguments[0];
    }
}
