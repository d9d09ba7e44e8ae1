// Runs the commands of vxsched that change the table or run a task: their effects, their refusals
// and their dry runs.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

static std::ptrdiff_t LinesOf(const std::string& output) {
    return std::count(output.begin(), output.end(), '\n');
}

TEST_F(Cli, CreateTakesEverythingFromTheCommandLine) {
    EXPECT_THAT(Output({"create", "backup", "--at", "2030-01-02T03:04:05Z", "--every", "1d", "--",
                        cRecorder, "--a parameter"}),
                HasSubstr("created backup, every 1d, next due 2030-01-02 04:04:05"));
    EXPECT_EQ(ReadTable(), (TRows{{"backup", 1893553445, 0, 24, cRecorder, "--a parameter", 0}}));
    ExpectRefused(1, "already", {"create", "backup", "--at", "in 1h", "--", cRecorder});
    Output({"create", "backup", "--replace", "--at", "2030-01-02T03:04:06Z", "--", cRecorder, ""});
    EXPECT_EQ(ReadTable(), (TRows{{"backup", 1893553446, 0, 0, cRecorder, "", 0}}));
}

TEST_F(Cli, CreateRefusesTasksThatWouldNotRun) {
    ExpectRefused(1, "no program \"/no/such\"", {"create", "a", "--at", "in 1h", "--", "/no/such"});
    ExpectRefused(1, "absolute path", {"create", "a", "--at", "in 1h", "--", "ls"});
    ExpectRefused(1, "due time is past",
                  {"create", "a", "--at", "2001-01-01 12:00", "--", cRecorder});
    ExpectRefused(1, "no name", {"create", "", "--at", "in 1h", "--", cRecorder});
    ExpectRefused(2, "program", {"create", "a", "--at", "in 1h"});
    ExpectRefused(2, "period", {"create", "a", "--every", "90m", "--", cRecorder});
    Output({"create", "a", "--at", "in 1h", "--force", "missing-program", "--", "/no/such"});
    EXPECT_EQ(NamesInTable(), "a");
}

// What a message advises can be typed as it stands.
TEST_F(Cli, RefusalsNameTheOptionThatAllowsTheChange) {
    WriteTable({{"once", 5, 0, 0, cRecorder, "", 1}, Later("a")});
    ExpectRefused(1, "create the program first, or give another one (or --force missing-program)\n",
                  {"create", "b", "--at", "in 1h", "--", "/no/such"});
    ExpectRefused(1, "(or --force relative-path)\n", {"edit", "a", "--program", "./recorder"});
    ExpectRefused(1,
                  "a new due time first (vxsched edit once --at TIME), or have it removed (--force "
                  "past-due)\n",
                  {"resume", "once"});
    for (const char* const option : {"--utc", "--dry-run"})
        ExpectRefused(1,
                      "a task \"a\" already exists; replace it (--replace), edit it, or choose "
                      "another name\n",
                      {"create", "a", "--at", "in 1h", option, "--", cRecorder});
    WriteTable({{"due", 1000, 0, 24, cRecorder, "", 0}});
    ExpectRefused(1, "(vxsched edit due --every PERIOD), which leaves it due\n",
                  {"period", "due", "2h", "--even-if-due"});
}

// A check of the program that the operator has skipped for the schedule stays one for a run.
TEST_F(Cli, RunOfAMissingProgramAdvisesAnotherProgram) {
    WriteTable({Later("a task")});
    Output({"edit", "a task", "--program", "/no/such", "--force", "missing-program"});
    for (const char* const option : {"--force", "--dry-run"})
        ExpectRefused(1, "or give another one (vxsched edit 'a task' --program PROGRAM)\n",
                      {"run", "a task", option});
}

TEST_F(Cli, UnknownTaskIsReportedWithTheSameAdviceByEveryCommand) {
    WriteTable({Later("a")});
    const std::vector<std::string> commands[] = {{"show", "nobody"},
                                                 {"history", "nobody"},
                                                 {"output", "nobody"},
                                                 {"stop", "nobody"},
                                                 {"run", "nobody"},
                                                 {"edit", "nobody", "--every", "6h"},
                                                 {"pause", "nobody"},
                                                 {"resume", "nobody"},
                                                 {"remove", "nobody"},
                                                 {"period", "nobody", "6h"},
                                                 {"pause", "nobody", "--dry-run"}};
    for (const std::vector<std::string>& command : commands)
        ExpectRefused(3, "; see vxsched list\n", command);
}

TEST_F(Cli, NamesInAdviceAreQuotedForAShell) {
    TRow row = Later("a task");
    row.paused = 1;
    WriteTable({row});
    EXPECT_THAT(Output({"show", "a task"}),
                HasSubstr("it is paused; run vxsched resume 'a task'\n"));
}

TEST_F(Cli, EditPauseResumePeriodAndRemove) {
    const TRow row = Later("a");
    WriteTable({row, Later("b"), Later("c")});
    Output({"edit", "a", "--parameter", "", "--every", "2w"});
    EXPECT_EQ(ReadTable()[0], (TRow{"a", row.next, 0, 336, cRecorder, "", 0}));
    ExpectRefused(2, "nothing to change", {"edit", "a"});
    ExpectRefused(3, "no task \"nobody\"", {"edit", "nobody", "--every", "6h"});
    EXPECT_EQ(Output({"pause", "a", "c"}), "paused a\npaused c\n");
    EXPECT_EQ(ReadTable()[2].paused, 1U);
    EXPECT_EQ(Output({"resume", "c"}), "resumed c\n");
    EXPECT_EQ(ReadTable()[2].paused, 0U);
    EXPECT_THAT(Output({"period", "b", "6h"}), HasSubstr("changed b, every 6h, next due "));
    EXPECT_EQ(ReadTable()[1].period, 6U);
    ExpectRefused(3, "nobody", {"remove", "a", "nobody"});
    EXPECT_EQ(Output({"remove", "a", "c"}), "removed a\nremoved c\n");
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(Cli, TaskThatIsAlreadyPausedOrNotPausedIsReportedAsSuch) {
    TRow paused = Later("paused");
    paused.paused = 1;
    WriteTable({Later("active"), paused});
    EXPECT_EQ(Output({"resume", "active", "paused", "--dry-run"}),
              "active is not paused\nwould resume paused\n");
    EXPECT_EQ(Output({"resume", "active", "paused"}), "active was not paused\nresumed paused\n");
    Output({"pause", "paused"});
    EXPECT_EQ(Output({"pause", "active", "paused", "--dry-run"}),
              "would pause active\npaused is paused already\n");
    EXPECT_EQ(Output({"pause", "active", "paused"}), "paused active\npaused was paused already\n");
    EXPECT_EQ(Output({"remove", "active"}), "removed active\n");
}

// A task that runs once and whose due time is past has no run left that it could be resumed for.
TEST_F(Cli, ResumeReportsTheTasksThatItRemoves) {
    TRow paused = Later("paused");
    paused.paused = 1;
    WriteTable({{"once", 5, 0, 0, cRecorder, "", 1}, paused});
    const std::string why = "once: it runs once and its due time is past\n";
    EXPECT_EQ(Output({"resume", "once", "paused", "--force", "past-due", "--dry-run"}),
              "would remove " + why + "would resume paused\n");
    EXPECT_EQ(Output({"resume", "once", "paused", "--force", "past-due"}),
              "removed " + why + "resumed paused\n");
    EXPECT_EQ(NamesInTable(), "paused");
}

TEST_F(Cli, EditReportsWhereFormerRunsOfARenamedTaskAre) {
    TRow row = Later("a task");
    row.last = 1000;
    WriteTable({row, Later("new")});
    EXPECT_EQ(LinesOf(Output({"edit", "new", "--name", "newer"})), 1);
    EXPECT_THAT(
        Output({"edit", "a task", "--name", "b", "--dry-run"}),
        testing::EndsWith("\nits former runs stay under a task: see vxsched history 'a task', "
                          "vxsched output 'a task'\n"));
    EXPECT_THAT(Output({"edit", "a task", "--name", "b"}),
                HasSubstr("\nits former runs stay under a task: see vxsched history"));
    EXPECT_EQ(LinesOf(Output({"edit", "b", "--every", "6h"})), 1);
}

TEST_F(Cli, EditRenames) {
    const TRow row = Later("a");
    WriteTable({row, Later("b"), Later("c")});
    EXPECT_THAT(Output({"edit", "a", "--name", "first", "--dry-run"}),
                testing::StartsWith("would rename a to first, every 1d, next due "));
    EXPECT_THAT(Output({"edit", "a", "--name", "first", "--every", "2w"}),
                testing::StartsWith("renamed a to first, every 2w, next due "));
    EXPECT_EQ(ReadTable()[0], (TRow{"first", row.next, 0, 336, cRecorder, "a parameter", 0}));
    Output({"edit", "first", "--name", "first"});
    EXPECT_EQ(NamesInTable(), "first b c");
    for (const char* const option : {"--utc", "--dry-run"}) {
        ExpectRefused(1, "a task \"b\" already", {"edit", "first", "--name", "b", option});
        ExpectRefused(1, "no name", {"edit", "first", "--name", "", option});
        ExpectRefused(3, "did you mean \"first\"?", {"edit", "fisrt", "--name", "x", option});
    }
}

TEST_F(Cli, DryRunReportsAndChangesNothing) {
    TRow paused = Later("p");
    paused.paused = 1;
    WriteTable({Later("a"), paused});
    const std::string before = ReadFile(cTable);
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"create", "b", "--at", "in 1h", "--dry-run", "--", "/usr/bin/free"},
             {"edit", "a", "--every", "6h", "--dry-run"},
             {"pause", "a", "--dry-run"},
             {"resume", "p", "--dry-run"},
             {"period", "a", "6h", "--dry-run"},
             {"run", "a", "--dry-run"},
             {"remove", "a", "--dry-run"}}) {
        EXPECT_THAT(Output(command), testing::StartsWith("would "));
        EXPECT_EQ(ReadFile(cTable), before);
    }
    ExpectRefused(1, "already", {"create", "a", "--at", "in 1h", "--dry-run", "--", cRecorder});
    ExpectRefused(3, "nobody", {"remove", "nobody", "--dry-run"});
    EXPECT_FALSE(fs::exists("files/programs"));
    EXPECT_FALSE(StoreSemaphoreExists());
}

TEST_F(Cli, DryRunOfAPeriodRefusesWhatTheChangeRefuses) {
    TRow due = Later("due");
    due.next = 1000;
    WriteTable({due});
    const TToolRun real = RunTool({"period", "due", "2h", "--even-if-due"});
    EXPECT_EQ(real.status, 1);
    const TToolRun dry = RunTool({"period", "due", "2h", "--even-if-due", "--dry-run"});
    EXPECT_EQ(dry.status, real.status);
    EXPECT_EQ(dry.output, real.output);
}

TEST_F(Cli, RunLaunchesTheProgramAndReportsItsExit) {
    TRow row = Later("a");
    row.program = PROGRAMS "/end-with";
    row.parameters = "status 3";
    WriteTable({row});
    const TToolRun run = RunTool({"run", "a", "--wait", "--force"});
    EXPECT_EQ(run.status, 3);
    EXPECT_THAT(run.error, HasSubstr("started a as process "));
    EXPECT_THAT(run.error, HasSubstr("a exited with status 3\n"));
    ExpectRefused(3, "nobody", {"run", "nobody"});
}

TEST_F(Cli, RunReportsTheSignalThatKilledTheProgram) {
    for (const auto& [signal, end] : {std::pair(15, "a was killed by SIGTERM\n"),
                                      std::pair(40, "a was killed by signal 40\n")}) {
        TRow row = Later("a");
        row.program = PROGRAMS "/end-with";
        row.parameters = "signal " + std::to_string(signal);
        WriteTable({row});
        const TToolRun run = RunTool({"run", "a", "--wait", "--force"});
        EXPECT_EQ(run.status, 128 + signal) << run.error;
        EXPECT_THAT(run.error, HasSubstr(end));
    }
}

TEST_F(Cli, ListShowsRunningProgramsWithTheirProcess) {
    TRow row = Later("a");
    row.program = PROGRAMS "/wait-for-it";
    row.parameters = fs::absolute("end it").string();
    WriteTable({row});
    const std::string started = Output({"run", "a"});
    const std::string before = "process ";
    const std::string process =
        std::to_string(std::stoi(started.substr(started.find(before) + before.size())));
    EXPECT_THAT(Output({"list"}), HasSubstr("running " + process.substr(0, process.size() - 1)));
    ExpectRefused(1, "running already", {"run", "a"});
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

TEST_F(Cli, EmptyArgumentsAreNotTakenForOmittedOnes) {
    ExpectRefused(2, "time", {"create", "a", "--at", "", "--", cRecorder});
    ExpectRefused(2, "period", {"create", "a", "--every", "", "--", cRecorder});
    ExpectRefused(2, "bogus", {"create", "a", "--force", "bogus", "--", cRecorder});
    ExpectRefused(2, "count", {"next", "--count", "-1"});
}

TEST_F(Cli, TimeThatIsNotQuotedIsReportedAsSuch) {
    WriteTable({Later("a")});
    const std::string quote = "quote a time of several words";
    ExpectRefused(2, quote, {"edit", "a", "--at", "in", "3h"});
    ExpectRefused(2, quote, {"create", "b", "--at", "in", "3h", "--", cRecorder});
    ExpectRefused(2, quote, {"create", "b", "--at", "in", "3h", "--", cRecorder, "parameter"});
    ExpectRefused(2, quote, {"next", "--until", "today", "14:30"});
    ExpectRefused(2, "unexpected argument \"14:30\"", {"next", "--until", "tomorrow", "14:30"});
    for (const std::vector<std::string>& end : std::vector<std::vector<std::string>>{
             {}, {"/bin/true"}, {"/bin/true", "x"}, {"--", "/bin/true", "x"}}) {
        std::vector<std::string> arguments = {"create", "a", "--at", "friday", "14:30"};
        arguments.insert(arguments.end(), end.begin(), end.end());
        ExpectRefused(2, "--at: quote a time of several words: --at \"friday 14:30\"", arguments);
    }
    ExpectRefused(2, "quote a time of several words", {"history", "--since", "3h", "ago"});
    ExpectRefused(2, quote, {"edit", "a", "--at", "2026-11-21", "14:30"});
}

TEST_F(Cli, UnknownOptionsAreThoseBeforeTheSeparator) {
    ExpectRefused(2, "unknown option \"-b\"; write -- before the program to pass options to it.",
                  {"create", "x", cRecorder, "a", "-b"});
    ExpectRefused(2, "unknown option \"--bogus\". See vxsched --help.\n", {"--bogus"});
    ExpectRefused(2, "unexpected argument \"extra\". See vxsched list --help.\n",
                  {"list", "extra"});
}

TEST_F(Cli, LockTimeoutMustBeANumberOfSeconds) {
    for (const char* const bad : {"abc", "", "-1", "86401", "nan", "1s"})
        ExpectRefused(2, "expected a number of seconds from 0 to 86400",
                      {"list", "--lock-timeout", bad});
    ExpectRefused(2, "expected a number of seconds", {"--lock-timeout", "abc"});
    Output({"list", "--lock-timeout", "0.5"});
}

TEST_F(Cli, LinesOfAMessageAreIndentedBelowTheFirst) {
    const TToolRun run = RunTool({"create", "", "--at", "in 1h", "--", "/no/such"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, testing::ContainsRegex("^vxsched: [^\n]*\n         [^ \n][^\n]*\n$"));
}

TEST_F(Cli, DryRunRefusesTheSameAsTheCommand) {
    WriteTable({{"once", 5, 0, 0, cRecorder, "", 1},
                {"missing", 4'000'000'000, 0, 24, "/no/such", "", 1}});
    ExpectRefused(1, "give it a new due time", {"resume", "once", "--dry-run"});
    ExpectRefused(1, "no program", {"run", "missing", "--dry-run"});
}

TEST_F(Cli, DryRunsRefuseADueTaskThatNobodyLaunches) {
    TRow paused = Later("p");
    paused.paused = 1;
    WriteTable({{"due", 5, 0, 0, cRecorder, "", 0}, Later("a"), paused});
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"edit", "a", "--every", "6h", "--dry-run"},
             {"pause", "a", "--dry-run"},
             {"resume", "p", "--dry-run"},
             {"period", "a", "6h", "--dry-run"},
             {"run", "a", "--dry-run"},
             {"remove", "a", "--dry-run"},
             {"create", "b", "--at", "in 1h", "--dry-run", "--", cRecorder}}) {
        SCOPED_TRACE(command.front());
        ExpectRefused(6, "\"due\" is due", command);
        std::vector<std::string> allowed = command;
        allowed.insert(allowed.begin() + 1, "--even-if-due");
        EXPECT_THAT(Output(allowed), testing::StartsWith("would "));
    }
}

TEST_F(Cli, ProgramThatIsNotWaitedForKeepsNoPipeOpen) {
    TRow row = Later("a");
    row.program = PROGRAMS "/wait-for-it";
    row.parameters = fs::absolute("end it").string();
    WriteTable({row});
    CProgram tool({TOOL_PROGRAM, "run", "a"});
    EXPECT_FALSE(tool.WaitForOutput("never printed")) << "the pipe must be closed";
    EXPECT_EQ(tool.Wait(), 0);
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

TEST_F(Cli, FailedOutputReportsThatTheChangeWasMade) {
    WriteTable({Later("a")});
    CForkedChild child([] {
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        dup2(open("error", O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        execl(TOOL_PROGRAM, TOOL_PROGRAM, "run", "a", static_cast<char*>(nullptr));
        return 127;
    });
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_THAT(ReadFile("error"), HasSubstr("the command itself was carried out"));
    EXPECT_NE(ReadTable()[0].last, 0);
}

TEST_F(Cli, DueTasksWithoutASchedulingProcessAreStatusSix) {
    WriteTable({{"due", 5, 0, 0, cRecorder, "", 0}, Later("a")});
    ExpectRefused(6, "\"due\" is due", {"pause", "a"});
    ExpectRefused(6, "no scheduling process", {"wake"});
    Output({"pause", "a", "--even-if-due"});
    EXPECT_EQ(NamesInTable(), "due a");
}
