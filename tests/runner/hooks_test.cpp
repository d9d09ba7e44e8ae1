// What a job has executed at the end of a run, and the mail about it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "runner/Execution.h"
#include "runner/Hook.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

// Each adds a line to the file "told".
constexpr char cHooks[] =
    "--on-failure 'echo failure >> told' --on-success 'echo success >> told' "
    "--on-recovery 'echo recovery >> told' ";

class Hooks : public testing::Test {
protected:
    Hooks() {
        for (const char* const path : {"files", "told", "mail", "bin", "begun"})
            fs::remove_all(path);
        fs::create_directory("files");
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    // As another host launches it for a due time. Returns what it writes.
    static std::string Run(const std::string& line, int status) {
        CProgram runner({RUNNER_PROGRAM, "--task job " + line});
        EXPECT_EQ(runner.Wait(), status) << runner.Output();
        return runner.Output();
    }

    static std::string Told() { return fs::exists("told") ? ReadFile("told") : ""; }
    static std::vector<TRunRecord> History() { return vxsched::ReadHistory(".", {}).runs; }

    // A `sendmail` that keeps the mail and its own arguments, and the options that have a job find it.
    static std::string MakeSendmail() {
        fs::create_directory("bin");
        WriteFile("bin/sendmail",
                  "#!/bin/sh\n(echo \"$*\"; /bin/cat) > " + fs::absolute("mail").string() + '\n');
        fs::permissions("bin/sendmail", fs::perms::owner_all);
        return "--mail admin@example.org --env PATH=" + fs::absolute("bin").string() + " ";
    }
};

}  // namespace

TEST_F(Hooks, OfAFailureAreExecutedOnce) {
    Run(std::string("--retry 2 --backoff 0s ") + cHooks + "--shell 'exit 3'", 3);
    EXPECT_EQ(Told(), "failure\n");
    EXPECT_EQ(History().size(), 3U);
}

TEST_F(Hooks, OfASuccessIsExecuted) {
    Run(std::string(cHooks) + "--success 3 --shell 'exit 3'", 3);
    EXPECT_EQ(Told(), "success\n");
}

TEST_F(Hooks, OfARecoveryIsExecutedAfterAFailureOnly) {
    Run("--retry 1 --backoff 0s -- /bin/false", 1);
    Run(std::string(cHooks) + "-- /bin/true", 0);
    EXPECT_EQ(Told(), "success\nrecovery\n");
    Run(std::string(cHooks) + "-- /bin/true", 0);
    EXPECT_EQ(Told(), "success\nrecovery\nsuccess\n");
    // An attempt that fails is no failure of its run.
    Run(std::string("--retry 1 --backoff 0s ") + cHooks +
            "--shell 'test -e begun || { touch begun; exit 1; }'",
        0);
    EXPECT_EQ(Told(), "success\nrecovery\nsuccess\nsuccess\n");
}

TEST_F(Hooks, TellWhatIsKnownOfTheRun) {
    setenv("VXSCHED_DUE", "1700000000", 1);
    Run("--env OWN=1 --env VXSCHED_OUTPUT=x --retry 1 --backoff 0s "
        "--on-failure '/usr/bin/env > told' --shell 'echo text; exit 3'",
        3);
    const std::string told = "\n" + Told();
    const std::string output = fs::absolute(History().at(1).output);
    for (const std::string& line :
         {std::string("VXSCHED_TASK=job"), std::string("VXSCHED_DUE=1700000000"),
          std::string("VXSCHED_OUTCOME=exited"), std::string("VXSCHED_STATUS=3"),
          std::string("VXSCHED_ATTEMPT=2"), std::string("OWN=1"), "VXSCHED_OUTPUT=" + output})
        EXPECT_THAT(told, HasSubstr('\n' + line + '\n'));
    EXPECT_THAT(told, testing::ContainsRegex("\nVXSCHED_DURATION=[0-9]+\\.[0-9][0-9][0-9]\n"));
    EXPECT_THAT(ReadFile(output), HasSubstr("text\n"));
    Run("--on-failure '/usr/bin/env > told' --shell 'kill -9 $$'", 1000 + SIGKILL);
    EXPECT_THAT(Told(), HasSubstr("VXSCHED_OUTCOME=killed\n"));
    EXPECT_THAT(Told(), HasSubstr("VXSCHED_STATUS=137\n"));
}

TEST_F(Hooks, AreExecutedForAProgramThatCannotBeStarted) {
    Run("--on-failure 'echo $VXSCHED_OUTCOME: $VXSCHED_ERROR > told' -- /no/such", 127);
    EXPECT_EQ(Told(), "not started: cannot start /no/such: No such file or directory\n");
}

TEST_F(Hooks, AreNotExecutedForARunThatWasStopped) {
    CProgram runner({RUNNER_PROGRAM, std::string("--task job ") + cHooks +
                                         "--shell 'touch begun; exec sleep 1000'"});
    WaitUntil([] { return fs::exists("begun"); });
    runner.Kill(SIGTERM);
    EXPECT_EQ(runner.Wait(), 1000 + SIGTERM);
    EXPECT_EQ(Told(), "");
}

TEST_F(Hooks, ThatFailChangeNothing) {
    EXPECT_EQ(Run("--on-success 'echo lost; exit 5' -- /bin/echo text", 0),
              "text\nvxrun: --on-success of task \"job\": it exited with 5\n");
    EXPECT_EQ(History().at(0).number, 0);
    EXPECT_THAT(Run("--on-failure 'kill -9 $$' -- /bin/false", 1),
                HasSubstr("--on-failure of task \"job\": it was killed by SIGKILL\n"));
}

TEST_F(Hooks, ThatHangAreKilled) {
    EXPECT_EQ(
        RunHook("sleep 1000 & sleep 1000", InheritedExecution(), "", std::chrono::milliseconds(50)),
        "it did not end in time, and was killed");
    EXPECT_EQ(RunHook("cat > told", InheritedExecution(), "input", std::chrono::hours(1)), "");
    EXPECT_EQ(Told(), "input");
}

TEST_F(Hooks, AreExecutedAsTheUserOfTheJob) {
    REQUIRE_SUPERUSER();
    fs::create_directory("bin");
    ASSERT_EQ(chown("bin", cForeignUser, cForeignUser), 0);
    fs::permissions(".", fs::perms::others_exec, fs::perm_options::add);
    const std::string directory = fs::absolute("bin");
    Run("--user " + std::to_string(cForeignUser) + " --group " + std::to_string(cForeignUser) +
            " --chdir " + directory + " --on-success 'id -u > told' -- /bin/true",
        0);
    EXPECT_EQ(ReadFile("bin/told"), std::to_string(cForeignUser) + '\n');
}

TEST_F(Hooks, MailHasTheEndOfTheOutput) {
    const std::string options = MakeSendmail();
    Run(options +
            "--shell 'i=1; while [ $i -le 150 ]; do echo \"line $i\"; i=$((i+1)); done; exit 3'",
        3);
    const std::string mail = ReadFile("mail");
    EXPECT_THAT(mail, StartsWith("-t -i\nTo: admin@example.org\n"
                                 "Subject: job has failed with status 3\n"));
    EXPECT_THAT(mail, HasSubstr("\n\nline 51\n") /* after the heading */);
    EXPECT_THAT(mail, Not(HasSubstr("line 50\n")));
    EXPECT_TRUE(mail.ends_with("\nline 150\n"));
    EXPECT_THAT(mail, HasSubstr("\n" + std::string("Outcome  has failed with status 3\n")));
    Run(options + "-- /bin/true", 0);
    EXPECT_THAT(ReadFile("mail"), HasSubstr("Subject: job has succeeded again\n"));
    fs::remove("mail");
    Run(options + "-- /bin/true", 0);
    EXPECT_FALSE(fs::exists("mail"));
}

TEST_F(Hooks, MailHasNoHeaderOfATaskOrItsOutput) {
    const std::string options = MakeSendmail();
    setenv("VXSCHED_TASK", "a\nBcc: x@y\n\n\x1b[31m \xc3\xa4", 1);
    Run(options + "--shell 'printf \"\\033[31mred\\r\\n\"; exit 1'", 1);
    const std::string mail = ReadFile("mail");
    const std::string headers = mail.substr(0, mail.find("\n\n"));
    EXPECT_THAT(headers, Not(HasSubstr("Bcc")));
    EXPECT_THAT(headers, MatchesRegex("-t -i\nTo: .*\nSubject: =[?]UTF-8[?]B[?][A-Za-z0-9+/=?\n -]*"
                                      "Auto-Submitted.*"));
    EXPECT_EQ(mail.find('\x1b'), std::string::npos);
    EXPECT_EQ(mail.find('\r'), std::string::npos);
    EXPECT_THAT(mail, HasSubstr("[31mred"));
}

TEST_F(Hooks, AreExecutedAfterALaunchByTheHost) {
    CHost host;
    const std::string told = fs::absolute("told");
    CreateDue("job", RUNNER_PROGRAM,
              "--on-failure 'echo $VXSCHED_DUE > " + told + "' -- /bin/false");
    WaitUntil([] { return !Told().empty(); });
    CreateDue("other", RUNNER_PROGRAM,
              "--on-failure 'echo $VXSCHED_OUTCOME > " + told + "2' -- /no/such");
    WaitUntil([&] { return fs::exists(told + '2') && ReadFile(told + '2') == "not started\n"; });
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    fs::remove(told + '2');
    ASSERT_EQ(History().size(), 2U);
    EXPECT_EQ(ReadFile("told"),
              std::to_string(History()[0].due->time_since_epoch().count()) + '\n');
}
