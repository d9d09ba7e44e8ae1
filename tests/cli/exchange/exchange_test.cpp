// Runs the commands export and import of vxsched.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <string>

#include "Cli.h"
#include "Process.h"
#include "ProgramLink.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

TEST_F(Cli, ImportRestoresAnExportedTableToTheByte) {
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
    const std::string valid = ReadFile(cTable);
    WriteFile("export", Output({"export"}));
    WriteTable({Later("other")});
    EXPECT_THAT(RunTool({"import", "--replace", "export"}).output, HasSubstr("imported 3 tasks"));
    EXPECT_EQ(ReadFile(cTable), valid);
    WriteTable({});
    EXPECT_EQ(RunTool({"import"}, {}, ReadFile("export")).status, 0) << "from standard input";
    EXPECT_EQ(ReadFile(cTable), valid);
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

// A search of the table for each task would take minutes, half of them under the store mutex.
TEST_F(Cli, ImportOfATableOf150000TasksEnds) {
    WriteTable({Later("a")});
    std::string tasks;
    for (int number = 0; number < 150'000; ++number)
        tasks += fmt::format(R"({}{{"name": "{}", "next": 4000000000, "program": "{}"}})",
                             number == 0 ? "" : ", ", number, cRecorder);
    WriteFile("import", fmt::format(R"({{"version": 1, "tasks": [{}]}})", tasks));
    EXPECT_THAT(Output({"import", "import"}), HasSubstr("the table has 150001 now"));
}

TEST_F(Cli, ImportOfATaskTwiceCountsAsAnOverwrite) {
    WriteTable({Later("a")});
    const std::string tasks = R"({"version": 1, "tasks": [
        {"name": "b", "next": 4000000000, "program": "/bin/ls"},
        {"name": "b", "next": 4000000001, "program": "/bin/ls"}]})";
    WriteFile("import", tasks);
    ExpectRefused(1, "a task \"b\" already exists", {"import", "import"});
    Output({"import", "import", "--merge"});
    EXPECT_EQ(NamesInTable(), "a b");
    EXPECT_EQ(ReadTable()[1].next, 4'000'000'001);
}

TEST_F(Cli, ImportRefusesInvalidInput) {
    WriteTable({Later("a")});
    const auto refuse = [](const std::string& message, const std::string& content) {
        WriteFile("import", content);
        ExpectRefused(1, message, {"import", "--replace", "import"});
    };
    refuse("not valid JSON: line 1, column 2: the input ends too early", "{");
    refuse("not valid JSON: line 2, column 12: unexpected '}'", "{\"version\": 1,\n \"tasks\": [}");
    refuse("not valid JSON: line 1, column 3: unexpected byte 0x0a", "[\"\n\"]");
    refuse("a number that is too large", "[1e999]");
    refuse("version", "{}");
    refuse("version", "[]");
    refuse("version", R"({"version": 2, "tasks": []})");
    refuse("\"tasks\"", R"({"version": 1})");
    refuse("task 1 is not an object", R"({"version": 1, "tasks": [1]})");
    refuse("task 1 has no \"name\"", R"({"version": 1, "tasks": [{}]})");
    refuse("task 1 (\"x\") has no \"next\"", R"({"version": 1, "tasks": [{"name": "x"}]})");
    refuse("\"period\" that is not an integer in range: -1",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "period": -1, "program": "/p"}]})");
    refuse(
        "\"next\" that is not an integer in range: 9223372036854775808",
        R"({"version": 1, "tasks": [{"name": "x", "next": 9223372036854775808, "program": "/p"}]})");
    refuse("\"program\" that is not a string",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": 5}]})");
    refuse("not base64",
           R"({"version": 1, "tasks": [{"name": {"base64": "?"}, "next": 1, "program": "/p"}]})");
    refuse("neither true nor false",
           R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": "/p", "paused": 1}]})");
    refuse(
        "step of zero",
        R"({"version": 1, "tasks": [{"name": "x", "next": 1, "program": "/bin/cat", "period": 268435456}]})");
}

TEST_F(Cli, ImportReportsWhichInputAndWhy) {
    WriteTable({Later("a")});
    WriteFile("empty", "");
    WriteFile("bad", "{");
    ExpectRefused(1, "cannot import no such file: No such file or directory\n",
                  {"import", "no such file"});
    ExpectRefused(1, "cannot import files: Is a directory\n", {"import", "files"});
    ExpectRefused(1, "cannot import empty: it is empty\n", {"import", "empty"});
    ExpectRefused(1, "cannot import bad: it is not valid JSON: line 1, column 2",
                  {"import", "bad"});
    const auto fromStandardInput = [](const std::vector<std::string>& command,
                                      const std::string& input) {
        const TToolRun run = RunTool(command, {}, input);
        EXPECT_EQ(run.status, 1);
        return run.error;
    };
    EXPECT_THAT(fromStandardInput({"import"}, ""),
                HasSubstr("cannot import standard input: it is empty\n"));
    EXPECT_THAT(fromStandardInput({"import", "-"}, "["),
                HasSubstr("cannot import standard input: it is not valid JSON"));
}

// Makes a store in the directory "other" whose task "a" has a link to a program that no launch
// would find by its name, and exports it to the file "export".
// A store whose table has links to two programs; the export has them or, if it is of a table that came
// there by other means, their paths only.
static void ExportFromAnotherStore(bool hasRealPrograms) {
    fs::create_directories("other");
    fs::current_path("other");
    WriteTable({{"a", 4102444800, 0, 24, MakeProgramLink("/usr/bin/free", "free-1"), "-m", 0},
                {"b", 4102444800, 0, 24, MakeProgramLink("/opt/tool.sh", "tool-sh-1"), "", 0}});
    fs::current_path("..");
    if (!hasRealPrograms)
        fs::copy("other/files/scheduler.dat", cTable);
    WriteFile("export", RunTool({"export", "--directory", hasRealPrograms ? "other" : "."}).output);
    WriteTable({});
}

TEST_F(Cli, ImportRefusesWhatNoLaunchCanPass) {
    WriteTable({});
    const auto import = [](const std::string& program, const std::string& parameter) {
        const std::string later = std::to_string(std::time(nullptr) + cDay);
        WriteFile("import", R"({"version": 1, "tasks": [{"name": "x", "next": )" + later +
                                R"(, "program": ")" + program + R"(", "parameter": ")" + parameter +
                                "\"}]}");
        return RunTool({"import", "--replace", "import"});
    };
    const TToolRun tooLong = import(cRecorder, std::string(131'072, 'a'));
    EXPECT_EQ(tooLong.status, 1);
    EXPECT_THAT(tooLong.error, HasSubstr("the parameter has 131072 bytes"));
    EXPECT_EQ(import('/' + std::string(4096, 'a'), "").status, 1);
    EXPECT_EQ(NamesInTable(), "");
    EXPECT_EQ(import(cRecorder, std::string(131'071, 'a')).status, 0);
}

TEST_F(Cli, ImportGivesTheProgramsOfLinksOfAnotherStoreToTheRunner) {
    ExportFromAnotherStore(true);
    fs::remove_all("other/files");
    EXPECT_EQ(RunTool({"import", "export"}).status, 0);
    EXPECT_EQ(ReadTable(),
              (TRows{{"a", 4102444800, 0, 24, RUNNER_PROGRAM, "--task a -- /usr/bin/free -m", 0},
                     {"b", 4102444800, 0, 24, RUNNER_PROGRAM, "--task b -- /opt/tool.sh ''", 0}}));
    EXPECT_FALSE(fs::exists("files/programs"));
}

TEST_F(Cli, ImportResolvesLinksOfAnotherStoreOrReportsThem) {
    ExportFromAnotherStore(false);
    const std::string gone = fs::absolute("other/files/programs/tool-sh-1").string();
    fs::remove(gone);
    const TToolRun run = RunTool({"import", "export"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.error,
                HasSubstr("task \"b\": its program \"" + gone +
                          "\" is a link of another store, which cannot be resolved; "
                          "edit the task's program (vxsched edit b --program PROGRAM)\n"));
    EXPECT_THAT(run.error, testing::Not(HasSubstr("task \"a\"")));
    EXPECT_EQ(ReadTable()[0].parameters, "--task a -- /usr/bin/free -m");
}

TEST_F(Cli, ImportTrustsTheRealProgramOnlyOfItsOwnLinks) {
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
        import(R"({"name": "x", "next": -60000000000000000, "period": 1, "program": "/bin/ls"})");
    EXPECT_EQ(far.status, 1);
    EXPECT_THAT(far.error, HasSubstr("so far back"));
    EXPECT_EQ(ReadTable(), TRows());
    const std::string link = (fs::current_path() / "files/programs/free-1").string();
    EXPECT_EQ(import(R"({"name": "x", "next": )" + later + R"(, "program": ")" + link +
                     R"(", "real_program": "/usr/bin/free"})")
                  .status,
              0);
    EXPECT_EQ(ReadTable()[0].parameters, "--task x -- /usr/bin/free ''");
    EXPECT_EQ(
        import(R"({"name": "y", "next": )" + later + R"(, "program": "/usr/bin/free"})").status, 0)
        << "harms no other task, so it is only warned about";
}
