// create and edit of what the table alone cannot hold: several arguments, none, options of a job.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "HostProgram.h"
#include "Process.h"
#include "ProgramLink.h"

namespace fs = std::filesystem;

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace {

class CliJob : public Cli {
protected:
    CliJob() { fs::remove(cTable); }

    static void Create(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"create", "job", "--at", "in 2h"});
        Output(arguments);
    }
    static TRow Row() {
        const TRows rows = ReadTable();
        EXPECT_EQ(rows.size(), 1U);
        return rows.empty() ? TRow() : rows.front();
    }
    static void ExpectLine(const std::string& line) {
        EXPECT_EQ(Row().program, RUNNER_PROGRAM);
        EXPECT_EQ(Row().parameters, line);
    }
    static void ExpectPlain(const std::string& program, const std::string& parameter) {
        EXPECT_EQ(Row().program, program);
        EXPECT_EQ(Row().parameters, parameter);
    }
    static json Shown() { return json::parse(Output({"show", "job", "--json"})).at("task"); }
};

}  // namespace

TEST_F(CliJob, IsMadeOfWhatTheTableCannotHold) {
    Create({"--", "/bin/echo", "one"});
    ExpectPlain("/bin/echo", "one");
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"/bin/date"}, "/bin/date"},
        {{"/bin/echo", "one", "two three"}, "/bin/echo one 'two three'"},
        {{"/usr/bin/free", "-m"}, "/usr/bin/free -m"},
        {{"/bin/echo", "--user", "--", ""}, "/bin/echo --user -- ''"},
        {{"/bin/echo", "[a,b]", "{}", "[]"}, "/bin/echo '[a,b]' '{}' '[]'"},
    };
    for (const auto& [command, line] : cases) {
        std::vector<std::string> arguments = {"--replace", "--"};
        arguments.insert(arguments.end(), command.begin(), command.end());
        Create(arguments);
        ExpectLine("--task job -- " + line);
        EXPECT_THAT(Output({"list"}), HasSubstr("  " + line + '\n'));
        EXPECT_THAT(Output({"show", "job"}), HasSubstr("Command      " + line + '\n'));
        EXPECT_EQ(Shown().at("command"), json(command));
        EXPECT_EQ(Shown().at("real_program"), command.front());
    }
    EXPECT_FALSE(fs::exists("files/programs"));
}

TEST_F(CliJob, HasATextOfAShell) {
    Create({"--shell", "echo 'a b' | tr a c; exit 3"});
    ExpectLine(R"(--task job --shell 'echo '\''a b'\'' | tr a c; exit 3')");
    EXPECT_THAT(Output({"show", "job"}), HasSubstr("Shell        echo 'a b' | tr a c; exit 3\n"));
    EXPECT_EQ(Shown().at("shell"), "echo 'a b' | tr a c; exit 3");
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.output, "c b\n");
    EXPECT_EQ(run.status, 3);
}

TEST_F(CliJob, HasOptions) {
    Create({"--timeout", "2h", "--env", "A=1", "--env", "B=x y", "--umask", "027", "--",
            "/bin/echo", "one"});
    ExpectLine("--task job --umask 027 --env A=1 --env 'B=x y' --timeout 2h -- /bin/echo one");
    EXPECT_EQ(Shown().at("options"),
              json::parse(R"({"umask": "027", "env": ["A=1", "B=x y"], "timeout": "2h"})"));
    const std::string shown = Output({"show", "job"});
    for (const char* const line :
         {"--umask      027\n", "--env        A=1\n", "--env        B=x y\n", "--timeout    2h\n"})
        EXPECT_THAT(shown, HasSubstr(line));
    EXPECT_THAT(shown, Not(HasSubstr("--task")));
    EXPECT_EQ(json::parse(Output({"export"})).at("tasks").at(0).at("options"),
              Shown().at("options"));
    EXPECT_EQ(json::parse(Output({"list", "--json"})).at("tasks").at(0).at("options"),
              Shown().at("options"));
}

TEST_F(CliJob, IsEditedOptionByOption) {
    Create({"--timeout", "2h", "--env", "A=1", "--env", "B=2", "--", "/bin/echo", "one", "two"});
    Output({"edit", "job", "--timeout", "3h"});
    ExpectLine("--task job --env A=1 --env B=2 --timeout 3h -- /bin/echo one two");
    Output({"edit", "job", "--env", "C=3"});
    ExpectLine("--task job --env C=3 --timeout 3h -- /bin/echo one two");
    Output({"edit", "job", "--env=D=[4,5]"});
    ExpectLine("--task job --env 'D=[4,5]' --timeout 3h -- /bin/echo one two");
    Output({"edit", "job", "--env", "", "--umask", "22"});
    ExpectLine("--task job --umask 022 --timeout 3h -- /bin/echo one two");
    Output({"edit", "job", "--program", "/bin/printf"});
    ExpectLine("--task job --umask 022 --timeout 3h -- /bin/printf one two");
    Output({"edit", "job", "--shell", "ls"});
    ExpectLine("--task job --umask 022 --timeout 3h --shell ls");
    Output({"edit", "job", "--", "/bin/echo", "one"});
    ExpectLine("--task job --umask 022 --timeout 3h -- /bin/echo one");
    Output({"edit", "job", "--umask", "", "--timeout", ""});
    ExpectPlain("/bin/echo", "one");
    Output({"edit", "job", "--parameter", "two"});
    ExpectPlain("/bin/echo", "two");
}

TEST_F(CliJob, KeepsItsCommandInAnyOtherChange) {
    Create({"--timeout", "2h", "--", "/bin/echo", "one", "two"});
    const std::string line = "--task job --timeout 2h -- /bin/echo one two";
    Output({"edit", "job", "--every", "1d"});
    Output({"pause", "job"});
    Output({"edit", "job", "--at", "in 5h"});
    Output({"resume", "job"});
    ExpectLine(line);
    Output({"edit", "job", "--name", "it's new"});
    ExpectLine(R"(--task 'it'\''s new' --timeout 2h -- /bin/echo one two)");
    EXPECT_EQ(Row().name, "it's new");
}

TEST_F(CliJob, OfADryRunChangesNothing) {
    Create({"--", "/bin/echo", "one", "two"});
    EXPECT_THAT(Output({"edit", "job", "--timeout", "2h", "--dry-run"}), HasSubstr("would change"));
    ExpectLine("--task job -- /bin/echo one two");
}

TEST_F(CliJob, ThatIsWrongIsRefused) {
    WriteTable({Later("job"), {"broken", 4102444800, 0, 24, RUNNER_PROGRAM, "--nonsense", 0}});
    const auto expect = [](int status, const std::string& reason,
                           std::vector<std::string> arguments) {
        ExpectRefused(status, reason, arguments);
        arguments[0] = "create";
        arguments[1] = "new";
        ExpectRefused(status, reason, arguments);
    };
    expect(2, "--timeout \"5\": give a duration from 1s",
           {"edit", "job", "--timeout", "5", "--", "/bin/true"});
    expect(2, "--umask is given twice",
           {"edit", "job", "--umask", "1", "--umask", "2", "--", "/bin/true"});
    expect(2, "give one of", {"edit", "job", "--shell", "ls", "--", "/bin/true"});
    expect(1, "there is no program \"/no/such\"",
           {"edit", "job", "--timeout", "1h", "--", "/no/such"});
    expect(1, "\"ls\" is relative to the working directory",
           {"edit", "job", "--", "ls", "-l", "x"});
    expect(1, "the parameter has ",
           {"edit", "job", "--", "/bin/echo", std::string(131'060, 'a'), "b"});
    expect(1, "--user nobody-here: there is no such user",
           {"edit", "job", "--user", "nobody-here", "--", "/bin/true"});
    expect(1, "--group none-here: there is no such group",
           {"edit", "job", "--group", "none-here", "--", "/bin/true"});
    ExpectRefused(2, "a program after --, or a text by --shell", {"create", "new"});
    ExpectRefused(2, "leaves the task without a program", {"edit", "job", "--shell", ""});
    ExpectRefused(1, "the parameter of task \"broken\" is no job",
                  {"edit", "broken", "--timeout", "2h"});
    EXPECT_THAT(Output({"show", "broken"}), HasSubstr("unknown option \"--nonsense\""));
    EXPECT_THAT(RunTool({"check"}).output, HasSubstr("no-job"));
    Output({"edit", "broken", "--every", "2d"});
    Output({"edit", "broken", "--", "/bin/echo", "one"});
    EXPECT_EQ(ReadTable()[1].program, "/bin/echo");
}

TEST_F(CliJob, OfAnotherUserIsForAStoreOfRoots) {
    Create({"--user", std::to_string(getuid()), "--", "/bin/true"});
    struct stat files {};
    ASSERT_EQ(stat("files", &files), 0);
    const bool isRoot = files.st_uid == 0;
    if (isRoot)
        Output({"edit", "job", "--user", "1", "--group", "1"});
    const auto giveTo = [](uid_t user) {
        for (const char* const path : {".", "files", cTable})
            ASSERT_EQ(chown(path, user, user), 0);
    };
    if (isRoot)
        giveTo(1);
    for (const std::vector<std::string>& option :
         {std::vector<std::string>{"--user", isRoot ? "2" : "0"}, {"--group", "2"}})
        ExpectRefused(1, option[0] + ": the store belongs to user ",
                      {"create", "new", option[0], option[1], "--", "/bin/true"});
    if (isRoot)
        giveTo(0);
}

TEST_F(CliJob, TakesThePlaceOfALinkAtTheNextEdit) {
    WriteTable({{"job", 4102444800, 0, 24, MakeProgramLink("/usr/bin/free", "free-1"), "", 0}});
    EXPECT_THAT(Output({"list"}), HasSubstr("/usr/bin/free"));
    EXPECT_THAT(Output({"show", "job"}), HasSubstr("Program      /usr/bin/free\n"));
    Output({"edit", "job", "--name", "job"});
    EXPECT_THAT(Row().program, HasSubstr("/files/programs/"));
    Output({"edit", "job", "--every", "1d"});
    ExpectLine("--task job -- /usr/bin/free ''");
}

TEST_F(CliJob, IsImportedAsItIsExported) {
    Create({"--timeout", "2h", "--", "/bin/echo", "one", "two"});
    const TRow row = Row();
    WriteFile("export", Output({"export"}));
    WriteTable({});
    Output({"import", "export"});
    EXPECT_EQ(ReadTable(), TRows{row});
}

TEST_F(CliJob, IsLaunchedByTheScheduleWithItsArguments) {
    CHost host;
    Output({"create", "job", "--", "/usr/bin/printf", "<%s>", "a  b", "", "*"});
    WaitUntil([] { return RunTool({"output", "job"}).output == "<a  b><><*>"; });
    WaitUntil([] { return fs::exists(cHistory); });
    const json record = json::parse(Lines(cHistory).at(0));
    EXPECT_EQ(record.at("program"), "/usr/bin/printf");
    EXPECT_EQ(record.at("parameter"), "'<%s>' 'a  b' '' '*'");
    EXPECT_EQ(record.at("trigger"), "schedule");
    EXPECT_EQ(host.Stop(), 0);
}

// The parser would take the -- for the end of a list of values, and the rest for options.
TEST_F(CliJob, OptionBeforeTheSeparatorTakesItsValueAlone) {
    for (const auto& [option, value] : {std::pair("--cron", "1 2 3 4 5"),
                                        {"--env", "A=b"},
                                        {"--force", "past-due"},
                                        {"--mail", "a@example.org"}}) {
        Output({"create", "job", option, value, "--", "/bin/ls", "-l", "--all"});
        EXPECT_THAT(ReadTable()[0].parameters, testing::EndsWith("-- /bin/ls -l --all"));
        Output({"remove", "job", "--even-if-due"});
    }
}
