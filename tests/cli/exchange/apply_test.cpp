// apply: tasks of files under version control.

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;
using testing::Not;

namespace {

class CliApply : public Cli {
protected:
    static TToolRun Apply(const std::string& tasks, const std::vector<std::string>& options = {}) {
        WriteFile("tasks.toml", tasks);
        std::vector<std::string> arguments = {"apply", "tasks.toml", "--even-if-due"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return RunTool(arguments);
    }

    static std::string ExpectApplied(const std::string& tasks,
                                     const std::vector<std::string>& options = {}) {
        const TToolRun run = Apply(tasks, options);
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(run.error, "");
        return run.output;
    }

    // That the file is refused with this message, and nothing is changed.
    static void ExpectWrong(const std::string& tasks, const std::string& message,
                            const std::vector<std::string>& options = {}) {
        const bool hadTable = fs::exists(cTable);
        const std::string before = hadTable ? ReadFile(cTable) : "";
        const TToolRun run = Apply(tasks, options);
        EXPECT_EQ(run.status, 1) << tasks;
        EXPECT_EQ(run.output, "");
        EXPECT_THAT(run.error, HasSubstr("vxsched: tasks.toml:" + message)) << tasks;
        EXPECT_THAT(run.error, HasSubstr("nothing was changed, because of "));
        EXPECT_EQ(fs::exists(cTable), hadTable);
        if (hadTable) {
            EXPECT_EQ(ReadFile(cTable), before);
        }
    }

    static TRow RowOf(const std::string& name) {
        for (const TRow& row : ReadTable()) {
            if (row.name == name)
                return row;
        }
        ADD_FAILURE() << "there is no task " << name;
        return {};
    }

    static bool IsChanged(const TToolRun& run) {
        EXPECT_EQ(run.status, 0) << run.error;
        return json::parse(run.output).at("changed");
    }
};

constexpr char cTwoTasks[] =
    "[tasks.poll]\n"
    "shell = \"cd /srv && ./poll\"\n"
    "every = \"6h\"\n"
    "at = 2030-01-01 10:00:00\n"
    "\n"
    "[tasks.\"nightly backup\"]\n"
    "command = [\"/bin/cp\", \"-a\", \"/home\", \"/backup\"]\n"
    "daily = \"02:30\"\n"
    "timeout = \"2h\"\n";

}  // namespace

TEST_F(CliApply, MakesTheTasksOfAFileOnce) {
    const std::string output = ExpectApplied(cTwoTasks);
    EXPECT_THAT(output, HasSubstr("created poll, every 6h, next due 2030-01-01 10:00:00 "));
    EXPECT_THAT(output, HasSubstr("\n  command: /bin/cp -a /home /backup\n"));
    EXPECT_THAT(output, HasSubstr("\n  timeout: 2h\n"));
    EXPECT_THAT(output, HasSubstr("\n2 created, 0 changed, 0 removed, 0 unchanged\n"));
    EXPECT_EQ(NamesInTable(), "poll nightly backup") << "in the order of the file";
    EXPECT_EQ(RowOf("poll").period, 6U);
    EXPECT_EQ(
        RowOf("nightly backup").parameters,
        "--task 'nightly backup' --cron '30 2 * * *' --timeout 2h -- /bin/cp -a /home /backup");
    const std::string before = ReadFile(cTable);
    EXPECT_EQ(ExpectApplied(cTwoTasks), "0 created, 0 changed, 0 removed, 2 unchanged\n");
    EXPECT_FALSE(IsChanged(Apply(cTwoTasks, {"--json"})));
    EXPECT_EQ(ReadFile(cTable), before);
}

// The keys are the options of create, with the same effect.
TEST_F(CliApply, KeysDoWhatTheOptionsOfCreateDo) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"cron = '5 4 * * sun'", {"--cron", "5 4 * * sun"}},
        {"weekly = 'mon,fri 08:30'", {"--weekly", "mon,fri 08:30"}},
        {"monthly = '1,L 08:30'\nzone = 'Asia/Tokyo'",
         {"--monthly", "1,L 08:30", "--zone", "Asia/Tokyo"}},
        {"every = '15m'", {"--every", "15m"}},
        {"daily = '02:30'\ncatch-up = true", {"--daily", "02:30", "--catch-up"}},
        {"daily = '02:30'\ncatch-up = '6h'", {"--daily", "02:30", "--catch-up=6h"}},
        {"daily = '02:30'\ncatch-up = false", {"--daily", "02:30"}},
        {"daily = '02:30'\nuntil = '2030-01-01 10:00'",
         {"--daily", "02:30", "--until", "2030-01-01 10:00"}},
        {"daily = '02:30'\nuntil = 2030-01-01", {"--daily", "02:30", "--until", "2030-01-01"}},
        {"daily = '02:30'\nuntil = 2030-01-01T10:00:00+05:00",
         {"--daily", "02:30", "--until", "2030-01-01 10:00+05:00"}},
        {"daily = '02:30'\nchdir = '/srv'\numask = '027'\ntimeout = '2h'\nkill-after = '1m'",
         {"--daily", "02:30", "--chdir", "/srv", "--umask", "027", "--timeout", "2h",
          "--kill-after", "1m"}},
        {"daily = '02:30'\nenv = ['A=x y', 'B=']\nenv-file = '/etc/a'",
         {"--daily", "02:30", "--env", "A=x y", "--env", "B=", "--env-file", "/etc/a"}},
        {"daily = '02:30'\nenv-file = ['/etc/a', '/etc/b']\n[tasks.job.env]\nB = '1'\nA = '2'",
         {"--daily", "02:30", "--env", "A=2", "--env", "B=1", "--env-file", "/etc/a", "--env-file",
          "/etc/b"}},
        {"daily = '02:30'\noverlap = 'queue'\nrandom-delay = '10m'\nsuccess = [0, 3]\nretry = 2",
         {"--daily", "02:30", "--overlap", "queue", "--random-delay", "10m", "--success", "0,3",
          "--retry", "2"}},
        {"daily = '02:30'\nsuccess = 3\nretry = '2'\nbackoff = '30s'\nmail = 'root'",
         {"--daily", "02:30", "--success", "3", "--retry", "2", "--backoff", "30s", "--mail",
          "root"}},
        {"daily = '02:30'\non-failure = 'a'\non-success = 'b'\non-recovery = 'c'",
         {"--daily", "02:30", "--on-failure", "a", "--on-success", "b", "--on-recovery", "c"}},
        {"every = '1d'\nat = 2030-01-01T10:00:00Z", {"--every", "1d", "--at", "2030-01-01 10:00Z"}},
        {"at = '2030-01-01 10:00'", {"--at", "2030-01-01 10:00"}},
    };
    for (const auto& [keys, options] : cases) {
        std::vector<std::string> create = {"create", "job"};
        create.insert(create.end(), options.begin(), options.end());
        create.insert(create.end(), {"--", "/bin/echo", "a text"});
        fs::remove(cTable);
        Output(create);
        TRow wanted = RowOf("job");
        fs::remove(cTable);
        const std::string tasks = "[tasks.job]\ncommand = ['/bin/echo', 'a text']\n" + keys + "\n";
        ExpectApplied(tasks);
        EXPECT_EQ(RowOf("job"), wanted) << keys;
        EXPECT_FALSE(IsChanged(Apply(tasks, {"--json"}))) << keys;
    }
}

TEST_F(CliApply, IdentitiesAreOptionsAsWell) {
    const std::string me = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    const std::string tasks =
        fmt::format("[tasks.job]\nshell = 'true'\ndaily = '02:30'\nuser = {}\n{}", me,
                    geteuid() == 0 ? "group = " + group + "\n" : "");
    ExpectApplied(tasks);
    EXPECT_THAT(RowOf("job").parameters, HasSubstr("--user " + me));
    ExpectWrong("[tasks.job]\nshell = 'true'\ndaily = '02:30'\nuser = 'no such user'\n",
                "1:8: task \"job\": --user no such user: there is no such user");
}

TEST_F(CliApply, ChangesAreReportedFieldByField) {
    ExpectApplied(cTwoTasks);
    const std::string changed =
        "[tasks.poll]\nshell = \"cd /srv && ./poll --fast\"\nevery = \"1d\"\n"
        "[tasks.\"nightly backup\"]\n"
        "command = [\"/bin/cp\", \"-a\", \"/home\", \"/backup\"]\n"
        "daily = \"03:30\"\nretry = 2\n";
    const std::string before = ReadFile(cTable);
    const std::string would = ExpectApplied(changed, {"--dry-run"});
    EXPECT_THAT(would, HasSubstr("would change poll, every 1d"));
    EXPECT_EQ(ReadFile(cTable), before);
    const TToolRun dry = Apply(changed, {"--dry-run", "--json"});
    EXPECT_TRUE(IsChanged(dry));
    EXPECT_EQ(ReadFile(cTable), before);
    const std::string output = ExpectApplied(changed);
    EXPECT_THAT(output, HasSubstr("\n  shell: cd /srv && ./poll -> cd /srv && ./poll --fast\n"
                                  "  every: 6h -> 1d\n"));
    EXPECT_THAT(output, HasSubstr("\n  cron: 30 2 * * * -> 30 3 * * *\n"
                                  "  timeout: 2h -> none\n"
                                  "  retry: none -> 2\n"));
    EXPECT_EQ(RowOf("poll").period, 24U);
    const json task = json::parse(dry.output).at("tasks").at(1);
    EXPECT_EQ(task.at("name"), "nightly backup");
    EXPECT_EQ(task.at("change"), "edit");
    EXPECT_EQ(task.at("fields").at("timeout"), (json{{"before", "2h"}, {"after", nullptr}}));
    EXPECT_EQ(task.at("fields").at("retry"), (json{{"before", nullptr}, {"after", "2"}}));
    EXPECT_EQ(json::parse(dry.output).at("dry_run"), true);
    EXPECT_FALSE(IsChanged(Apply(changed, {"--json"})));
}

TEST_F(CliApply, DefaultsAreForAllTasksThatHaveNoneOfTheirOwn) {
    const std::string tasks =
        "[tasks.a]\nshell = 'a'\ndaily = '02:30'\nmail = 'ops'\n"
        "[tasks.b]\nshell = 'b'\nevery = '6h'\nat = 2030-01-01\nmail = ''\ntimeout = '1h'\n"
        "[tasks.b.env]\nA = 'own'\nC = '3'\n"
        "[defaults]\nzone = 'Asia/Tokyo'\nmail = 'root'\ntimeout = '2h'\nenv = ['A=1', 'B=2']\n";
    ExpectApplied(tasks);
    EXPECT_EQ(RowOf("a").parameters,
              "--task a --cron '30 2 * * *' --zone Asia/Tokyo --env A=1 --env B=2 --timeout 2h "
              "--mail ops --shell a");
    EXPECT_EQ(RowOf("b").parameters,
              "--task b --env B=2 --env A=own --env C=3 --timeout 1h --shell b")
        << "without the calendar's zone";
    EXPECT_FALSE(IsChanged(Apply(tasks, {"--json"})));
}

TEST_F(CliApply, WhatWasDoneByHandStays) {
    ExpectApplied(cTwoTasks);
    TRows rows = ReadTable();
    rows[0].paused = 1;
    rows[0].last = 1'795'000'000;
    rows[1].last = 1'795'000'001;
    WriteTable(rows);
    EXPECT_FALSE(IsChanged(Apply(cTwoTasks, {"--json"})));
    EXPECT_EQ(ReadTable(), rows);
    ExpectApplied("[tasks.poll]\nshell = 'other'\nevery = '6h'\n");
    EXPECT_EQ(RowOf("poll").paused, 1U);
    EXPECT_EQ(RowOf("poll").last, 1'795'000'000);
}

TEST_F(CliApply, PauseThatTheFileNamesIsMade) {
    const std::string task = "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n";
    EXPECT_THAT(ExpectApplied(task + "paused = true\n"), HasSubstr("\n  paused: true\n"));
    EXPECT_EQ(RowOf("a").paused, 1U);
    EXPECT_FALSE(IsChanged(Apply(task + "paused = true\n", {"--json"})));
    EXPECT_FALSE(IsChanged(Apply(task, {"--json"})));
    EXPECT_THAT(ExpectApplied(task + "paused = false\n"), HasSubstr("\n  paused: true -> false\n"));
    EXPECT_EQ(RowOf("a").paused, 0U);
}

// ---- Times ------------------------------------------------------------------------------------------

TEST_F(CliApply, TimeOfARepeatingTaskIsOneOfItsGrid) {
    const std::string task = "[tasks.a]\nshell = 'a'\nevery = '6h'\nat = ";
    ExpectApplied(task + "2026-11-01T02:30:00Z\n");
    const std::int64_t first = 1793500200;  // that time
    EXPECT_EQ((RowOf("a").next - first) % (6 * cHour), 0);
    EXPECT_GE(RowOf("a").next, std::time(nullptr));
    TRows rows = ReadTable();
    rows[0].next += 18 * cHour;
    WriteTable(rows);
    EXPECT_FALSE(IsChanged(Apply(task + "2026-11-01T02:30:00Z\n", {"--json"})));
    ExpectApplied(task + "2026-11-01T02:31:00Z\n");
    EXPECT_EQ((RowOf("a").next - first) % (6 * cHour), 60);
    ExpectApplied(task + "2030-01-01T02:31:00Z\n");
    EXPECT_EQ(RowOf("a").next, 1893465060) << "a time to come is the first one";
    EXPECT_FALSE(IsChanged(Apply(task + "2030-01-01T02:31:00Z\n", {"--json"})));
}

// A file keeps such a task; it must not be launched again.
TEST_F(CliApply, TaskWhoseOnlyTimeIsPastIsNotMadeAgain) {
    const std::string past = "[tasks.a]\nshell = 'a'\nat = 2026-11-01T02:30:00Z\n";
    const TToolRun run = Apply(past, {"--json"});
    EXPECT_FALSE(IsChanged(run));
    EXPECT_EQ(json::parse(run.output).at("tasks").at(0).at("change"), "past");
    EXPECT_FALSE(IsChanged(
        Apply("[tasks.a]\nshell = 'a'\ndaily = '02:30'\nuntil = 2026-11-01\n", {"--json"})));
    EXPECT_FALSE(fs::exists(cTable));
    ExpectApplied("[tasks.a]\nshell = 'a'\nat = 2030-01-01\n");
    EXPECT_FALSE(IsChanged(Apply(past, {"--json"}))) << "it stays as somebody has armed it";
}

TEST_F(CliApply, TimesThatDependOnTheMomentAreRefused) {
    for (const std::string time : {"now", "in 3h", "+90m", "tomorrow", "14:30", "friday 02:00"})
        ExpectWrong("[tasks.a]\nshell = 'a'\nevery = '1d'\nat = '" + time + "'\n",
                    "4:6: task \"a\": at: \"" + time + "\" depends on when the file is applied");
    ExpectWrong("[tasks.a]\nshell = 'a'\ndaily = '02:30'\nuntil = 'tomorrow'\n",
                "4:9: task \"a\": until: \"tomorrow\" depends on when");
}

TEST_F(CliApply, CalendarBecomesAPeriodAndBack) {
    const std::string calendar = "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n";
    const std::string period = "[tasks.a]\nshell = 'a'\nevery = '6h'\nat = 2030-01-01T10:00:00Z\n";
    ExpectApplied(calendar);
    const std::string output = ExpectApplied(period);
    EXPECT_THAT(output, HasSubstr("\n  cron: 30 2 * * * -> none\n"));
    EXPECT_THAT(output, HasSubstr("\n  every: none -> 6h\n"));
    EXPECT_EQ(RowOf("a").period, 6U);
    EXPECT_EQ(RowOf("a").next, 1893492000);
    EXPECT_FALSE(IsChanged(Apply(period, {"--json"})));
    ExpectApplied(calendar);
    EXPECT_THAT(RowOf("a").parameters, HasSubstr("--cron '30 2 * * *'"));
    EXPECT_EQ(RowOf("a").period, 1U);
    EXPECT_LT(RowOf("a").next, std::time(nullptr) + 26 * cHour);
    EXPECT_FALSE(IsChanged(Apply(calendar, {"--json"})));
}

// ---- What is wrong ----------------------------------------------------------------------------------

TEST_F(CliApply, WrongTaskKeepsAllFromBeingChanged) {
    ExpectApplied(cTwoTasks);
    const std::string good = "[tasks.new]\nshell = 'a'\ndaily = '02:30'\n";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"timout = '2h'", "6:1: unknown key \"timout\" (did you mean timeout?)"},
        {"timeout = 'soon'", "6:11: --timeout \"soon\": "},
        {"timeout = [1]", "6:11: timeout: expected a string, not an array"},
        {"retry = 2.5", "6:9: retry: expected a string, not a floating-point number"},
        {"umask = 0o27", "6:9: umask: expected a string, not an integer"},
        {"env = {A = 1}", "6:12: env: expected a string, not an integer"},
        {"env = 'A=1'", "6:7: env: expected an array of strings, not a string"},
        {"env = {\"A=B\" = 'x'}", "6:16: env: \"A=B\" is no name of a variable"},
        {"at = 5", "6:6: at: expected a date and a time, not an integer"},
        {"env = ['A']", "6:7: --env \"A\": give NAME=VALUE"},
        {"success = ['a']", "6:12: success: expected an integer, not a string"},
        {"paused = 'yes'", "6:10: paused: expected true or false, not a string"},
        {"every = '6'", "6:9: task \"b\": cannot read the period \"6\""},
        {"daily = '25:30'", "6:9: task \"b\": --daily: "},
        {"daily = '02:30'\nweekly = 'mon 02:30'", "7:10: task \"b\": two calendars"},
        {"daily = '02:30'\nevery = '6h'", "6:9: task \"b\": --every and a calendar"},
        {"daily = '02:30'\nzone = 'Nowhere'", "7:8: task \"b\": "},
        {"cron = '0/5'", "6:8: --cron \"0/5\": "},
        {"command = ['/bin/true']", "4:8: task \"b\": it has command and shell"},
        {"at = 'never'", "6:6: task \"b\": cannot read the time \"never\""},
        {"name = 'c'", "6:1: unknown key \"name\""},
        {"task = 'c'", "6:1: unknown key \"task\""},
        {"", "4:8: task \"b\": it has no schedule"},
    };
    for (const auto& [keys, message] : cases)
        ExpectWrong(good + "[tasks.b]\nshell = 'b'\n" + keys + "\n", message);
    ExpectWrong(good + "[tasks.b]\ndaily = '02:30'\n",
                "4:8: task \"b\": it has neither command nor shell");
    ExpectWrong(good + "[tasks.b]\ndaily = '02:30'\ncommand = '/bin/true'\n",
                "6:11: command: expected an array of strings, not a string");
    ExpectWrong(good + "[tasks.b]\ndaily = '02:30'\ncommand = []\n",
                "4:8: task \"b\": it has neither command nor shell");
    ExpectWrong(good + "[b]\nshell = 'b'\n", "4:2: write [tasks.b] for a task, not [b]");
    ExpectWrong("shell = 'b'\n" + good, "1:1: \"shell\" is in no table");
    ExpectWrong("tasks = 1\n", "1:9: tasks: expected tables, as [tasks.backup], not an integer");
    ExpectWrong("[[tasks.a]]\nshell = 'b'\n",
                "1:9: a: expected a table, as [tasks.backup], not an");
    ExpectWrong(good + "[defaults]\ndaily = '02:30'\n", "5:1: daily is no default");
    ExpectWrong("defaults = 1\n", "1:12: defaults: expected a table, [defaults], not an integer");
    ExpectWrong(good + good, "4:1: ");
    ExpectWrong("[tasks.'']\nshell = 'a'\ndaily = '02:30'\n", "1:8: task \"\": ");
    ExpectWrong("[tasks.\"a\\u0000b\"]\nshell = 'a'\ndaily = '02:30'\n", "1:8: task \"a");
    ExpectWrong("[tasks.a]\nshell = \"a\\u0000b\"\ndaily = '02:30'\n", "2:9: --shell ");
}

TEST_F(CliApply, EachErrorIsReported) {
    const TToolRun run = Apply("[tasks.a]\nshel = 'a'\n[tasks.b]\nshell = 1\ntimeout = 'x'\n");
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, HasSubstr("tasks.toml:2:1: unknown key \"shel\""));
    EXPECT_THAT(run.error, HasSubstr("tasks.toml:5:11: --timeout \"x\""));
    EXPECT_THAT(run.error, HasSubstr("nothing was changed, because of 4 errors\n"));
}

TEST_F(CliApply, ChecksOfProgramsCanBeForced) {
    const std::string tasks = "[tasks.a]\ncommand = ['/no/such', 'x']\nevery = '1d'\n";
    ExpectWrong(tasks, "1:8: task \"a\": there is no program \"/no/such\"");
    EXPECT_THAT(Apply(tasks).error, HasSubstr("(or --force missing-program)"));
    ExpectApplied(tasks, {"--force", "missing-program"});
    EXPECT_EQ(RowOf("a").program, "/no/such");
}

TEST_F(CliApply, BadInputIsRefusedWithItsPlace) {
    ExpectApplied(cTwoTasks);
    const std::string good = "[tasks.new]\nshell = 'a'\ndaily = '02:30'\n";
    ExpectWrong(std::string("\xff\xfe[\0t\0", 6), "1:1: ");
    ExpectWrong(good + "# caf\xe9\n", "4:5: ");
    ExpectWrong(good + "[tasks.\xff]\n", "4:7: ");
    ExpectWrong(good + "[tasks.caf\xc3\xa9]\n", "4:11: ");
    ExpectWrong(good + "x = 1\xcd\xa2\n", "4:");
    ExpectWrong(good + std::string("x\0", 2), "4:");
    ExpectWrong(good + "timeout = \n", "4:11: ");
    ExpectWrong(good + "timeout = '2h\n", "4:");
    ExpectWrong(good + "env = " + std::string(100'000, '['), "4:");
    std::string deep = "a";
    for (int part = 0; part < 200'000; ++part)
        deep += ".a";
    ExpectWrong(good + deep + " = 1\n", "4:32: a key with more than 16 parts");
    ExpectWrong(good + "[" + deep + "]\n", "4:33: a key with more than 16 parts");
    ExpectWrong("[tasks.new]\nx = '''a''''''b'''\n" + deep + " = 1\n", "");
    // What is in a string or in a comment is no key.
    ExpectApplied("# " + deep +
                  "\n[tasks.poll]\nevery = '6h'\nshell = \"\"\"a.b.c.d.e.f.g.h.i.j.k."
                  "l.m.n.o.p.q.r\"\"\"\nenv = ['A=" +
                  std::string(100'000, '.') + "']\n");
    ExpectWrong(good + std::string(1 << 20, 'k') + " = 1\n", "4:1: unknown key");
    WriteFile("tasks.toml", std::string((16 << 20) + 1, '#'));
    ExpectRefused(1, "cannot apply tasks.toml: it has more than 16 MiB", {"apply", "tasks.toml"});
    WriteFile("tasks.toml", "");
    ExpectRefused(1, "cannot apply tasks.toml: it is empty", {"apply", "tasks.toml"});
    ExpectRefused(1, "cannot apply gone: No such file", {"apply", "gone"});
    ExpectRefused(2, "file is required", {"apply"});
}

// ---- Several files, and what is gone from them --------------------------------------------------------

TEST_F(CliApply, DirectoryIsOneChangeOfItsFiles) {
    fs::create_directory("tasks.d");
    ExpectRefused(1, "tasks.d has no file of tasks", {"apply", "tasks.d"});
    WriteFile("tasks.d/b.toml", "[tasks.b]\nshell = 'b'\ndaily = '02:30'\n");
    WriteFile("tasks.d/a.toml",
              "[defaults]\nmail = 'root'\n[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    WriteFile("tasks.d/README", "no TOML");
    WriteFile("tasks.d/.a.toml", "hidden");
    Output({"apply", "tasks.d"});
    EXPECT_EQ(NamesInTable(), "a b");
    EXPECT_THAT(RowOf("b").parameters, Not(HasSubstr("--mail"))) << "defaults are their file's";
    WriteFile("tasks.d/c.toml",
              "[tasks.c]\nshell = 'c'\ndaily = '02:30'\n[tasks.a]\nshell = 'x'\n");
    ExpectRefused(1, "tasks.d/c.toml:4:8: task \"a\": the task is in tasks.d/a.toml:3:8 already",
                  {"apply", "tasks.d"});
    fs::remove("tasks.d/c.toml");
    ASSERT_EQ(mkfifo("tasks.d/c.toml", 0600), 0);
    ExpectRefused(1, "tasks.d/c.toml is no file", {"apply", "tasks.d"});
    fs::remove("tasks.d/c.toml");
    fs::remove("tasks.d/b.toml");
    EXPECT_THAT(Output({"apply", "tasks.d/"}),
                HasSubstr("1 task made from it is not in it any more; --prune removes it\n"));
    EXPECT_THAT(Output({"apply", "--prune", "--dry-run", "tasks.d/"}), HasSubstr("would remove b"));
    EXPECT_EQ(NamesInTable(), "a b");
    EXPECT_THAT(Output({"apply", "--prune", "tasks.d/"}), HasSubstr("removed b\n"));
    EXPECT_EQ(NamesInTable(), "a");
    EXPECT_THAT(Output({"apply", "--prune", "tasks.d"}), Not(HasSubstr("b")));
}

TEST_F(CliApply, StandardInputIsAFile) {
    EXPECT_EQ(RunTool({"apply", "-"}, {}, cTwoTasks).status, 0);
    EXPECT_EQ(NamesInTable(), "poll nightly backup");
    const TToolRun run = RunTool({"apply", "-"}, {}, "x");
    EXPECT_THAT(run.error, HasSubstr("vxsched: standard input:1:"));
    ExpectRefused(2, "give a file, not -", {"apply", "--prune", "-"});
    EXPECT_FALSE(fs::exists("files/applied"));
}

TEST_F(CliApply, PruneRemovesOnlyWhatThatFileHasMade) {
    const std::string gone = "[tasks.gone]\nshell = 'g'\ndaily = '02:30'\n";
    const std::string stays = "[tasks.stays]\nshell = 's'\ndaily = '02:30'\n";
    const std::string found = "[tasks.found]\nshell = 'f'\ndaily = '02:30'\n";
    const std::string edited = "[tasks.edited]\nshell = 'e'\ndaily = '02:30'\n";
    Output({"create", "by hand", "--daily", "02:30", "--shell", "h"});
    Output({"create", "found", "--daily", "02:30", "--shell", "f"});
    WriteFile("other.toml", "[tasks.other]\nshell = 'o'\ndaily = '02:30'\n");
    Output({"apply", "other.toml"});
    ExpectApplied(gone + stays + found + edited);
    Output({"edit", "edited", "--timeout", "1h"});
    Output({"pause", "gone"});
    const std::string kept = ExpectApplied(stays, {"--prune"});
    EXPECT_THAT(kept, HasSubstr("removed gone\n"));
    EXPECT_THAT(kept, HasSubstr("left edited\n  timeout: none -> 1h\n"));
    EXPECT_THAT(kept, HasSubstr("remove it by vxsched remove edited\n"));
    EXPECT_EQ(NamesInTable(), "by hand found other stays edited");
    // Another of the same name, made after the file's was removed.
    ExpectApplied(gone + stays);
    Output({"remove", "gone"});
    Output({"create", "gone", "--daily", "02:30", "--shell", "another"});
    EXPECT_FALSE(IsChanged(Apply(stays, {"--prune", "--json"})));
    EXPECT_THAT(NamesInTable(), HasSubstr("gone"));
    // Once a task of the file is gone, one that is made later is another's, also if it is the same.
    ExpectApplied("[tasks.back]\nshell = 'b'\ndaily = '02:30'\n" + stays);
    Output({"remove", "back"});
    ExpectApplied(stays);
    Output({"create", "back", "--daily", "02:30", "--shell", "b"});
    EXPECT_FALSE(IsChanged(Apply(stays, {"--prune", "--json"})));
}

TEST_F(CliApply, PruneFindsWhatWasMadeBeforeTheLastApply) {
    const std::string gone = "[tasks.gone]\nshell = 'g'\ndaily = '02:30'\n";
    const std::string stays = "[tasks.stays]\nshell = 's'\ndaily = '02:30'\n";
    ExpectApplied(gone + stays);
    ExpectApplied(stays);
    ExpectApplied(stays + "timeout = '1h'\n");
    EXPECT_TRUE(IsChanged(Apply(stays, {"--prune", "--json"})));
    EXPECT_EQ(NamesInTable(), "stays");
}

// Without the record nothing is made that a prune could not find.
TEST_F(CliApply, NothingIsMadeThatCannotBeRecorded) {
    WriteFile("files/applied", "in the way");
    const TToolRun run = Apply(cTwoTasks);
    EXPECT_EQ(run.status, 1) << run.error;
    EXPECT_THAT(run.error, HasSubstr("files/applied"));
    EXPECT_FALSE(fs::exists(cTable));
    fs::remove("files/applied");
    ExpectApplied(cTwoTasks);
    const fs::path record = fs::directory_iterator("files/applied")->path();
    WriteFile(record, "damaged");
    const TToolRun damaged = Apply(cTwoTasks, {"--prune"});
    EXPECT_EQ(damaged.status, 1);
    EXPECT_THAT(damaged.error, HasSubstr("the record of what was made of that file, is damaged"));
}

// What is made by hand later is not the file's.
TEST_F(CliApply, RefusedApplyRecordsNothing) {
    Output({"create", "due", "--every", "1d", "--shell", "d"});
    const std::string task = "[tasks.y]\nshell = 'y'\ndaily = '02:30'\n";
    WriteFile("tasks.toml", task);
    ExpectRefused(6, "task \"due\" is due", {"apply", "tasks.toml"});
    EXPECT_TRUE(fs::is_empty("files/applied"));
    Output({"remove", "due", "--even-if-due"});
    Output({"create", "y", "--daily", "02:30", "--shell", "y"});
    EXPECT_FALSE(IsChanged(Apply("# nothing\n", {"--prune", "--json"})));
    EXPECT_EQ(NamesInTable(), "y");
}

// Of a change whose end is not known, as after a kill.
TEST_F(CliApply, RecordThatWasLeftHalfWayCounts) {
    const std::string kept = "[tasks.kept]\nshell = 'k'\ndaily = '02:30'\n";
    ExpectApplied(kept + "[tasks.old]\nshell = 'o'\ndaily = '02:30'\n");
    const fs::path record = fs::directory_iterator("files/applied")->path();
    fs::copy(record, record.string() + "%next");
    ExpectApplied(kept + "[tasks.new]\nshell = 'n'\ndaily = '02:30'\n");
    EXPECT_FALSE(fs::exists(record.string() + "%next"));
    EXPECT_TRUE(IsChanged(Apply(kept, {"--prune", "--json"})));
    EXPECT_EQ(NamesInTable(), "kept");
}

TEST_F(CliApply, FilesCanBeAppliedAtTheSameTime) {
    constexpr int cFiles = 4;
    const auto applyAll = [](const std::string& end, const std::vector<std::string>& options) {
        std::vector<std::unique_ptr<CProgram>> tools;
        for (int file = 0; file < cFiles; ++file) {
            const std::string name = fmt::format("{}.toml", file);
            WriteFile(name, "[tasks.shared]\nshell = 's'\ndaily = '02:30'\n" +
                                (end.empty() ? "" : fmt::format("[tasks.t{}]\n{}", file, end)));
            std::vector<std::string> command = {TOOL_PROGRAM, "apply", name};
            command.insert(command.end(), options.begin(), options.end());
            tools.push_back(std::make_unique<CProgram>(command));
        }
        for (const auto& tool : tools)
            EXPECT_EQ(tool->Wait(), 0) << tool->Output();
    };
    for (int round = 0; round < 3; ++round) {
        applyAll("shell = 't'\ndaily = '02:30'\n", {});
        EXPECT_EQ(ReadTable().size(), 5U);
        applyAll("", {"--prune"});
        EXPECT_EQ(NamesInTable(), "shared");
    }
}

TEST_F(CliApply, FileIsTheSameByAnyPathToIt) {
    fs::create_directory("sub");
    ExpectApplied("[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    WriteFile("tasks.toml", "# nothing\n");
    EXPECT_THAT(Output({"apply", "sub/../tasks.toml", "--prune"}), HasSubstr("removed a\n"));
}

TEST_F(CliApply, TaskThatIsOverStaysAsItIs) {
    ExpectApplied("[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    const TRows rows = ReadTable();
    EXPECT_FALSE(IsChanged(
        Apply("[tasks.a]\nshell = 'b'\ndaily = '02:30'\nuntil = 2020-01-01\n", {"--json"})));
    EXPECT_EQ(ReadTable(), rows);
    ExpectApplied("[tasks.a]\nshell = 'a'\nevery = '6h'\nat = 2090-01-01\n");
    ExpectWrong("[tasks.a]\nshell = 'a'\nevery = '6h'\nuntil = 2080-01-01\n",
                "1:8: task \"a\": task \"a\" would never be launched");
}

TEST_F(CliApply, DryRunRecordsNothing) {
    ExpectApplied(cTwoTasks, {"--dry-run"});
    EXPECT_FALSE(fs::exists(cTable));
    EXPECT_FALSE(fs::exists("files/applied"));
}
