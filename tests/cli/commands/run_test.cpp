// run: launches a program now. The host launches it, as it does the due tasks; without a host the
// change process does. Either way the program is recorded, with the same environment.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include <vxsched/Store.h>
#include "CliRun.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

INSTANTIATE_TEST_SUITE_P(Of, CliRunEitherWay, testing::Bool(), LauncherOf);

TEST_F(CliRun, HasTheEnvironmentTheUserAndTheHistoryOfTheHostsLaunches) {
    WriteJob("echo \"$MINE-$VXSCHED_TASK-$VXSCHED_DUE\"; id -u; pwd; exit 3");
    setenv("MINE", "the host's", 1);
    CHost host;
    const TToolRun run = RunTool({"run", "job", "--wait"}, {{"MINE", "the caller's"}});
    EXPECT_EQ(run.status, 3) << run.error;
    EXPECT_EQ(run.output, "the host's-job-\n" + std::to_string(getuid()) + '\n' +
                              fs::current_path().string() + '\n');
    EXPECT_THAT(run.error, StartsWith("vxsched: started job as process "));
    EXPECT_THAT(run.error, EndsWith("\nvxsched: job exited with status 3\n"));
    const TJson record = LastRecord();
    EXPECT_EQ(record.at("name"), "job");
    EXPECT_TRUE(record.at("due").is_null());
    EXPECT_EQ(record.at("trigger"), "manual");
    EXPECT_EQ(record.at("status"), 3);
    EXPECT_NE(ReadTable().at(0).last, 0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_THAT(host.Output(),
                HasSubstr("started process " + record.at("process").dump() + " for task \"job\""));
    EXPECT_THAT(host.Output(), HasSubstr("exited with status 3"));
}

// Its parent is the host, and not a process of the caller's.
TEST_F(CliRun, IsLaunchedByTheHost) {
    WriteJob("cut -d ' ' -f 4 /proc/$PPID/stat");
    CHost host;
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.output, std::to_string(host.Id()) + '\n');
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(CliRun, WithoutAHostHasAnEnvironmentOfItsOwn) {
    WriteJob("env; pwd");
    const TToolRun run =
        RunTool({"run", "job", "--wait"},
                {{"MINE", "the caller's"}, {"PATH", "/mine"}, {"HOME", "/mine"}, {"LANG", "C"}});
    EXPECT_EQ(run.status, 0) << run.error;
    const std::string output = run.output;
    for (const char* const line :
         {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n", "HOME=/",
          "LOGNAME=", "USER=", "SHELL=/", "LANG=C\n", "VXSCHED_TASK=job\n"})
        EXPECT_THAT(output, HasSubstr(line));
    for (const char* const other : {"MINE", "/mine", "VXSCHED_DUE", "VXSCHED_RUN"})
        EXPECT_THAT(output, Not(HasSubstr(other)));
    EXPECT_THAT(output, EndsWith('\n' + fs::current_path().string() + '\n'));
    EXPECT_EQ(LastRecord().at("trigger"), "manual");
    EXPECT_EQ(LastRecord().at("name"), "job");
}

TEST_P(CliRunEitherWay, ReportsWhoHasLaunchedIt) {
    WriteJob("exit");
    StartHost();
    const std::string itself = " (by vxsched itself, since no vxschedd runs)\n";
    const std::string started = "started job as process ";
    const TToolRun waited = RunTool({"run", "job", "--wait"});
    EXPECT_THAT(waited.error, StartsWith("vxsched: " + started));
    const std::string output = Output({"run", "job"});
    EXPECT_THAT(output, StartsWith(started));
    if (host) {
        EXPECT_THAT(waited.error + output, Not(HasSubstr("vxsched itself")));
    } else {
        EXPECT_THAT(waited.error, HasSubstr(itself));
        EXPECT_THAT(output, EndsWith(itself));
    }
    WaitUntil([] { return Records().size() == 2; });
}

TEST_P(CliRunEitherWay, OfAPausedTaskReportsThatItStaysPaused) {
    WriteFile("script", "exit");
    TRow row = Job();
    row.paused = 1;
    WriteTable({row});
    StartHost();
    for (const char* const option : {"--wait", "--utc", "--dry-run"}) {
        const TToolRun run = RunTool({"run", "job", option});
        EXPECT_EQ(run.status, 0);
        EXPECT_THAT(run.error,
                    HasSubstr("vxsched: job is paused and stays so; its schedule goes on "
                              "with vxsched resume job\n"));
        WaitUntil([] { return vxsched::FindRunningRuns(".", "job").empty(); });
    }
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    EXPECT_EQ(Records().size(), 2U);
}

// The host may keep more than by default.
TEST_F(CliRun, WithoutAHostRotatesNoHistory) {
    WriteJob("exit");
    TRunRecord run;
    run.outcome = TRunRecord::cExited;
    std::string lines;
    while (lines.size() < std::size_t{2} << 20U)
        lines += JsonLine(run);
    WriteFile(cHistory, lines);
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).status, 0);
    EXPECT_FALSE(fs::exists("files/history.jsonl.1"));
    EXPECT_TRUE(ReadFile(cHistory).starts_with(lines));
    EXPECT_EQ(LastRecord().at("name"), "job");
}

// The socket of a host that was killed is still there.
TEST_F(CliRun, OfAStoreWhoseHostWasKilledIsLaunchedByTheCaller) {
    WriteJob("echo done");
    CHost host;
    host.Kill(SIGKILL);
    host.Wait();
    EXPECT_TRUE(fs::is_socket(vxsched::cControlSocket));
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).output, "done\n");
}

TEST_P(CliRunEitherWay, FailedLaunchIsReportedAndRecorded) {
    WriteFile("rubbish", "no program");
    ASSERT_EQ(chmod("rubbish", 0755), 0);
    TRow row = Job();
    row.program = fs::absolute("rubbish");
    WriteTable({row});
    StartHost();
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, HasSubstr("rubbish\": Exec format error; check the program"));
    EXPECT_EQ(run.output, "");
    const TJson record = LastRecord();
    EXPECT_EQ(record.at("outcome"), "not started");
    EXPECT_EQ(record.at("error"), "Exec format error");
    EXPECT_EQ(record.at("name"), "job");
    EXPECT_NE(record.value("run", ""), "");
    EXPECT_EQ(record.value("trigger", ""), "manual");
    EXPECT_EQ(record.value("attempt", 0), 1);
    EXPECT_TRUE(record.at("due").is_null());
    EXPECT_EQ(ReadTable().at(0).last, 0);
}

TEST_P(CliRunEitherWay, PassesAnyBytes) {
    TRow row = Job();
    row.name = "a \xff task\n";
    row.program = "/bin/echo";
    row.parameters = "\xc3\xa4 \xfe \"\\ \t" + fs::current_path().string();
    WriteTable({row});
    StartHost();
    const TToolRun run = RunTool({"run", row.name, "--wait", "--force"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.output, row.parameters + '\n');
}

// The host makes its socket anew, unless something else has its name.
TEST_F(CliRun, WarnsOfAHostThatIsNotReached) {
    WriteJob("cut -d ' ' -f 4 /proc/$PPID/stat");
    fs::create_directory(vxsched::cControlSocket);
    CHost host;
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 0);
    EXPECT_NE(run.output, std::to_string(host.Id()) + '\n');
    EXPECT_THAT(run.error, HasSubstr("vxsched: the host that runs did not make the launch: cannot "
                                     "connect to files/control: Connection refused; "));
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_THAT(RunTool({"run", "job", "--wait"}).error, Not(HasSubstr("the host")))
        << "no host runs";
}

TEST_F(CliRun, WarnsOfARequestThatIsTooLongForTheHost) {
    TRow row = Job();
    row.program = "/bin/echo";
    row.parameters = std::string(131'071, '\x01');
    row.name = std::string(100'000, '\x01');
    WriteTable({row});
    CHost host;
    const TToolRun run = RunTool({"run", row.name, "--force"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_THAT(run.error, HasSubstr("a request takes at most 1048576 bytes; shorten"));
    EXPECT_EQ(host.Stop(), 0);
}

// A request for it does not fit, so that the caller launches it.
TEST_P(CliRunEitherWay, LaunchesATaskWithTheLongestStrings) {
    TRow row = Job();
    row.name = std::string(200'000, '\x01');
    row.program = "/bin/echo";
    row.parameters = std::string(131'071, 'p');
    WriteTable({row});
    StartHost();
    CForkedChild client(
        [&] { return vxsched::CStore({}).Run(row.name, true, true).status == 0 ? 42 : 1; });
    EXPECT_EQ(client.Wait(), 42);
    ExpectOnlyRunOf(row.name);
}

// The name has no room in the environment, and a request for it goes to the host.
TEST_P(CliRunEitherWay, OfATaskWithALongNameIsRecordedAndItsOutputKept) {
    TRow row = Job();
    row.name = std::string(140'000, 'n');
    row.program = PROGRAMS "/record-environment";
    row.parameters = fs::absolute("variables");
    WriteTable({row});
    StartHost();
    CForkedChild client(
        [&] { return vxsched::CStore({}).Run(row.name, true, true).status == 0 ? 42 : 1; });
    EXPECT_EQ(client.Wait(), 42);
    ExpectOnlyRunOf(row.name);
    EXPECT_EQ(ReadFile("variables"), "");
}

// What a program gets may have 128 KiB for a stack of that size, and its runner gets more.
TEST_P(CliRunEitherWay, OfAProgramThatFillsTheSystemsLimitIsRecordedAndItsOutputKept) {
    rlimit stack{};
    getrlimit(RLIMIT_STACK, &stack);
    stack.rlim_cur = 512 << 10U;
    ASSERT_EQ(setrlimit(RLIMIT_STACK, &stack), 0);
    TRow row = Job();
    row.name = std::string(90'000, 'n');
    row.program = "/bin/echo";
    row.parameters = std::string(60'000, 'p');
    WriteTable({row});
    StartHost();
    CForkedChild client(
        [&] { return vxsched::CStore({}).Run(row.name, true, true).status == 0 ? 42 : 1; });
    EXPECT_EQ(client.Wait(), 42);
    ExpectOnlyRunOf(row.name);
}
