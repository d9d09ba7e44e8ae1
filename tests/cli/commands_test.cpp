// vxsched, the real command: each subcommand, each refusal, each output mode, on a terminal and not.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Table.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

static const std::string cRecorder = PROGRAMS "/record-start";

// 2026-11-21 14:30:00 UTC, 15:30 in Berlin.
static constexpr long cNow = 1795271400;
static constexpr long cHour = 3600;
static constexpr long cDay = 24 * cHour;

static constexpr char cHistory[] = "files/history.jsonl";

class Cli : public testing::Test {
protected:
    Cli() {
        fs::create_directory("files");
        setenv("TZ", "Europe/Berlin", 1);
        unsetenv("NO_COLOR");
        setenv("TERM", "xterm", 1);
    }

    // Expects success, and no word on standard error.
    static std::string Output(const std::vector<std::string>& arguments) {
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(run.error, "");
        return run.output;
    }

    // Expects that exit status, a message that holds `text`, no output, and the table kept.
    static void ExpectRefused(int status, const std::string& text,
                              const std::vector<std::string>& arguments) {
        const bool hadTable = fs::exists(cTable);
        const std::string before = hadTable ? ReadFile(cTable) : "";
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, status) << run.error;
        EXPECT_THAT(run.error, HasSubstr(text));
        EXPECT_THAT(run.error, testing::StartsWith("vxsched: "));
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(fs::exists(cTable), hadTable);
        if (hadTable) {
            EXPECT_EQ(ReadFile(cTable), before);
        }
    }

    static TRow Later(const std::string& name) {
        return {name, std::time(nullptr) + cHour, 0, 24, cRecorder, "a parameter", 0};
    }

    // A line of the host's history.
    static std::string Run(const std::string& name, const std::string& fields) {
        return R"({"version":1,"name":")" + name + R"(","program":"/bin/cp","parameter":"-a",)" +
               fields + "}\n";
    }

    // Runs with every outcome, in both halves of the history.
    static void WriteHistory() {
        const std::string usage = R"(,"user":0.031,"system":0.004,"peakMemory":2150)";
        WriteFile("files/history.jsonl.1",
                  Run("backup", R"("outcome":"exited","due":"2026-11-19T00:30:00.000Z",)"
                                R"("started":"2026-11-19T00:30:02.250Z",)"
                                R"("ended":"2026-11-19T01:42:03.000Z","status":0,"process":7)" +
                                    usage) +
                      Run("gone by now", R"("outcome":"missed","due":"2026-11-19T01:00:00.000Z",)"
                                         R"("task":"removed unrun")"));
        WriteFile(cHistory,
                  Run("late \\u001b[31m", R"("outcome":"killed","due":"2026-11-20T00:30:00.000Z",)"
                                          R"("started":"2026-11-20T00:30:01.000Z",)"
                                          R"("ended":"2026-11-20T00:30:01.350Z","signal":15)" +
                                              usage) +
                      Run("backup", R"("outcome":"exited","due":"2026-11-20T00:30:00.000Z",)"
                                    R"("started":"2026-11-20T00:30:04.500Z",)"
                                    R"("ended":"2026-11-20T00:30:16.800Z","status":3)" +
                                        usage) +
                      Run("backup", R"("outcome":"missed","due":"2026-11-20T12:30:00.000Z",)"
                                    R"("task":"moved on")") +
                      Run("\xc3\xa4rger", R"("outcome":"not started","due":null,)"
                                          R"("started":"2026-11-20T13:00:00.000Z",)"
                                          R"("ended":"2026-11-20T13:00:00.000Z",)"
                                          R"("error":"No such file or directory")") +
                      Run("backup", R"("outcome":"left running","due":"2026-11-21T00:30:00.000Z",)"
                                    R"("started":"2026-11-21T00:30:01.000Z")"));
    }

    // A table with something of everything, beside the clock at cNow, and what ran before it.
    static void WriteShowcase() {
        WriteHistory();
        WriteTable(
            {{"backup", cNow + 10 * cHour, cNow - 14 * cHour, 24, "/bin/cp", "-a /home", 0},
             {"report", cNow + 90, 0, 0, "/bin/echo", "", 0},
             {"holiday", cNow + cDay, cNow - cDay, 168, "/bin/true", "x", 1},
             {"late \033[31m", cNow - 2 * cHour, cNow - 26 * cHour, 12, "/bin/false", "y", 0},
             {"\xc3\xa4rger", cNow + 400 * cDay, 0, 1, "/bin/true",
              "a text that is too long for a narrow terminal, by far", 0}});
    }
};

// ---- Output, beside files of what is expected -------------------------------------------------

// UPDATE_GOLDEN=1 writes them anew, to be read through before they are committed.
static void ExpectGolden(const std::string& name, const std::string& actual) {
    const std::string path = std::string(GOLDEN) + '/' + name;
    if (std::getenv("UPDATE_GOLDEN") != nullptr)
        WriteFile(path, actual);
    EXPECT_EQ(actual, fs::exists(path) ? ReadFile(path) : "(there is no file " + path + ')');
}

struct TGolden {
    const char* file;
    std::vector<std::string> arguments;
    int status = 0;
};

class CliGolden : public Cli, public testing::WithParamInterface<TGolden> {};

TEST_P(CliGolden, IsAsWrittenDown) {
    WriteShowcase();
    const TToolRun run = RunTool(GetParam().arguments, AtTime(cNow));
    EXPECT_EQ(run.status, GetParam().status);
    ExpectGolden(GetParam().file,
                 run.output + (run.error.empty() ? "" : "---- errors\n") + run.error);
}

static const TGolden cGolden[] = {
    {"list", {"list"}},
    {"list-utc", {"list", "--utc"}},
    {"list-json", {"list", "--json"}},
    {"list-names", {"list", "--names"}},
    {"show", {"show", "backup"}},
    {"show-paused", {"show", "holiday"}},
    {"show-json", {"--utc", "show", "--json", "report"}},
    {"show-unknown", {"show", "nobody"}, 3},
    {"history", {"history"}},
    {"history-name", {"history", "backup"}},
    {"history-count", {"history", "--count", "2", "--utc"}},
    {"history-failed", {"history", "--failed"}},
    {"history-json", {"history", "--json"}},
    {"history-never-ran", {"history", "holiday"}},
    {"history-unknown", {"history", "nobody"}, 3},
    {"help-history", {"history", "--help"}},
    {"next", {"next"}},
    {"next-count", {"next", "--count", "3"}},
    {"next-until", {"next", "--until", "tomorrow 12:00"}},
    {"next-json", {"next", "--count", "2", "--json"}},
    {"status", {"status"}, 6},
    {"status-json", {"status", "--json"}, 6},
    {"check", {"check"}},
    {"check-json", {"check", "--json"}},
    {"export", {"export"}},
    {"repair-sound", {"repair"}},
    {"completion-bash", {"completion", "bash"}},
    {"completion-zsh", {"completion", "zsh"}},
    {"completion-fish", {"completion", "fish"}},
    {"help", {"--help"}},
    {"help-create", {"create", "--help"}},
    {"help-list", {"list", "--help"}},
    {"usage-none", {}, 2},
    {"usage-unknown", {"lst"}, 2},
    {"usage-time", {"create", "a", "--at", "2026-02-30 14:30", "--", "/bin/true"}, 2},
    {"usage-period", {"period", "backup", "90m"}, 2},
    {"dry-create",
     {"create", "new", "--at", "tomorrow 02:00", "--every", "1d", "--dry-run", "--", "/bin/true"}},
    {"dry-edit", {"edit", "backup", "--every", "6h", "--dry-run"}},
    {"dry-remove", {"remove", "backup", "report", "--dry-run"}},
};

INSTANTIATE_TEST_SUITE_P(Output, CliGolden, testing::ValuesIn(cGolden), [](const auto& golden) {
    std::string name = golden.param.file;
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
});

TEST_F(Cli, OnATerminalItIsColouredAndCutToItsWidth) {
    WriteShowcase();
    const TToolRun run = RunToolOnTerminal({"list"}, 120, AtTime(cNow));
    EXPECT_EQ(run.status, 0);
    ExpectGolden("list-terminal", run.output);
}

TEST_F(Cli, NoColorIsHonoured) {
    WriteShowcase();
    TEnvironment environment = AtTime(cNow);
    environment.emplace_back("NO_COLOR", "1");
    EXPECT_THAT(RunToolOnTerminal({"list"}, 120, environment).output,
                testing::Not(HasSubstr("\033")));
    EXPECT_THAT(RunTool({"list"}, AtTime(cNow)).output, testing::Not(HasSubstr("\033")));
}

TEST_F(Cli, NarrowTerminalKeepsALittleOfTheLastColumn) {
    WriteShowcase();
    const TToolRun run = RunToolOnTerminal({"list"}, 20, AtTime(cNow));
    EXPECT_THAT(run.output, HasSubstr("/bin/ec"));
    EXPECT_THAT(run.output, HasSubstr("5 tasks"));
}

TEST_F(Cli, OutputThatCannotBeWrittenIsAnError) {
    WriteShowcase();
    const TToolRun run = RunTool({"list"}, AtTime(cNow));
    EXPECT_EQ(run.status, 0);
    CForkedChild child([] {
        const int full = open("/dev/full", O_WRONLY);
        dup2(full, STDOUT_FILENO);
        execl(TOOL_PROGRAM, TOOL_PROGRAM, "list", static_cast<char*>(nullptr));
        return 127;
    });
    EXPECT_EQ(child.Wait(), 1);
}

// ---- History ----------------------------------------------------------------------------------

TEST_F(Cli, HistoryIsEmptyWhereNoHostKeptOne) {
    EXPECT_THAT(Output({"history"}), HasSubstr("\n0 records\n"));
    EXPECT_THAT(Output({"history", "--json"}), HasSubstr("\"runs\": []"));
}

TEST_F(Cli, HistoryLeavesOutWhatIsNoRecordAndSaysSo) {
    WriteShowcase();
    std::string lines = ReadFile(cHistory);
    const std::string other = R"({"version":2,"outcome":"exited","name":"backup"})";
    WriteFile(cHistory, "{\"version\":1,\"outc\n" + other + "\n[]\n\n" + lines +
                            R"({"version":1,"outcome":"being writ)");
    const TToolRun run = RunTool({"history"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, HasSubstr("\n7 records\n"));
    for (const char* number : {"1", "2", "3", "4"})
        EXPECT_THAT(run.error, HasSubstr(std::string("vxsched: line ") + number +
                                         " of ./files/history.jsonl is no record of a run"));
    EXPECT_THAT(run.error, testing::Not(HasSubstr("line 12")));
    EXPECT_EQ(RunTool({"show", "backup"}).error, "") << "a record more or less is not its matter";
}

TEST_F(Cli, HistoryFindsNamesThatAreNotUnicodeAsTheyWereRecorded) {
    WriteFile(cHistory, Run("caf\xef\xbf\xbd", R"("outcome":"exited","due":null,"status":0)"));
    EXPECT_THAT(Output({"history", "caf\xe9"}), HasSubstr("\n1 record\n"));
}

TEST_F(Cli, HistoryThatMayNotBeReadIsStatusFour) {
    fs::create_directory(cHistory);
    ExpectRefused(4, "cannot read ./files/history.jsonl", {"history"});
    fs::remove(cHistory);
    ASSERT_EQ(mkfifo(cHistory, 0644), 0);
    ExpectRefused(4, "cannot read ./files/history.jsonl: it is no file", {"history"});
}

// ---- Changes ----------------------------------------------------------------------------------

TEST_F(Cli, CreateTakesEverythingFromTheCommandLine) {
    EXPECT_THAT(Output({"create", "backup", "--at", "2030-01-02T03:04:05Z", "--every", "1d", "--",
                        cRecorder, "--a parameter"}),
                HasSubstr("created backup, every 1d, next 2030-01-02 04:04:05"));
    EXPECT_EQ(ReadTable(), (TRows{{"backup", 1893553445, 0, 24, cRecorder, "--a parameter", 0}}));
    ExpectRefused(1, "already", {"create", "backup", "--at", "in 1h", "--", cRecorder});
    Output({"create", "backup", "--replace", "--at", "2030-01-02T03:04:06Z", "--", cRecorder});
    EXPECT_EQ(ReadTable(), (TRows{{"backup", 1893553446, 0, 0, cRecorder, "", 0}}));
}

TEST_F(Cli, CreateRefusesWhatWouldNotRun) {
    ExpectRefused(1, "no program \"/no/such\"", {"create", "a", "--at", "in 1h", "--", "/no/such"});
    ExpectRefused(1, "absolute path", {"create", "a", "--at", "in 1h", "--", "ls"});
    ExpectRefused(1, "lies in the past",
                  {"create", "a", "--at", "2001-01-01 12:00", "--", cRecorder});
    ExpectRefused(1, "no name", {"create", "", "--at", "in 1h", "--", cRecorder});
    ExpectRefused(2, "program", {"create", "a", "--at", "in 1h"});
    ExpectRefused(2, "period", {"create", "a", "--every", "90m", "--", cRecorder});
    Output({"create", "a", "--at", "in 1h", "--force", "missing-program", "--", "/no/such"});
    EXPECT_EQ(NamesInTable(), "a");
}

TEST_F(Cli, CreateMakesOtherwiseImpossibleProgramsSchedulable) {
    Output({"create", "a", "--at", "in 1h", "--", "/usr/bin/free", "-h"});
    EXPECT_EQ(fs::read_symlink(ReadTable()[0].program), "/usr/bin/free");
    EXPECT_THAT(Output({"list"}), HasSubstr("/usr/bin/free -h"));
    EXPECT_THAT(Output({"show", "a"}), HasSubstr("Program      /usr/bin/free\n"));
    Output({"remove", "a"});
    EXPECT_TRUE(fs::is_empty("files/programs"));
}

TEST_F(Cli, EditPauseResumePeriodAndRemove) {
    const TRow row = Later("a");
    WriteTable({row, Later("b"), Later("c")});
    Output({"edit", "a", "--parameter", "", "--every", "2w"});
    EXPECT_EQ(ReadTable()[0], (TRow{"a", row.next, 0, 336, cRecorder, "", 0}));
    ExpectRefused(2, "name what is to change", {"edit", "a"});
    ExpectRefused(3, "no task \"nobody\"", {"edit", "nobody", "--every", "6h"});
    EXPECT_EQ(Output({"pause", "a", "c"}), "paused a\npaused c\n");
    EXPECT_EQ(ReadTable()[2].paused, 1U);
    EXPECT_EQ(Output({"resume", "c"}), "resumed c\n");
    EXPECT_EQ(ReadTable()[2].paused, 0U);
    EXPECT_THAT(Output({"period", "b", "6h"}), HasSubstr("changed b, every 6h, next "));
    EXPECT_EQ(ReadTable()[1].period, 6U);
    ExpectRefused(3, "nobody", {"remove", "a", "nobody"});
    EXPECT_EQ(Output({"remove", "a", "c"}), "removed a\nremoved c\n");
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(Cli, DryRunSaysAndChangesNothing) {
    WriteTable({Later("a")});
    const std::string before = ReadFile(cTable);
    for (const std::vector<std::string>& command : std::vector<std::vector<std::string>>{
             {"create", "b", "--at", "in 1h", "--dry-run", "--", "/usr/bin/free"},
             {"edit", "a", "--every", "6h", "--dry-run"},
             {"pause", "a", "--dry-run"},
             {"resume", "a", "--dry-run"},
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

TEST_F(Cli, RunStartsTheProgramAndTellsItsEnd) {
    TRow row = Later("a");
    row.program = PROGRAMS "/end-with";
    row.parameters = "status 3";
    WriteTable({row});
    const TToolRun run = RunTool({"run", "a", "--wait"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.output, HasSubstr("started a as process "));
    EXPECT_THAT(run.output, HasSubstr("a ended with status 3\n"));
    ExpectRefused(3, "nobody", {"run", "nobody"});
}

TEST_F(Cli, ListShowsWhatRunsWithItsProcess) {
    TRow row = Later("a");
    row.program = PROGRAMS "/wait-for-it";
    row.parameters = fs::absolute("end it").string();
    WriteTable({row});
    const std::string started = Output({"run", "a"});
    const std::string process = started.substr(started.rfind(' ') + 1);
    EXPECT_THAT(Output({"list"}), HasSubstr("running " + process.substr(0, process.size() - 1)));
    ExpectRefused(1, "running already", {"run", "a"});
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

// ---- Keeping ----------------------------------------------------------------------------------

TEST_F(Cli, ImportBringsTheWholeTableBackToTheByte) {
    WriteTable({{"backup", 4'000'000'000, 77, 24, cRecorder, "\xff\xfe not UTF-8", 1},
                {std::string("zero\0byte", 9), -5, 0, 0, cRecorder, "line\nend \"quoted\" \\", 1},
                {"\xe2\x82\xac", 4'000'000'000, 0, 1193046, cRecorder, "", 0}});
    const std::string before = ReadFile(cTable);
    WriteFile("export", Output({"export"}));
    WriteTable({Later("other")});
    const TToolRun run = RunTool({"import", "--replace", "export"});
    EXPECT_EQ(run.status, 1) << "a zero byte in a name is refused";
    WriteTable({{"backup", 4'000'000'000, 77, 24, cRecorder, "\xff\xfe not UTF-8", 1},
                {"once", -5, 0, 0, cRecorder, "line\nend \"quoted\" \\", 1},
                {"\xe2\x82\xac", 4'000'000'000, 0, 1193046, cRecorder, "", 0}});
    const std::string sound = ReadFile(cTable);
    WriteFile("export", Output({"export"}));
    WriteTable({Later("other")});
    EXPECT_THAT(RunTool({"import", "--replace", "export"}).output, HasSubstr("imported 3 tasks"));
    EXPECT_EQ(ReadFile(cTable), sound);
    WriteTable({});
    EXPECT_EQ(RunTool({"import"}, {}, ReadFile("export")).status, 0) << "from standard input";
    EXPECT_EQ(ReadFile(cTable), sound);
}

TEST_F(Cli, ImportAddsMergesOrReplaces) {
    TRow changed = Later("a");
    changed.period = 6;
    WriteTable({changed, Later("b")});
    WriteFile("export", Output({"export"}));
    WriteTable({Later("a"), Later("c")});
    ExpectRefused(1, "--merge", {"import", "export"});
    EXPECT_THAT(Output({"import", "--dry-run", "--merge", "export"}), HasSubstr("would import 2"));
    EXPECT_EQ(NamesInTable(), "a c");
    Output({"import", "--merge", "export"});
    EXPECT_EQ(NamesInTable(), "a c b");
    EXPECT_EQ(ReadTable()[0].period, 6U);
    Output({"import", "--replace", "export"});
    EXPECT_EQ(NamesInTable(), "a b");
    ExpectRefused(2, "excludes", {"import", "--replace", "--merge", "export"});
}

TEST_F(Cli, ImportRefusesWhatItCannotRead) {
    WriteTable({Later("a")});
    const auto refuse = [](const std::string& text, const std::string& content) {
        WriteFile("import", content);
        ExpectRefused(1, text, {"import", "--replace", "import"});
    };
    refuse("not JSON", "{");
    refuse("version", "{}");
    refuse("version", "[]");
    refuse("version", R"({"version": 2, "tasks": []})");
    refuse("\"tasks\"", R"({"version": 1})");
    refuse("task 1 is not an object", R"({"version": 1, "tasks": [1]})");
    refuse("task 1 has no \"name\"", R"({"version": 1, "tasks": [{}]})");
    refuse("task 1 (\"x\") has no \"next\"", R"({"version": 1, "tasks": [{"name": "x"}]})");
    refuse("\"period\" that is no whole number in range: -1",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "period": -1, "program": "/p"}]})");
    refuse(
        "\"next\" that is no whole number in range: 9223372036854775808",
        R"({"version": 1, "tasks": [{"name": "x", "next": 9223372036854775808, "program": "/p"}]})");
    refuse("\"program\" that is no text",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": 5}]})");
    refuse("not base64",
           R"({"version": 1, "tasks": [{"name": {"base64": "?"}, "next": 1, "program": "/p"}]})");
    refuse("neither true nor false",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": "/p", "paused": 1}]})");
    refuse(
        "step of zero",
        R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": "/bin/cat", "period": 268435456}]})");
    ExpectRefused(1, "no such file", {"import", "no such file"});
}

TEST_F(Cli, DamagedFileSurvivesEveryCommandUntilRepair) {
    const std::string damaged =
        BytesOf({Later("first"), Later("second")}).substr(0, BytesOf({Later("first")}).size() + 20);
    WriteFile(cTable, damaged);
    WriteFile("import", R"({"version": 1, "tasks": []})");
    const std::vector<std::vector<std::string>> commands = {
        {"list"},
        {"show", "first"},
        {"next"},
        {"status"},
        {"check"},
        {"export"},
        {"create", "a", "--at", "in 1h", "--", cRecorder},
        {"create", "first", "--replace", "--even-if-due", "--", cRecorder},
        {"edit", "first", "--every", "6h"},
        {"remove", "first"},
        {"pause", "first"},
        {"resume", "first"},
        {"period", "first", "6h"},
        {"run", "first", "--force"},
        {"import", "--replace", "import"},
        {"repair", "--dry-run"}};
    for (const std::vector<std::string>& command : commands) {
        const TToolRun run = RunTool(command);
        EXPECT_EQ(run.status, command.front() == "repair" ? 0 : 5) << command.front() << run.error;
        EXPECT_EQ(ReadFile(cTable), damaged) << command.front();
    }
    const std::string output = Output({"repair"});
    EXPECT_THAT(output, HasSubstr("damaged at offset"));
    EXPECT_THAT(output, HasSubstr("kept \"first\" from the damaged table"));
    EXPECT_EQ(NamesInTable(), "first");
    const std::string aside = output.substr(output.find("files/scheduler.dat.damaged"));
    EXPECT_EQ(ReadFile(aside.substr(0, aside.find('\n'))), damaged);
}

TEST_F(Cli, RepairFillsInFromTheCopyFromBefore) {
    for (const char* const name : {"a", "b", "c"})
        Output({"create", name, "--at", "in 1h", "--", cRecorder});
    Output({"pause", "a"});
    const std::string whole = ReadFile(cTable);
    WriteFile(cTable, whole.substr(0, whole.size() / 2));
    const std::string output = Output({"repair"});
    EXPECT_THAT(output, HasSubstr("kept \"c\" from scheduler.dat.before"));
    EXPECT_EQ(ReadFile(cTable), whole);
}

TEST_F(Cli, CheckNamesWhatIsWrongAndWhere) {
    WriteTable({{"script", std::time(nullptr) + cDay, 0, 24, "/opt/no.sh", "", 0}});
    const TToolRun unsound = RunTool({"check"});
    EXPECT_EQ(unsound.status, 0);
    EXPECT_THAT(unsound.output, HasSubstr("aborting-extension: task \"script\""));
    WriteTable({{"endless", 5, 0, 268435456, cRecorder, "", 1}});
    const TToolRun harmful = RunTool({"check"});
    EXPECT_EQ(harmful.status, 5);
    EXPECT_THAT(harmful.output, HasSubstr("endless: offset 8:"));
    EXPECT_THAT(harmful.output, HasSubstr("harmful to load"));
    Output({"repair"});
    EXPECT_EQ(RunTool({"check"}).status, 0);
    WriteFile("other", "abc");
    EXPECT_EQ(RunTool({"check", "other"}).status, 5);
    ExpectRefused(1, "no file", {"check", "no such file"});
}

TEST_F(Cli, ImportBelievesOnlyWhatItCanMakeTrue) {
    WriteTable({});
    const auto import = [](const std::string& task) {
        WriteFile("import", R"({"version": 1, "tasks": [)" + task + "]}");
        return RunTool({"import", "import"});
    };
    const std::string later = std::to_string(std::time(nullptr) + cDay);
    const TToolRun script = import(R"({"name": "x", "next": )" + later +
                                   R"(, "program": "/opt/backup.sh", "real_program": "/bin/ls"})");
    EXPECT_EQ(script.status, 1);
    EXPECT_THAT(script.error, HasSubstr("would abort the scheduling process"));
    const TToolRun far =
        import(R"({"name": "x", "next": -9000000000000000000, "period": 1, "program": "/bin/ls"})");
    EXPECT_EQ(far.status, 1);
    EXPECT_THAT(far.error, HasSubstr("so far back"));
    EXPECT_EQ(ReadTable(), TRows());
    const std::string link = (fs::current_path() / "files/programs/free-1").string();
    EXPECT_EQ(import(R"({"name": "x", "next": )" + later + R"(, "program": ")" + link +
                     R"(", "real_program": "/usr/bin/free"})")
                  .status,
              0);
    EXPECT_EQ(fs::read_symlink(link), "/usr/bin/free");
    EXPECT_EQ(
        import(R"({"name": "y", "next": )" + later + R"(, "program": "/usr/bin/free"})").status, 0)
        << "harms nobody, and is said";
}

TEST_F(Cli, WhatIsEmptyIsNotLeftOut) {
    ExpectRefused(2, "time", {"create", "a", "--at", "", "--", cRecorder});
    ExpectRefused(2, "period", {"create", "a", "--every", "", "--", cRecorder});
    ExpectRefused(2, "bogus", {"create", "a", "--force", "bogus", "--", cRecorder});
    ExpectRefused(2, "count", {"next", "--count", "-1"});
}

TEST_F(Cli, DryRunRefusesWhatTheCommandWould) {
    WriteTable({{"once", 5, 0, 0, cRecorder, "", 1},
                {"missing", 4'000'000'000, 0, 24, "/no/such", "", 1}});
    ExpectRefused(1, "give it a new start", {"resume", "once", "--dry-run"});
    ExpectRefused(1, "no program", {"run", "missing", "--dry-run"});
}

TEST_F(Cli, ProgramThatIsNotWaitedForKeepsNoPipeOpen) {
    TRow row = Later("a");
    row.program = PROGRAMS "/wait-for-it";
    row.parameters = fs::absolute("end it").string();
    WriteTable({row});
    CProgram tool({TOOL_PROGRAM, "run", "a"});
    EXPECT_FALSE(tool.WaitForOutput("never said")) << "until the pipe is closed";
    EXPECT_EQ(tool.Wait(), 0);
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

TEST_F(Cli, OutputThatCannotBeWrittenSaysThatTheChangeWasMade) {
    WriteTable({Later("a")});
    CForkedChild child([] {
        dup2(open("/dev/full", O_WRONLY), STDOUT_FILENO);
        dup2(open("error", O_WRONLY | O_CREAT, 0600), STDERR_FILENO);
        execl(TOOL_PROGRAM, TOOL_PROGRAM, "run", "a", static_cast<char*>(nullptr));
        return 127;
    });
    EXPECT_EQ(child.Wait(), 1);
    EXPECT_THAT(ReadFile("error"), HasSubstr("all but this was done"));
    EXPECT_NE(ReadTable()[0].last, 0);
}

// A task's name is nobody's command.
TEST_F(Cli, CompletionOffersNamesAndRunsNothing) {
    TRow row = Later("$(touch ran)");
    WriteTable({row, Later("back up"), Later("backup")});
    WriteFile("script", Output({"completion", "bash"}) + R"script(
vxsched() { )script" TOOL_PROGRAM R"script( "$@"; }
COMP_WORDS=(vxsched show ""); COMP_CWORD=2; _vxsched; printf '%s
' "${COMPREPLY[@]}"
COMP_WORDS=(vxsched show ba); _vxsched; printf '%s
' "${COMPREPLY[@]}"
COMP_WORDS=(vxsched re); COMP_CWORD=1; _vxsched; printf '%s
' "${COMPREPLY[@]}"
)script");
    CProgram bash({"/bin/bash", "script"});
    bash.WaitForOutput("never said");
    EXPECT_EQ(bash.Wait(), 0);
    EXPECT_EQ(bash.Output(), R"(\$\(touch\ ran\)
back\ up
backup
back\ up
backup
remove
resume
repair
)");
    EXPECT_FALSE(fs::exists("ran"));
}

// ---- Where and who ----------------------------------------------------------------------------

TEST_F(Cli, DirectoryComesFromTheOptionOrTheEnvironment) {
    WriteTable({Later("here")});
    const std::string here = fs::current_path();
    fs::create_directory("elsewhere");
    fs::current_path("elsewhere");
    EXPECT_EQ(Output({"--directory", here, "list", "--names"}), "here\n");
    EXPECT_EQ(Output({"list", "--names", "--directory", ".."}), "here\n");
    EXPECT_EQ(RunTool({"list", "--names"}, {{"VXSCHED_DIRECTORY", here}}).output, "here\n");
    const TToolRun empty = RunTool({"list"});
    EXPECT_EQ(empty.status, 0);
    EXPECT_THAT(empty.error, HasSubstr("no host has run in ."));
    ExpectRefused(1, "no directory", {"--directory", "nowhere", "list"});
    ExpectRefused(1, "no folder", {"create", "a", "--at", "in 1h", "--", cRecorder});
    fs::current_path(here);
}

TEST_F(Cli, ReadingCommandsNeverLoadTheAddIn) {
    WriteTable({{"due", 5, 0, 0, cRecorder, "", 0}, {"late", 5, 0, 24, cRecorder, "", 0}});
    const std::string before = ReadFile(cTable);
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"list"},
                                               {"list", "--json"},
                                               {"list", "--names"},
                                               {"show", "due"},
                                               {"next"},
                                               {"status"},
                                               {"check"},
                                               {"export"},
                                               {"repair"}}) {
        const TToolRun run = RunTool(command);
        EXPECT_TRUE(run.status == 0 || command.front() == "status") << run.error;
        EXPECT_EQ(ReadFile(cTable), before) << command.front();
        EXPECT_EQ(CountSemaphoreSets(), 0) << command.front();
    }
}

TEST_F(Cli, DueTasksWithoutASchedulingProcessAreStatusSix) {
    WriteTable({{"due", 5, 0, 0, cRecorder, "", 0}, Later("a")});
    ExpectRefused(6, "\"due\" is due", {"pause", "a"});
    ExpectRefused(6, "no scheduling process", {"wake"});
    Output({"pause", "a", "--even-if-due"});
    EXPECT_EQ(NamesInTable(), "due a");
}

TEST_F(Cli, NoAccessIsStatusFour) {
    WriteTable({Later("a")});
    fs::permissions(cTable, fs::perms::none);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        const TToolRun run = RunTool({"list"});
        EXPECT_EQ(run.status, 4);
        EXPECT_THAT(run.error, HasSubstr("files/scheduler.dat: Permission denied"));
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}

TEST_F(Cli, StatusTellsOfTheSchedulingProcessAndTheMutex) {
    CHost host;
    WaitUntil([&] {
        const TToolRun run = RunTool({"status"});
        EXPECT_EQ(run.status, 0) << run.error;
        return run.output.find("Last tick") != std::string::npos;
    });
    EXPECT_THAT(Output({"status"}), HasSubstr("process " + std::to_string(host.Id())));
    EXPECT_THAT(Output({"status"}), HasSubstr("Mutex      free"));
    EXPECT_EQ(Output({"wake"}), "woke the scheduling process\n");
    sembuf raise{.sem_num = 0, .sem_op = 1, .sem_flg = 0};
    WaitUntil(WorkerIsIdle);
    semop(semget(cStoreKey, 1, 0), &raise, 1);
    EXPECT_THAT(Output({"status"}), HasSubstr("lets 2 in at once"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(Cli, ShowSaysWhyATaskIsNotRunning) {
    WriteTable({{"missing", std::time(nullptr) + cDay, 0, 24, "/no/such", "", 0},
                {"paused", std::time(nullptr) + cDay, 0, 24, cRecorder, "", 1},
                Later("alone"),
                {"overdue", 5, 0, 24, cRecorder, "", 0}});
    EXPECT_THAT(Output({"show", "missing"}), HasSubstr("there is no program"));
    EXPECT_THAT(Output({"show", "paused"}), HasSubstr("it is paused"));
    EXPECT_THAT(Output({"show", "alone"}), HasSubstr("no scheduling process"));
    EXPECT_THAT(Output({"show", "overdue"}), HasSubstr("State        overdue"));
    CHost host;
    EXPECT_THAT(Output({"show", "alone"}), HasSubstr("waits for its time"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(Cli, SchedulingProcessOfAnotherNamespaceIsSaid) {
    CHost host;
    CForkedChild child([] {
        if (unshare(CLONE_NEWIPC) != 0)
            return 1;
        EXPECT_THAT(RunTool({"status"}).output, HasSubstr("another IPC namespace"));
        EXPECT_EQ(RunTool({"wake"}).status, 6);
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(host.Stop(), 0);
}
