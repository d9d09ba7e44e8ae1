// Compares the output of the command vxsched in every output mode, on a terminal and elsewhere,
// with the files in golden/.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

// With UPDATE_GOLDEN=1 in the environment it rewrites the files. Review the changes before a
// commit.
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

// Without it the test names in ctest would contain addresses.
static void PrintTo(const TGolden& golden, std::ostream* stream) {
    *stream << golden.file;
}

class CliGolden : public Cli, public testing::WithParamInterface<TGolden> {};

TEST_P(CliGolden, IsAsWrittenDown) {
    WriteShowcase();
    const TToolRun run = RunTool(GetParam().arguments, AtTime(cNow));
    EXPECT_EQ(run.status, GetParam().status);
    std::string printed = run.output + (run.error.empty() ? "" : "---- errors\n") + run.error;
    const std::string directory = fs::current_path();
    for (std::size_t at; (at = printed.find(directory)) != std::string::npos;)
        printed.replace(at, directory.size(), "DIR");
    ExpectGolden(GetParam().file, printed);
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
    {"history-since", {"history", "--since", "yesterday noon"}},
    {"history-failed", {"history", "--failed"}},
    {"history-json", {"history", "--json"}},
    {"history-never-ran", {"history", "holiday"}},
    {"history-unknown", {"history", "nobody"}, 3},
    {"help-history", {"history", "--help"}},
    {"next", {"next"}},
    {"next-count", {"next", "--count", "3"}},
    {"next-until", {"next", "--until", "tomorrow 12:00"}},
    {"next-json", {"next", "--count", "2", "--json"}},
    {"calendar", {"calendar", "30 2 * * mon-fri", "--zone", "Europe/Berlin"}},
    {"calendar-utc",
     {"--utc", "calendar", "0 */6 L * *", "--zone", "America/New_York", "--count", "3"}},
    {"calendar-json",
     {"calendar", "@daily", "--zone", "Asia/Kolkata", "--from", "2026-12-31", "--json"}},
    {"calendar-reboot", {"calendar", "@reboot", "--zone", "UTC"}},
    {"help-calendar", {"calendar", "--help"}},
    {"usage-calendar", {"calendar", "0/5 * * * *"}, 2},
    {"usage-calendar-unquoted", {"calendar", "30", "2", "*", "*", "1-5"}, 2},
    {"status", {"status"}, 6},
    {"status-json", {"status", "--json"}, 6},
    {"check", {"check"}},
    {"check-json", {"check", "--json"}},
    {"export", {"export"}},
    {"repair-valid", {"repair"}},
    {"completion-bash", {"completion", "bash"}},
    {"completion-zsh", {"completion", "zsh"}},
    {"completion-fish", {"completion", "fish"}},
    {"help", {"--help"}},
    {"help-create", {"create", "--help"}},
    {"help-edit", {"edit", "--help"}},
    {"help-list", {"list", "--help"}},
    {"help-pause", {"pause", "--help"}},
    {"usage-none", {}, 2},
    {"usage-unknown", {"lst"}, 2},
    {"usage-missing", {"show"}, 2},
    {"usage-unexpected", {"show", "x", "--bogus", "y", "--worse"}, 2},
    {"usage-program-and-shell", {"create", "x", "--shell", "ls", "--", "/bin/echo", "a", "b"}, 2},
    {"usage-program-option", {"create", "x", "/bin/echo", "-n"}, 2},
    {"usage-lock-timeout", {"list", "--lock-timeout", "abc"}, 2},
    {"usage-time", {"create", "a", "--at", "2026-02-30 14:30", "--", "/bin/true"}, 2},
    {"usage-period", {"period", "backup", "90m"}, 2},
    {"dry-create",
     {"create", "new", "--at", "tomorrow 02:00", "--every", "1d", "--dry-run", "--even-if-due",
      "--", "/bin/true"}},
    {"dry-edit", {"edit", "backup", "--every", "6h", "--dry-run", "--even-if-due"}},
    {"dry-remove", {"remove", "backup", "report", "--dry-run", "--even-if-due"}},
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
