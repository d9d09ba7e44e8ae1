// run: launches a program now. The host launches it, as it does the due tasks; without a host the
// change process does. Either way the program is recorded, and --wait shows what it writes and how
// it ends.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <vxsched/Store.h>
#include "Cli.h"
#include "ForeignStore.h"
#include "GroupStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "base/CDescriptor.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"
#include "runs/RunningRuns.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using TJson = nlohmann::json;

namespace {

class CliRun : public Cli {
protected:
    // The table has one task, "job", whose program is that script. Processes of the same program
    // and parameter that other tests run would count as the task's, so the path is this test's own.
    static void WriteJob(const std::string& script) {
        WriteFile("script", script);
        WriteTable({Job()});
    }
    static TRow Job() {
        return {"job", std::time(nullptr) + cHour, 0, 24, "/bin/sh", fs::absolute("script"), 0};
    }

    static std::vector<TJson> Records() {
        std::vector<TJson> records;
        for (const std::string& line : fs::exists(cHistory) ? Lines(cHistory) : TStrings())
            records.push_back(TJson::parse(line));
        return records;
    }
    static TJson LastRecord() {
        const std::vector<TJson> records = Records();
        EXPECT_FALSE(records.empty());
        return records.empty() ? TJson::parse("{}") : records.back();
    }

    static void ExpectOnlyRunOf(const std::string& task) {
        ASSERT_EQ(Records().size(), 1U);
        const TJson record = LastRecord();
        EXPECT_TRUE(record.at("name") == task);
        EXPECT_EQ(record.at("status"), 0);
        EXPECT_EQ(record.at("output"), OutputPathOf(task, record.at("run")));
        EXPECT_TRUE(fs::exists(record.at("output")));
    }

    static pid_t ReadPid(const char* file) {
        WaitUntil([&] { return !ReadFileOrNothing(file).empty(); });
        return std::stoi(ReadFileOrNothing(file));
    }

private:
    using TStrings = std::vector<std::string>;
    static std::string ReadFileOrNothing(const char* file) {
        const std::string content = fs::exists(file) ? ReadFile(file) : "";
        return content.ends_with('\n') ? content : "";
    }
};

// With a host and without one.
class CliRunEitherWay : public CliRun, public testing::WithParamInterface<bool> {
protected:
    // To be called once the table is written.
    void StartHost() {
        if (GetParam())
            host = std::make_unique<CHost>();
    }
    ~CliRunEitherWay() override {
        if (host) {
            EXPECT_EQ(host->Stop(), 0) << host->Output();
        }
    }

    std::unique_ptr<CHost> host;
};

INSTANTIATE_TEST_SUITE_P(Of, CliRunEitherWay, testing::Bool(),
                         [](const auto& way) { return way.param ? "AHost" : "TheCaller"; });

// A socket in place of the host's, which the test serves.
class CControl {
public:
    CControl() : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, vxsched::cControlSocket);
        EXPECT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.Get(), 1), 0);
    }

    CDescriptor Accept() const {
        return CDescriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    static std::string ReadRequest(const CDescriptor& client) {
        std::string line;
        char byte = 0;
        while (read(client.Get(), &byte, 1) == 1 && byte != '\n')
            line += byte;
        return line;
    }

    static void Answer(const CDescriptor& client, std::string_view answer) {
        EXPECT_EQ(send(client.Get(), answer.data(), answer.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(answer.size()));
    }

private:
    CDescriptor listener;
};

}  // namespace

// ---- The same as a scheduled launch -------------------------------------------------------------

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

TEST_F(CliRun, WithoutAHostHasTheEnvironmentThatAHostWouldGive) {
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

// ---- What programs do ---------------------------------------------------------------------------

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
    EXPECT_NE(LastRecord().at("stoppedBy"), "");
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

// ---- Several at once ----------------------------------------------------------------------------

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

// ---- The end of the host ------------------------------------------------------------------------

TEST_F(CliRun, OutlivesTheHostAndItsEndIsReported) {
    for (const int signal : {SIGKILL, SIGTERM}) {
        fs::remove("end");
        fs::remove(cHistory);
        WriteJob("echo begun; while [ ! -e end ]; do sleep 0.01; done; echo late; exit 8");
        CHost host;
        CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
        ASSERT_TRUE(run.WaitForOutput("begun\n"));
        host.Kill(signal);
        host.Wait();
        WriteFile("end", "");
        EXPECT_EQ(run.Wait(), 8);
        EXPECT_THAT(run.Output(), EndsWith("begun\nlate\nvxsched: job exited with status 8\n"));
        EXPECT_EQ(Output({"output", "job"}), "begun\nlate\n");
        EXPECT_EQ(LastRecord().at("status"), 8);
        EXPECT_EQ(Records().size(), 1U);
    }
}

// The kernel reports to the client that nobody has read its request.
TEST_F(CliRun, IsLaunchedByTheCallerIfTheHostIsKilledBeforeItReadsTheRequest) {
    WriteJob("echo run >> runs; echo done");
    auto control = std::make_unique<CControl>();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    {
        const CDescriptor client = control->Accept();
        char byte = 0;
        EXPECT_EQ(recv(client.Get(), &byte, 1, MSG_PEEK), 1);
        control.reset();
    }
    EXPECT_EQ(run.Wait(), 0) << run.Output();
    EXPECT_THAT(run.Output(), EndsWith("\ndone\nvxsched: job exited with status 0\n"));
    EXPECT_EQ(Lines("runs").size(), 1U);
}

TEST_F(CliRun, IsNotLaunchedASecondTimeIfTheHostDoesNotAnswer) {
    WriteJob("echo run >> runs");
    for (const char* const answer : {"", "half an answer", "no answer\n", "{\"version\":2}\n"}) {
        const CControl control;
        CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
        {
            const CDescriptor client = control.Accept();
            const TJson request = TJson::parse(CControl::ReadRequest(client));
            EXPECT_EQ(request.at("version"), 1);
            EXPECT_EQ(request.at("request"), "run");
            EXPECT_EQ(request.at("task"), "job");
            EXPECT_EQ(request.at("program"), "/bin/sh");
            EXPECT_EQ(request.at("parameter"), fs::absolute("script").string());
            CControl::Answer(client, answer);
        }
        EXPECT_EQ(run.Wait(), 9) << answer;
        EXPECT_THAT(run.Output(), HasSubstr("whether \"job\" was launched is not known"));
        EXPECT_THAT(run.Output(), HasSubstr("see vxsched history job"));
        fs::remove(vxsched::cControlSocket);
    }
    EXPECT_FALSE(fs::exists("runs"));
    EXPECT_EQ(ReadTable().at(0).last, 0);
}

// The client holds the store mutex meanwhile, so it does not wait for long.
TEST_F(CliRun, IsNotLaunchedASecondTimeIfTheHostIsSilent) {
    WriteJob("echo run >> runs");
    const CControl control;
    CProgram run({TOOL_PROGRAM, "run", "job"});
    const CDescriptor client = control.Accept();
    CControl::ReadRequest(client);
    EXPECT_EQ(run.Wait(), 9);
    EXPECT_THAT(run.Output(), HasSubstr("is not known: the host has not answered"));
    EXPECT_FALSE(fs::exists("runs"));
}

// By its number if it comes without a message.
TEST_F(CliRun, ReportsTheErrorOfTheHost) {
    WriteJob("echo run >> runs");
    for (const auto& [message, reported] :
         {std::pair("too long", "too long"), std::pair("", "Argument list too long")}) {
        const CControl control;
        CProgram run({TOOL_PROGRAM, "run", "job"});
        {
            const CDescriptor client = control.Accept();
            CControl::ReadRequest(client);
            CControl::Answer(
                client,
                TJson{{"version", 1}, {"error", E2BIG}, {"message", message}}.dump() + '\n');
        }
        EXPECT_EQ(run.Wait(), 1);
        EXPECT_THAT(run.Output(), HasSubstr(std::string("cannot launch \"/bin/sh\": ") + reported));
        fs::remove(vxsched::cControlSocket);
    }
    EXPECT_FALSE(fs::exists("runs"));
}

// ---- The host -----------------------------------------------------------------------------------

// As many clients as it likes, and nobody who talks too much, keep it from its work. The task falls due
// meanwhile; no wait of a minute ends in this host, so that only its main thread wakes the worker.
TEST_F(CliRun, HostLaunchesADueTaskWhileItsSocketIsMisused) {
    for (const auto& [name, value] : WithInterposedSystem())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("ENDLESS_MINUTES", "1", 1);
    WriteJob("echo run");
    TRow timed = Job();
    timed.name = "timed";
    timed.next = std::time(nullptr) + 2;
    WriteTable({Job(), timed});
    CHost host;
    std::vector<CDescriptor> clients;
    for (int number = 0; number < 1000 || Records().empty(); ++number) {
        CDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, vxsched::cControlSocket);
        ASSERT_EQ(connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        static_cast<void>(send(client.Get(), "half a line", 11, MSG_NOSIGNAL | MSG_DONTWAIT));
        if (number % 100 == 0) {
            const std::string line(10'000'000, 'x');
            EXPECT_LT(send(client.Get(), line.data(), line.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(line.size()))
                << "the host closes the connection";
        }
        if (clients.size() < 500)
            clients.push_back(std::move(client));
    }
    EXPECT_EQ(Records().at(0).at("name"), "timed");
    EXPECT_EQ(Records().at(0).at("trigger"), "schedule");
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).output, "run\n");
    EXPECT_EQ(LastRecord().at("trigger"), "manual");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_FALSE(fs::exists(vxsched::cControlSocket));
}

// ---- Users --------------------------------------------------------------------------------------

TEST_F(CliRun, OfTheSuperuserInAForeignStoreIsLaunchedByTheOwnersHost) {
    REQUIRE_SUPERUSER();
    WriteJob("id -u; cut -d ' ' -f 4 /proc/$PPID/stat");
    ASSERT_EQ(chmod("script", 0644), 0);
    GiveStoreTo(cForeignUser);
    std::vector<std::string> command = {"/usr/bin/setpriv",           "--reuid",
                                        std::to_string(cForeignUser), "--regid",
                                        std::to_string(cForeignUser), "--clear-groups"};
    for (const std::string& argument : HostWith({}))
        command.push_back(argument);
    CHost host(command);
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.output, std::to_string(cForeignUser) + '\n' + std::to_string(host.Id()) + '\n');
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// The owner's host launches it, as the owner.
TEST_F(CliRun, OfAMemberOfTheGroupRunsAsTheOwner) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase());
    WriteJob("id -un");
    ASSERT_EQ(chmod("script", 0644), 0);
    CProgram shell({"/bin/sh", "-c",
                    "chown -R keeper:team . && chmod -R g+rwX . && "
                    "find . -type d -exec chmod g+s {} +"});
    ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    CHost host(As(cKeeper, HostWith({})));
    CProgram run(As(cMember, {TOOL_PROGRAM, "run", "job", "--wait"}));
    EXPECT_EQ(run.Wait(), 0) << run.Output();
    EXPECT_THAT(run.Output(), HasSubstr("\nkeeper\n"));
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}
