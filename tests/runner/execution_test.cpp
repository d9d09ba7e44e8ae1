// As whom, where and with what vxrun executes the program of a job.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "GroupStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "runner/CLaunchError.h"
#include "runner/Execution.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

constexpr char cPath[] = "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

class Execution : public testing::Test {
protected:
    Execution() {
        fs::remove_all("files");
        fs::create_directory("files");
        for (const char* const variable : {"VXSCHED_TASK", "VXSCHED_DUE", "LANG", "TZ"})
            unsetenv(variable);
    }

    // What a job with these options writes, which ends well.
    static std::string Run(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {RUNNER_PROGRAM, "--task", "job"});
        CProgram runner(arguments);
        EXPECT_EQ(runner.Wait(), 0) << runner.Output();
        return runner.Output();
    }

    // Why a job with these options is not started; it is also what is recorded.
    static std::string Refusal(std::vector<std::string> options) {
        options.insert(options.begin(), {RUNNER_PROGRAM, "--task", "job"});
        options.insert(options.end(), {"--", "/usr/bin/touch", fs::absolute("started")});
        CProgram runner(options);
        EXPECT_EQ(runner.Wait(), 127) << runner.Output();
        EXPECT_FALSE(fs::exists("started"));
        const std::vector<TRunRecord> runs = vxsched::ReadHistory(".", "job").runs;
        if (runs.empty() || runs.back().outcome != TRunRecord::cNotStarted)
            return "not recorded: " + runner.Output();
        EXPECT_EQ(runner.Output(), "vxrun: " + runs.back().error + '\n');
        EXPECT_TRUE(!fs::exists("files/running") || fs::is_empty("files/running"));
        return runs.back().error;
    }

    static std::vector<std::string> SortedLines(const std::string& text) {
        std::istringstream stream(text);
        std::vector<std::string> lines;
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
        std::sort(lines.begin(), lines.end());
        return lines;
    }

    static std::string MakeVariables(const std::string& content, mode_t mode = 0600) {
        fs::remove("variables");
        WriteFile("variables", content);
        chmod("variables", mode);
        return fs::absolute("variables");
    }
};

}  // namespace

// ---- The environment --------------------------------------------------------------------------

TEST_F(Execution, EnvironmentIsThatOfCronAndWhatTheJobNames) {
    for (const char* const variable : {"OTHER", "LANG", "TZ", "VXSCHED_DUE"})
        setenv(variable, "7", 1);
    const std::string output = Run({"--env", "A=1", "--env", "A=2 3", "--", "/usr/bin/env"});
    unsetenv("OTHER");
    EXPECT_THAT(SortedLines(output),
                ElementsAre("A=2 3", testing::StartsWith("HOME=/"), "LANG=7",
                            testing::StartsWith("LOGNAME="), cPath, "SHELL=/bin/sh", "TZ=7",
                            testing::StartsWith("USER="), "VXSCHED_DUE=7", "VXSCHED_TASK=job"));
    const std::string user = Run({"--", "/usr/bin/id", "-un"});
    EXPECT_THAT(output, HasSubstr("\nUSER=" + user));
}

TEST_F(Execution, EnvironmentIsTheSameByScheduleAndByHand) {
    constexpr char cLine[] = "--env A=1 -- /usr/bin/env";
    WriteTable({{"job", 4102444800, 0, 24, RUNNER_PROGRAM, cLine, 0}});
    const auto outputs = [] { return vxsched::ReadHistory(".", "job").runs.size(); };
    const auto last = [] { return SortedLines(RunTool({"output", "job"}).output); };
    EXPECT_EQ(RunTool({"run", "job", "--wait"}, {{"OTHER", "1"}}).status, 0);
    const std::vector<std::string> withoutHost = last();
    setenv("OTHER", "1", 1);
    CHost host;
    unsetenv("OTHER");
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).status, 0);
    EXPECT_EQ(last(), withoutHost);
    EXPECT_EQ(RunTool({"remove", "job"}).status, 0);
    CreateDue("job", RUNNER_PROGRAM, cLine);
    WaitUntil([&] { return outputs() == 3; });
    std::vector<std::string> scheduled = last();
    EXPECT_EQ(std::erase_if(scheduled,
                            [](const std::string& one) { return one.starts_with("VXSCHED_DUE="); }),
              1U);
    EXPECT_EQ(scheduled, withoutHost);
    EXPECT_THAT(scheduled, testing::Contains("A=1"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(Execution, FileOfVariablesHasOneALine) {
    const std::string file = MakeVariables(
        "# a comment\n\n A=1\nB='two words' \r\nC=\"# no comment\"\nD='open\nE=\nF=a=b\n_g9 = "
        "'x'y\n"
        "HOME=/elsewhere");
    const std::string output = Run({"--env-file", file, "--env", "A=named", "--", "/usr/bin/env"});
    for (const char* const line : {"A=named", "B=two words", "C=# no comment", "D='open",
                                   "E=", "F=a=b", "_g9='x'y", "HOME=/elsewhere"})
        EXPECT_THAT(SortedLines(output), testing::Contains(line));
    EXPECT_EQ(SortedLines(output).size(), 13U) << output;
}

TEST_F(Execution, LaterFileOfVariablesReplacesWhatAnEarlierHas) {
    const std::string first = MakeVariables("A=1\nB=1\n");
    fs::rename(first, "first");
    const std::string second = MakeVariables("B=2\n");
    const std::string output =
        Run({"--env-file", fs::absolute("first"), "--env-file", second, "--", "/usr/bin/env"});
    EXPECT_THAT(output, HasSubstr("A=1\n"));
    EXPECT_THAT(output, HasSubstr("B=2\n"));
}

TEST_F(Execution, FileOfVariablesThatOthersMayReadIsRefused) {
    const std::string file = MakeVariables("A=1\n", 0640);
    EXPECT_EQ(
        Refusal({"--env-file", file}),
        "--env-file " + file + ": it is open to others than its owner (mode 0640); run chmod 600");
}

TEST_F(Execution, FileOfVariablesThatIsNoneIsRefused) {
    const std::string directory = fs::current_path();
    EXPECT_EQ(Refusal({"--env-file", directory + "/nowhere"}),
              "--env-file " + directory + "/nowhere: cannot open it: No such file or directory");
    EXPECT_THAT(Refusal({"--env-file", directory}), EndsWith(": it is no regular file"));
    fs::remove("fifo");
    ASSERT_EQ(mkfifo("fifo", 0600), 0);
    EXPECT_THAT(Refusal({"--env-file", directory + "/fifo"}), EndsWith(": it is no regular file"));
}

// It may lead to a file of root's, and be of the user as whom the job runs.
TEST_F(Execution, LinkToAFileOfVariablesIsNotFollowed) {
    MakeVariables("A=1\n");
    fs::remove("link");
    fs::create_symlink("variables", "link");
    EXPECT_THAT(Refusal({"--env-file", fs::absolute("link")}),
                EndsWith(": there is a symbolic link in the path; give the path without it"));
}

// It may be a secret.
TEST_F(Execution, LineThatIsNoVariableIsNamedByItsNumber) {
    for (const char* const line : {"secret", "1A=x", "a b=x", "=x", "export A=x"}) {
        const std::string file = MakeVariables(std::string("A=1\n\n") + line + "\nB=2\n");
        EXPECT_EQ(Refusal({"--env-file", file}),
                  "--env-file " + file + ": line 3 is not NAME=VALUE");
    }
    EXPECT_THAT(Refusal({"--env-file", MakeVariables(std::string("A=x\0y\n", 6))}),
                EndsWith(": line 1 is not NAME=VALUE"));
}

TEST_F(Execution, FileOfVariablesOfSomebodyElseIsRefused) {
    REQUIRE_SUPERUSER();
    const std::string file = MakeVariables("A=1\n");
    ASSERT_EQ(chown(file.c_str(), cForeignUser, cForeignUser), 0);
    EXPECT_THAT(Refusal({"--env-file", file}),
                EndsWith(": it belongs to user nobody; it has to be root's or the job's user's"));
    // Whose store it is.
    ASSERT_EQ(chown("files", cForeignUser, cForeignUser), 0);
    EXPECT_THAT(Run({"--env-file", file, "--", "/usr/bin/env"}), HasSubstr("A=1\n"));
}

// ---- The directory and the umask --------------------------------------------------------------

TEST_F(Execution, DirectoryAndUmaskAreThoseOfTheJob) {
    fs::create_directories("elsewhere");
    const std::string directory = fs::absolute("elsewhere");
    EXPECT_EQ(Run({"--chdir", directory, "--umask", "027", "--shell", "pwd; umask"}),
              directory + "\n0027\n");
    const mode_t former = umask(077);
    EXPECT_EQ(Run({"--umask", "022", "--shell", "pwd; umask"}),
              fs::current_path().string() + "\n0022\n");
    umask(former);
}

TEST_F(Execution, ProgramHasCleanSignalsNoOtherDescriptorAndASessionOfItsOwn) {
    EXPECT_EQ(Run({"--umask", "022", "--shell",
                   "ls /proc/self/fd | wc -l; grep -cE 'Sig(Blk|Ign).*00000$' /proc/self/status;"
                   "[ $(ps -o sid= -p $$) = $$ ] && echo leads"}),
              "4\n2\nleads\n");
}

TEST_F(Execution, DirectoryThatIsMissingIsReported) {
    EXPECT_EQ(Refusal({"--chdir", "/nowhere"}),
              "cannot enter the directory /nowhere: No such file or directory");
    EXPECT_EQ(Refusal({"--chdir", RUNNER_PROGRAM}),
              std::string("cannot enter the directory ") + RUNNER_PROGRAM + ": Not a directory");
}

TEST_F(Execution, ProgramThatIsMissingThereIsReported) {
    CProgram runner({RUNNER_PROGRAM, "--chdir", "/", "--", "/nowhere"});
    EXPECT_EQ(runner.Wait(), 127);
    EXPECT_EQ(runner.Output(), "vxrun: cannot start /nowhere: No such file or directory\n");
}

TEST_F(Execution, HostReportsWhatKeepsAJobFromItsStart) {
    WriteTable({{"job", 4102444800, 0, 24, RUNNER_PROGRAM, "--chdir /nowhere -- /bin/true", 0}});
    CHost host;
    const TToolRun run = RunTool({"run", "job"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error,
                HasSubstr("cannot enter the directory /nowhere: No such file or directory"));
    EXPECT_EQ(vxsched::ReadHistory(".", "job").runs.size(), 1U);
    EXPECT_EQ(host.Stop(), 0);
}

// ---- The user ---------------------------------------------------------------------------------

TEST_F(Execution, UserHasTheGroupsOfALogin) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase()) << cCannotMount;
    constexpr char cText[] = "id -u; id -g; id -G; echo $USER $LOGNAME $HOME; pwd";
    EXPECT_EQ(Run({"--user", "keeper", "--shell", cText}),
              "60001\n60001\n60001 60010\nkeeper keeper /\n/\n");
    EXPECT_EQ(Run({"--user", "60002", "--group", "team", "--chdir", "/usr", "--shell", cText}),
              "60002\n60010\n60010 60002\nmember member /\n/usr\n");
    EXPECT_EQ(Run({"--group", "60010", "--shell", "id -u; id -g"}), "0\n60010\n");
    const std::string file = MakeVariables("A=1\n");
    EXPECT_THAT(Run({"--user", "keeper", "--env-file", file, "--", "/usr/bin/env"}),
                HasSubstr("A=1\n"));
    ASSERT_EQ(chown(file.c_str(), cKeeper, cKeeper), 0);
    EXPECT_THAT(Run({"--user", "keeper", "--env-file", file, "--", "/usr/bin/env"}),
                HasSubstr("A=1\n"));
    EXPECT_THAT(Refusal({"--user", "member", "--env-file", file}),
                EndsWith("it belongs to user keeper; it has to be root's or the job's user's"));
}

TEST_F(Execution, UserMayOpenTheOutputOnceMore) {
    REQUIRE_SUPERUSER();
    EXPECT_EQ(Run({"--user", "nobody", "--chdir", "/", "--shell",
                   "echo a > /dev/stdout; echo b > /dev/stderr"}),
              "a\nb\n");
}

// Nothing of the runner's is left to it: it cannot become root again.
TEST_F(Execution, UserHasNoCapabilityOfRoots) {
    REQUIRE_SUPERUSER();
    EXPECT_EQ(Run({"--user", "nobody", "--chdir", "/", "--shell",
                   "grep -E '^(Uid|Gid|CapEff|CapPrm)' /proc/self/status | tr '\\t' ' '"}),
              "Uid: 65534 65534 65534 65534\nGid: 65534 65534 65534 65534\n"
              "CapPrm: 0000000000000000\nCapEff: 0000000000000000\n");
}

TEST_F(Execution, UserOrGroupThatIsMissingIsReported) {
    EXPECT_EQ(Refusal({"--user", "nosuchuser"}), "--user nosuchuser: there is no such user");
    EXPECT_EQ(Refusal({"--group", "nosuchgroup"}), "--group nosuchgroup: there is no such group");
    EXPECT_EQ(Refusal({"--user", "4294967295"}), "--user 4294967295: there is no such user");
    EXPECT_THAT(Refusal({"--user", "4000000000"}), HasSubstr("name one by --group"));
}

TEST_F(Execution, HomeThatIsMissingIsReported) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase()) << cCannotMount;
    ASSERT_EQ(chmod(".", 0755), 0);
    EXPECT_EQ(Refusal({"--user", "stranger"}),
              "cannot enter the directory " + fs::absolute("homeless").string() +
                  ", the home of user stranger; --chdir names another one: No such file or "
                  "directory");
}

// Whoever owns the store could run anything as anybody.
TEST_F(Execution, UserNeedsAStoreOfRoots) {
    REQUIRE_SUPERUSER();
    ASSERT_EQ(chown("files", cForeignUser, cForeignUser), 0);
    EXPECT_EQ(Refusal({"--user", "daemon", "--chdir", "/"}),
              "--user daemon: the store's directory files belongs to user nobody, and a job runs "
              "as another user or group only in a store that root owns");
    EXPECT_THAT(Refusal({"--group", "daemon"}), HasSubstr("--group daemon: the store's directory"));
    EXPECT_EQ(Run({"--user", "root", "--chdir", "/", "--shell", "id -u"}), "0\n");
}

TEST_F(Execution, UserNeedsARunnerOfRoots) {
    REQUIRE_SUPERUSER();
    CForkedChild child([] {
        if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        vxsched::TJob job;
        job.user = "nobody";
        job.directory = "/";
        EXPECT_FALSE(ExecutionOf(job, nullptr, nullptr).identity) << "it is that already";
        job.user = "daemon";
        try {
            ExecutionOf(job, nullptr, nullptr);
        } catch (const CLaunchError& error) {
            EXPECT_STREQ(error.what(),
                         "--user daemon: the launcher runs as user nobody, and only root may run "
                         "a job as another user or group");
            return testing::Test::HasFailure() ? 3 : 0;
        }
        return 2;
    });
    EXPECT_EQ(child.Wait(), 0);
}
