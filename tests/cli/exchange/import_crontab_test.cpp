// import --crontab: jobs of crontabs become tasks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class CliImportCrontab : public Cli {
protected:
    static TToolRun Import(const std::string& crontab,
                           const std::vector<std::string>& options = {}) {
        WriteFile("tab", crontab);
        std::vector<std::string> arguments = {"import", "--crontab", "tab"};
        arguments.insert(arguments.end(), options.begin(), options.end());
        return RunTool(arguments);
    }

    static void ExpectImported(const std::string& crontab,
                               const std::vector<std::string>& options = {}) {
        const TToolRun run = Import(crontab, options);
        EXPECT_EQ(run.status, 0) << run.error;
    }

    // The jobs of the table by their names, without the home directory.
    static std::map<std::string, std::string> Jobs() {
        std::map<std::string, std::string> jobs;
        for (const TRow& row : ReadTable()) {
            std::string job = row.parameters;
            const std::string home = " --chdir " + HomeOfUser() + ' ';
            if (const std::size_t place = job.find(home); place != std::string::npos)
                job.erase(place, home.size() - 1);
            jobs[row.name] = job;
        }
        return jobs;
    }

    static std::string HomeOfUser() {
        const passwd* const user = getpwuid(geteuid());
        return user != nullptr ? user->pw_dir : "/";
    }
};

}  // namespace

TEST_F(CliImportCrontab, EachLineBecomesATask) {
    ExpectImported(
        "MAILTO=ops@example.org\n"
        "# The nightly backup\n"
        "30 2 * * *\t/srv/backup --all \\% >/dev/null\n"
        "MAILTO=\"\"\n"
        "SHELL=/bin/bash\n"
        "A=x y\n"
        "*/5 * * * * cd /srv && ./poll\n"
        "@reboot cat%in%put\n");
    EXPECT_EQ(Jobs(),
              (std::map<std::string, std::string>{
                  {"The nightly backup",
                   "--task 'The nightly backup' --cron '30 2 * * *' --mail ops@example.org "
                   "--shell '/srv/backup --all % >/dev/null'"},
                  {"poll",
                   "--task poll --cron '*/5 * * * *' --env 'A=x y' --env SHELL=/bin/bash -- "
                   "/bin/bash -c 'cd /srv && ./poll'"},
                  {"cat",
                   "--task cat --cron @reboot --env 'A=x y' --env SHELL=/bin/bash --shell 'printf "
                   "%s '\\''in\nput\n'\\'' | /bin/bash -c cat'"}}));
    EXPECT_EQ(ReadTable()[0].period, 1U);
}

TEST_F(CliImportCrontab, ASecondTimeChangesNothing) {
    const std::string crontab = "# job\n1 2 * * * a\n# job\n1 3 * * * b\n1 4 * * * /srv/c\n";
    ExpectImported(crontab);
    EXPECT_EQ(NamesInTable(), "job job-2 c");
    Output({"pause", "job"});
    const std::string before = ReadFile(cTable);
    const TToolRun again = Import(crontab);
    EXPECT_EQ(again.status, 0);
    EXPECT_EQ(again.output, "0 tasks, 3 unchanged\n");
    EXPECT_EQ(ReadFile(cTable), before);
}

TEST_F(CliImportCrontab, ChangedLinesAreMergedIfThatIsAsked) {
    ExpectImported("1 2 * * * /srv/a\n1 3 * * * /srv/b\n");
    Output({"pause", "a"});
    const std::string changed = "5 2 * * * /srv/a\n1 3 * * * /srv/b\n1 4 * * * /srv/c\n";
    WriteFile("tab", changed);
    ExpectRefused(1, "there is another task \"a\"; use --merge", {"import", "--crontab", "tab"});
    ExpectImported(changed, {"--merge"});
    EXPECT_EQ(NamesInTable(), "a b c");
    EXPECT_THAT(Jobs()["a"], HasSubstr("--cron '5 2 * * *'"));
    EXPECT_EQ(ReadTable()[0].paused, 1U);
}

TEST_F(CliImportCrontab, WrongLinesAreListedAndNothingIsImported) {
    const std::string crontab = "A=\n1 2 * * * /srv/a\n0/5 * * * * /srv/b\n1 3 * * * /srv/c";
    const TToolRun run = Import(crontab);
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, HasSubstr("vxsched: tab:1: "));
    EXPECT_THAT(run.error, HasSubstr("vxsched: tab:3: "));
    EXPECT_THAT(run.error, HasSubstr("vxsched: tab:4: the last line has no line end"));
    EXPECT_THAT(run.error, HasSubstr("nothing was imported, since 3 lines cannot be kept"));
    EXPECT_FALSE(std::filesystem::exists(cTable));
    ExpectImported(crontab, {"--partial"});
    EXPECT_EQ(NamesInTable(), "a");
}

TEST_F(CliImportCrontab, DryRunShowsTasksAndLaunches) {
    const TToolRun run = Import("30 2 * * * /srv/a\n", {"--dry-run", "--utc"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, StartsWith("would import a, by the calendar 30 2 * * *, next due "));
    EXPECT_THAT(run.output, HasSubstr("\nthen "));
    EXPECT_FALSE(std::filesystem::exists(cTable));
}

TEST_F(CliImportCrontab, WarningsDoNotKeepItFromBeingImported) {
    const TToolRun run = Import("1 2 * * * nobody /srv/a\n30 2 31 2 * /srv/never\n");
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.error, HasSubstr("vxsched: warning: tab:1: the command begins with the name"));
    EXPECT_THAT(run.error, HasSubstr("vxsched: warning: tab:2: "));
    EXPECT_EQ(ReadTable().size(), 1U);
}

TEST_F(CliImportCrontab, WaitsForDueTasksAsAnyChange) {
    WriteTable({{"due", cNow - 30 * cDay, 0, 24, cRecorder, "", 0}});
    WriteFile("tab", "1 2 * * * /srv/a\n");
    ExpectRefused(6, "(--even-if-due)", {"import", "--crontab", "tab"});
    ExpectImported("1 2 * * * /srv/a\n", {"--even-if-due"});
    EXPECT_EQ(NamesInTable(), "due a");
}

TEST_F(CliImportCrontab, OfTheSystemHasUsers) {
    const std::string user = std::to_string(geteuid());
    std::filesystem::create_directory("cron.d");
    WriteFile("cron.d/first", "HOME=/srv\n1 2 * * * " + user + " /srv/a\n");
    WriteFile("cron.d/second", "1 3 * * * " + user + " /srv/a\n");
    WriteFile("cron.d/ignored.dpkg-old", "wrong\n");
    const TToolRun run = RunTool({"import", "--crontab", "cron.d", "--system"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(NamesInTable(), "a a-2");
    EXPECT_EQ(Jobs()["a"], "--task a --cron '1 2 * * *' --user " + user +
                               " --chdir /srv --env HOME=/srv --shell /srv/a");
    WriteFile("cron.d/second", "1 3 * * * no-such-user /srv/a\n");
    ExpectRefused(1, "cron.d/second:1: there is no user \"no-such-user\"",
                  {"import", "--crontab", "cron.d", "--system", "--merge"});
}

TEST_F(CliImportCrontab, OfAUserRunsAsThatOne) {
    ExpectImported("1 2 * * * /srv/a\n", {"--user", std::to_string(geteuid())});
    EXPECT_EQ(Jobs()["a"], "--task a --cron '1 2 * * *' --user " + std::to_string(geteuid()) +
                               " --shell /srv/a");
    WriteFile("tab", "1 3 * * * /srv/b\n");
    ExpectRefused(1, "tab:1: --user no-such-user: there is no such user",
                  {"import", "--crontab", "tab", "--user", "no-such-user"});
}

TEST_F(CliImportCrontab, OfCronieHasZones) {
    ExpectImported("CRON_TZ=Asia/Tokyo\n30 2 * * * /srv/a\n", {"--dialect", "cronie"});
    EXPECT_EQ(Jobs()["a"], "--task a --cron '30 2 * * *' --zone Asia/Tokyo --shell /srv/a");
    WriteFile("tab", "CRON_TZ=No/Where\n30 2 * * * /srv/b\n");
    ExpectRefused(1, "tab:2: ", {"import", "--crontab", "tab", "--dialect", "cronie"});
}

TEST_F(CliImportCrontab, OptionsAreThoseOfACrontab) {
    for (const char* const option : {"--system", "--partial"})
        ExpectRefused(2, "requires --crontab", {"import", "-", option});
    ExpectRefused(2, "--system", {"import", "--crontab", "-", "--system", "--user", "root"});
    ExpectRefused(2, "--crontab", {"import", "--crontab", "-", "--replace"});
    ExpectRefused(2, "expected debian or cronie", {"import", "--crontab", "-", "--dialect", "x"});
    ExpectRefused(1, "cannot import no-such-file: ", {"import", "--crontab", "no-such-file"});
}

// What the commands do is what they did under cron.
TEST_F(CliImportCrontab, TasksDoWhatTheLinesDid) {
    ExpectImported("A=of the environment\n@reboot cat; echo \"$A\" \\%%one%two\n");
    const TToolRun run = RunTool({"run", "cat", "--wait"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.output.substr(run.output.find("one")), "one\ntwo\nof the environment %\n")
        << run.output;
}
