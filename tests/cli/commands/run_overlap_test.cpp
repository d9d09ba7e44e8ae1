// run: while another run of the task is under way, or tasks are due.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "CliRun.h"
#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"
#include "runs/RunningRuns.h"

namespace fs = std::filesystem;

using testing::HasSubstr;

INSTANTIATE_TEST_SUITE_P(Of, CliRunEitherWay, testing::Bool(), LauncherOf);

// As the run itself would be, which waits for a host.
TEST_F(CliRun, DryRunWhileATaskIsDueIsRefusedWithoutAHost) {
    WriteJob("echo run >> runs");
    TRow due = Job();
    due.name = "due";
    due.next = std::time(nullptr) - 1;
    WriteTable({Job(), due});
    ExpectRefused(6, "task \"due\" is due and there is no scheduling process", {"run", "job"});
    ExpectRefused(6, "task \"due\" is due and there is no scheduling process",
                  {"run", "job", "--dry-run"});
    EXPECT_EQ(Output({"run", "job", "--dry-run", "--even-if-due"}), "would run job\n");
    EXPECT_FALSE(fs::exists("runs"));
}

TEST_F(CliRun, DryRunWithAHarmfulTableIsRefused) {
    WriteJob("echo run >> runs");
    WriteTable({Job(), {"endless", 5, 0, 268435456, cRecorder, "", 1}});
    ExpectRefused(5, "repair the table first", {"run", "job"});
    ExpectRefused(5, "repair the table first", {"run", "job", "--dry-run"});
    EXPECT_FALSE(fs::exists("runs"));
}

TEST_P(CliRunEitherWay, OfTwoAtOnceOneIsRefused) {
    WriteJob("echo $$ >> runs; while [ ! -e end ]; do sleep 0.01; done");
    StartHost();
    CProgram one({TOOL_PROGRAM, "run", "job"});
    CProgram other({TOOL_PROGRAM, "run", "job"});
    EXPECT_EQ(one.Wait() + other.Wait(), 1) << one.Output() << other.Output();
    EXPECT_THAT(one.Output() + other.Output(), HasSubstr("running already"));
    WaitUntil([] { return fs::exists("runs") && !Lines("runs").empty(); });
    WriteFile("end", "");
    WaitUntil([] { return Records().size() == 1; });
    EXPECT_EQ(Lines("runs").size(), 1U);
}

// By its own program a process of such a script is not known as the task's.
TEST_P(CliRunEitherWay, OfAScriptThatHasBecomeAnotherProgramIsRefused) {
    WriteJob("exec " PROGRAMS "/wait-for-it " + fs::absolute("end").string());
    StartHost();
    CProgram first({TOOL_PROGRAM, "run", "job"});
    EXPECT_EQ(first.Wait(), 0) << first.Output();
    WaitUntil([] { return !vxsched::FindRunningRuns(".", "job").empty(); });
    const std::string process =
        std::to_string(vxsched::FindRunningRuns(".", "job").at(0).run.process);
    WaitUntil([&] { return ReadFile("/proc/" + process + "/comm") == "wait-for-it\n"; });
    EXPECT_THAT(Output({"list"}), HasSubstr("running " + process));
    EXPECT_EQ(TJson::parse(Output({"show", "job", "--json"})).at("task").at("processes"),
              TJson{std::stoi(process)});
    ExpectRefused(1,
                  "task \"job\" is running already, as process " + process +
                      "; wait for its end, or launch a second run (--force)\n",
                  {"run", "job"});
    ExpectRefused(1, "task \"job\" is running already", {"run", "job", "--dry-run"});
    Output({"run", "job", "--force"});
    WriteFile("end", "");
    WaitUntil([] { return Records().size() == 2; });
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).status, 0);
}

TEST_P(CliRunEitherWay, ThoseThatAreForcedAreEachRecorded) {
    WriteJob("echo $$");
    StartHost();
    std::vector<std::unique_ptr<CProgram>> runs;
    for (int number = 0; number < 8; ++number)
        runs.push_back(std::make_unique<CProgram>(
            std::vector<std::string>{TOOL_PROGRAM, "run", "job", "--force", "--wait"}));
    std::set<std::string> printed;
    for (const auto& run : runs) {
        EXPECT_EQ(run->Wait(), 0) << run->Output();
        const std::size_t begin = run->Output().find('\n') + 1;
        printed.insert(run->Output().substr(begin, run->Output().find('\n', begin) - begin));
    }
    std::set<std::string> recorded;
    for (const TJson& record : Records())
        recorded.insert(record.at("process").dump());
    EXPECT_EQ(recorded.size(), 8U);
    EXPECT_EQ(printed, recorded) << "each has shown the output of its own";
    std::set<std::string> kept;
    for (int number = 1; number <= 8; ++number) {
        const std::string output = Output({"output", "job", "--run", std::to_string(number)});
        kept.insert(output.substr(0, output.find('\n')));
    }
    EXPECT_EQ(kept, recorded);
}

// A client that runs a task and a tick that launches it exclude each other.
TEST_F(CliRun, WhileTheScheduleLaunchesTheSameTaskBothAreRecorded) {
    WriteJob("echo run");
    CHost host;
    constexpr int cTimes = 5;
    for (int time = 0; time < cTimes; ++time) {
        CProgram run({TOOL_PROGRAM, "run", "job", "--force", "--wait"});
        Output({"edit", "job", "--at", "now"});
        EXPECT_EQ(run.Wait(), 0) << run.Output();
        EXPECT_THAT(run.Output(), HasSubstr("\nrun\n"));
        WaitUntil([] { return ReadTable().at(0).next > std::time(nullptr); });
    }
    WaitUntil([] { return Records().size() == 2 * cTimes; });
    int scheduled = 0;
    for (const TJson& record : Records()) {
        EXPECT_EQ(record.at("status"), 0);
        EXPECT_EQ(record.at("trigger"), record.at("due").is_null() ? "manual" : "schedule");
        scheduled += record.at("due").is_null() ? 0 : 1;
    }
    EXPECT_EQ(scheduled, cTimes);
    EXPECT_EQ(host.Stop(), 0);
}

// Without --force the run is refused if the other one is under way by then.
TEST_F(CliRun, WhileTheScheduleLaunchesTheSameTaskIsMadeOrRefused) {
    WriteJob("echo run");
    CHost host;
    constexpr int cTimes = 5;
    int made = 0;
    for (int time = 0; time < cTimes; ++time) {
        CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
        Output({"edit", "job", "--at", "now"});
        if (run.Wait() == 0)
            ++made;
        else
            EXPECT_THAT(run.Output(), HasSubstr("running already"));
        WaitUntil([] { return ReadTable().at(0).next > std::time(nullptr); });
    }
    const auto expected = static_cast<std::size_t>(cTimes + made);
    WaitUntil([&] { return Records().size() >= expected; });
    EXPECT_EQ(host.Stop(), 0);
    int manual = 0;
    for (const TJson& record : Records())
        manual += record.at("trigger") == "manual" ? 1 : 0;
    EXPECT_EQ(manual, made);
    EXPECT_EQ(Records().size(), expected);
}
