// No string of a table, a history, an import or the command line reaches the terminal as a control
// character, or forges a line of a message.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "Cli.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

// An ESC, a C1 control character (CSI), a byte that is not UTF-8, and, after it, a bidirectional
// control, a line separator, an invisible character.
static const std::string cHostile = "\033[31m \xc2\x9b \x9b \u202e \u2028 \ufeff";
static const std::string cReplaced = "\xef\xbf\xbd";

static const std::string cForged = "x\nvxsched: forged " + cHostile;

static const std::vector<std::string> cControls = {
    "\033", "\xc2\x9b", " \x9b", "\u202e", "\u2028", "\ufeff", "\r", "\t", "\x7f"};

static void ExpectNoControls(const std::string& shown, const std::vector<std::string>& command) {
    for (const std::string& control : cControls)
        EXPECT_THAT(shown, Not(HasSubstr(control))) << testing::PrintToString(command);
}

// Expects a failure, whose message shows the forged line as a part of `lines` lines.
static void ExpectShownSafely(const std::vector<std::string>& command, int lines = 1) {
    const TToolRun run = RunTool(command);
    EXPECT_NE(run.status, 0) << testing::PrintToString(command);
    EXPECT_THAT(run.error, HasSubstr("x" + cReplaced + "vxsched: forged"));
    EXPECT_THAT(run.error, Not(HasSubstr("\nvxsched: forged"))) << testing::PrintToString(command);
    EXPECT_EQ(std::count(run.error.begin(), run.error.end(), '\n'), lines) << run.error;
    ExpectNoControls(run.output + run.error, command);
}

TEST_F(Cli, ArgumentForgesNoLineOfAnErrorMessage) {
    WriteTable({Later("a")});
    const std::vector<std::vector<std::string>> commands = {
        {"show", cForged},
        {"history", cForged},
        {"remove", cForged},
        {"remove", "a", cForged},
        {"remove", "--dry-run", cForged},
        {"pause", cForged},
        {"resume", cForged},
        {"period", cForged, "2d"},
        {"run", cForged},
        {"edit", cForged, "--at", "now"},
        {"edit", "a", "--program", '/' + cForged},
        {"create", "b", "--", '/' + cForged},
        {"create", "b", "--", "/bin/sh." + cForged},
        {"create", "b", "--dry-run", "--", '/' + cForged},
        {"check", cForged},
        {"import", cForged},
        {"list", cForged},
        {"list", "--" + cForged},
        {"list", "--utc=" + cForged},
        {cForged},
        {"create", "b", "--force", cForged, "--", cRecorder},
        {"--lock-timeout", cForged, "list"},
        {"next", "--count", cForged},
        {"completion", cForged}};
    for (const std::vector<std::string>& command : commands)
        ExpectShownSafely(command);
}

// The message has the time, or period, again in the second line, and a mark in the third.
TEST_F(Cli, TimeForgesNoLineOfAnErrorMessage) {
    WriteTable({Later("a")});
    const std::vector<std::vector<std::string>> commands = {
        {"create", "b", "--at", cForged, "--", cRecorder},
        {"create", "b", "--every", cForged, "--", cRecorder},
        {"edit", "a", "--at", cForged},
        {"period", "a", cForged},
        {"next", "--until", cForged}};
    for (const std::vector<std::string>& command : commands)
        ExpectShownSafely(command, 3);
}

// What an import has is not the caller's.
TEST_F(Cli, ImportForgesNoLineOfAnErrorMessage) {
    WriteTable({Later("a")});
    const std::string escaped = R"("x\nvxsched: forged \u001b[31m \u009b \u202e \u2028 \ufeff")";
    const std::string task = R"({"version": 1, "tasks": [{"name": )" + escaped;
    for (const std::string& rest : std::vector<std::string>{
             "}", R"(, "next": 1)", R"(, "next": )" + escaped + ", \"program\": \"/p\"",
             R"(, "next": 1, "period": -1, "program": "/p")",
             R"(, "next": 1, "program": "/p.sh")"}) {
        WriteFile("import", task + rest + (rest == "}" ? "]}" : "}]}"));
        ExpectShownSafely({"import", "import"});
    }
    WriteFile("import", cForged);
    const TToolRun run = RunTool({"import", "import"});
    EXPECT_THAT(run.error, HasSubstr("unexpected 'x'"));
    ExpectNoControls(run.error, {"import"});
}

TEST_F(Cli, DirectoryForgesNoLineOfAnErrorMessage) {
    fs::create_directory(cForged);
    const TToolRun empty = RunTool({"list", "--directory", cForged});
    EXPECT_THAT(empty.error, HasSubstr("no host has run in " + fs::current_path().string() + "/x" +
                                       cReplaced + "vxsched: forged "));
    fs::create_directory(cForged + "/files");
    WriteFile(cForged + "/files/scheduler.dat", "damaged");
    const std::vector<std::vector<std::string>> commands = {
        {"list"},
        {"status"},
        {"check"},
        {"repair", "--dry-run"},
        {"repair"},
        {"wake"},
        {"export"},
        {"import", "/dev/null"},
        {"show", "a"},
        {"next"},
        {"run", "a"},
        {"remove", "a"},
        {"create", "b", "--at", "in 1h", "--", cRecorder},
        {"pause", "a"},
        {"history"}};
    for (const std::vector<std::string>& command : commands) {
        std::vector<std::string> withOption = {"--directory", cForged};
        withOption.insert(withOption.end(), command.begin(), command.end());
        for (const TToolRun& run :
             {RunTool(withOption), RunTool(command, {{"VXSCHED_DIRECTORY", cForged}})}) {
            EXPECT_THAT(run.output + run.error, Not(HasSubstr("\nvxsched: forged")));
            ExpectNoControls(run.output + run.error, command);
        }
    }
    ExpectShownSafely({"list", "--directory", cForged + "/missing"});
}

// Messages of several errors keep their lines.
TEST_F(Cli, SeveralErrorsHaveALineEach) {
    WriteTable({});
    const TToolRun run = RunTool({"create", "", "--at", "@5", "--", "/no\nprogram"});
    EXPECT_EQ(std::count(run.error.begin(), run.error.end(), '\n'), 3) << run.error;
    EXPECT_THAT(run.error,
                HasSubstr("\n         there is no program \"/no" + cReplaced + "program\""));
}

TEST_F(Cli, NamesAreExactForScriptsAndSafeOnATerminal) {
    WriteTable({Later(cHostile)});
    EXPECT_EQ(Output({"list", "--names"}), cHostile + '\n');
    const std::vector<std::string> names = {"list", "--names"};
    ExpectNoControls(RunToolOnTerminal(names, 80).output, names);
}

TEST_F(Cli, JsonEscapesWhatATerminalWouldObey) {
    WriteTable(
        {Later("a \x7f \xc2\x80 \xc2\x9b \xc2\x9f \xe2\x80\xae \xe2\x81\xa6 \U000e0041 \xc3\xa4")});
    const std::string json = Output({"list", "--json"});
    EXPECT_THAT(
        json,
        HasSubstr("\"a \\u007f \\u0080 \\u009b \\u009f \\u202e \\u2066 \\udb40\\udc41 \xc3\xa4\""));
    WriteFile("export", Output({"export"}));
    const std::string before = ReadFile(cTable);
    WriteTable({});
    Output({"import", "export"});
    EXPECT_EQ(ReadFile(cTable), before) << "an import reads the escapes";
}

// Whatever a table or a history holds, and wherever a command shows it.
TEST_F(Cli, NoCommandShowsAControlCharacter) {
    const std::string hostile = cHostile + "\n\r\t\x7f";
    const std::string program = '/' + hostile;
    const std::vector<std::vector<std::string>> commands = {
        {"list"},
        {"list", "--json"},
        {"show", hostile},
        {"show", hostile, "--json"},
        {"show", hostile + 'x'},
        {"create", hostile, "--", cRecorder},
        {"import", "import"},
        {"next", "--count", "3"},
        {"next", "--count", "3", "--json"},
        {"history"},
        {"history", "--json"},
        {"history", hostile},
        {"status"},
        {"status", "--json"},
        {"check"},
        {"check", "--json"},
        {"export"},
        {"edit", hostile, "--parameter", hostile, "--dry-run"},
        {"edit", hostile, "--parameter", hostile},
        {"edit", hostile, "--program", program},
        {"period", hostile, "2d"},
        {"pause", hostile, "--dry-run"},
        {"pause", hostile},
        {"resume", hostile},
        {"run", hostile},
        {"import", "--merge", "import"},
        {"remove", hostile, "--dry-run"},
        {"remove", hostile},
        {"create", hostile, "--at", "in 1h", "--force", "missing-program", "--", program, hostile},
        {"import", "import", "--replace"},
        {"repair", "--dry-run"},
        {"repair"}};
    for (const bool isTerminal : {false, true}) {
        WriteTable({{hostile, 4'000'000'000, 0, 24, program, hostile, 0}});
        WriteFile("import", Output({"export"}));
        WriteFile(cHistory,
                  Run("\\u001b[31m \\u009b \\u202e",
                      R"("outcome":"not started","due":null,"error":"\u001b[31m \u009b")"));
        for (const std::vector<std::string>& command : commands) {
            if (command[0] == "repair" && ReadFile(cTable).size() > 20)
                WriteFile(cTable, ReadFile(cTable).substr(0, ReadFile(cTable).size() - 1));
            const TToolRun run =
                isTerminal ? RunToolOnTerminal(command, 80, {{"NO_COLOR", "1"}}) : RunTool(command);
            ExpectNoControls(run.output + run.error, command);
        }
    }
}
