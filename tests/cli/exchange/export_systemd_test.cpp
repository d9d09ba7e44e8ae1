// export --systemd: timers and services that systemd accepts, and what they cannot say.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

namespace {

class CliExportSystemd : public Cli {
protected:
    static TToolRun Export() {
        fs::remove_all("units");
        return RunTool({"export", "--systemd", "units"});
    }

    static std::string Timer(const std::string& task) {
        return ReadFile("units/vantrix-" + task + ".timer");
    }
    static std::string Service(const std::string& task) {
        return ReadFile("units/vantrix-" + task + ".service");
    }

    // The next time after now on the grid of a period of so many hours that has 2096-10-02 07:06:40.
    static std::int64_t Soon(std::int64_t period) {
        return std::time(nullptr) + (4'000'000'000 - std::time(nullptr)) % (period * cHour);
    }

    static void ExpectAccepted() {
        EXPECT_EQ(std::system("systemd-analyze verify --man=no units/*.timer > verified 2>&1"), 0);
        EXPECT_EQ(ReadFile("verified"), "");
    }

    static void ExpectLoss(const std::string& task, const std::string& loss) {
        const TToolRun run = Export();
        EXPECT_EQ(run.status, 1);
        EXPECT_THAT(run.error, HasSubstr("vxsched: task \"" + task + "\": " + loss));
    }

    static void Create(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {"create", "job"});
        Output(arguments);
    }
};

}  // namespace

TEST_F(CliExportSystemd, UnitsAreAcceptedBySystemd) {
    const std::string me = std::to_string(geteuid());
    WriteTable({{"daily", Soon(24), 77, 24, "/bin/cp", "-a $HOME 50% \"x\"", 0},
                {"weekly; strange \"name\" %n", Soon(168), 0, 168, "/bin/echo", "a\nb", 0},
                {"often", Soon(6), 0, 6, "/bin/echo", "", 0},
                {"once", 4'000'000'000, 0, 0, "/bin/echo", ";", 0}});
    Create({"--weekly",
            "fri 02:30",
            "--zone",
            "Asia/Tokyo",
            "--catch-up",
            "--chdir",
            "/",
            "--umask",
            "027",
            "--env",
            "A=x y",
            "--env",
            "B=$A %",
            "--env-file",
            "/dev/null",
            "--timeout",
            "2h",
            "--kill-after",
            "1m",
            "--random-delay",
            "10m",
            "--success",
            "0,3",
            "--user",
            me,
            "--shell",
            "echo \"$A\"\necho 'two'"});
    Output({"create", "startup", "--cron", "@reboot", "--", "/bin/echo", "one", "", "three"});
    const TToolRun run = Export();
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.error, "");
    EXPECT_THAT(run.output, HasSubstr("wrote 6 timers and as many services to /"));
    ExpectAccepted();
    EXPECT_THAT(Timer("daily"), HasSubstr("\nOnCalendar=*-*-* 07:06:40 UTC\n"));
    EXPECT_THAT(Timer("often"), HasSubstr("\nOnCalendar=*-*-* 01,07,13,19:06:40 UTC\n"));
    EXPECT_THAT(Timer("once"), HasSubstr("\nOnCalendar=2096-10-02 07:06:40 UTC\n"));
    EXPECT_THAT(Timer("startup"), HasSubstr("\nOnBootSec=1s\n"));
    EXPECT_THAT(Service("daily"),
                HasSubstr("\nExecStart=\"/bin/cp\" \"-a $$HOME 50%% \\\"x\\\"\"\n"));
    EXPECT_THAT(Service("daily"),
                HasSubstr("\nWorkingDirectory=" + fs::current_path().string() + "\n"));
    EXPECT_EQ(Timer("job"),
              "[Unit]\nDescription=job\n\n[Timer]\n"
              "OnCalendar=Fri *-*-* 02:30:00 Asia/Tokyo\nPersistent=true\nAccuracySec=1s\n"
              "RandomizedDelaySec=10m\n\n[Install]\nWantedBy=timers.target\n");
    EXPECT_EQ(Service("job"),
              "[Unit]\nDescription=job\n\n[Service]\nType=oneshot\n"
              "ExecStart=\"/bin/sh\" \"-c\" \"echo \\\"$$A\\\"\\x0aecho 'two'\"\nUser=" +
                  me +
                  "\nWorkingDirectory=/\nUMask=0027\nEnvironmentFile=/dev/null\n"
                  "Environment=\"A=x y\"\nEnvironment=\"B=$A %%\"\nTimeoutStartSec=2h\n"
                  "TimeoutStopSec=1m\nSuccessExitStatus=0 3\n");
}

TEST_F(CliExportSystemd, PausedTaskHasATimerThatCannotBeEnabled) {
    WriteTable({{"a", Soon(24), 0, 24, "/bin/true", "", 1}});
    EXPECT_EQ(Export().status, 0);
    EXPECT_THAT(Timer("a"), HasSubstr("OnCalendar="));
    EXPECT_THAT(Timer("a"), Not(HasSubstr("[Install]")));
    ExpectAccepted();
}

TEST_F(CliExportSystemd, LossesAreMessagesAndAStatus) {
    const auto with = [](const TRow& row) { WriteTable({row}); };
    with({"long", Soon(336), 0, 336, "/bin/true", "", 0});
    ExpectLoss("long", "a timer has no period of 2w that keeps its due times");
    EXPECT_TRUE(fs::is_empty("units"));
    with({"past", 1'000'000'000, 0, 0, "/bin/true", "", 1});
    ExpectLoss("past", "a timer cannot wait for its due time");
    with({"bytes", Soon(24), 0, 24, "/bin/true", "\xff", 0});
    ExpectLoss("bytes", "a unit has text in UTF-8 only");
    with({std::string(240, 'a'), Soon(24), 0, 24, "/bin/true", "", 0});
    ExpectLoss(std::string(240, 'a'), "its name is too long for one of a unit");
    WriteTable(
        {{"a", Soon(24), 0, 24, "/bin/true", "", 0}, {"a", Soon(24), 0, 24, "/bin/true", "", 0}});
    ExpectLoss("a", "an earlier task has the same name");
    with({"later", std::time(nullptr) + 7 * cHour, 0, 6, "/bin/true", "", 0});
    ExpectLoss("later", "a timer elapses before its due time");
    with({"far", 7'258'118'400, 0, 0, "/bin/true", "", 0});
    ExpectLoss("far", "a timer cannot wait for its due time");
    for (const std::string program : {"/tmp/q'q", "/tmp/$Y", "/tmp/b\\b"}) {
        with({"quoted", Soon(24), 0, 24, program, "", 0});
        ExpectLoss("quoted", "a unit has no program with a quotation mark");
    }
    for (const std::string directory : {"/tmp/b\\", "/tmp/ trail "}) {
        fs::remove(cTable);
        Create({"--daily", "12:30", "--chdir", directory, "--shell", "true"});
        ExpectLoss("job", "a unit has no path or name with a line end, or with a blank");
    }
    fs::remove(cTable);
    Create({"--daily", "12:30", "--zone", "Europe//Berlin", "--shell", "true"});
    ExpectLoss("job", "a timer has no zone Europe//Berlin");
    fs::remove(cTable);
    Create({"--daily", "12:30", "--env", "A-B=1", "--env", "C=2", "--shell", "true"});
    ExpectLoss("job", "a unit has no variable \"A-B\"");
    EXPECT_THAT(Service("job"), HasSubstr("\nEnvironment=\"C=2\"\n"));
    ExpectAccepted();
    for (const auto& [option, value, loss] : std::vector<std::array<std::string, 3>>{
             {"--retry", "2", "a unit has no --retry"},
             {"--overlap", "queue", "a unit has no --overlap"},
             {"--mail", "root", "a unit has no --mail"},
             {"--on-failure", "x", "a unit has no --on-failure"},
             {"--until", "2090-01-01", "a unit has no --until"},
             {"--success", "3", "to a service the exit status 0 is always a success"}}) {
        fs::remove(cTable);
        Create({"--daily", "12:30", option, value, "--shell", "true"});
        ExpectLoss("job", loss);
        EXPECT_TRUE(fs::exists("units/vantrix-job.timer")) << "the rest is said";
    }
    fs::remove(cTable);
    Create({"--daily", "12:30", "--catch-up=6h", "--shell", "true"});
    ExpectLoss("job", "a timer catches up what was missed always or never");
    fs::remove(cTable);
    Create({"--daily", "02:30", "--zone", "Europe/Berlin", "--shell", "true"});
    ExpectLoss("job", "a timer does not elapse for what a change of the clock skips");
}

// Units of the system have such names.
TEST_F(CliExportSystemd, DirectoryWithFilesIsLeftAlone) {
    WriteTable({{"a", Soon(24), 0, 24, "/bin/true", "", 0}});
    fs::create_directory("units");
    WriteFile("units/cron.service", "the system's");
    ExpectRefused(1, "units is not empty; give an empty directory",
                  {"export", "--systemd", "units"});
    fs::remove("units/cron.service");
    Output({"export", "--systemd", "units"});
    ExpectRefused(1, "units is not empty", {"export", "--systemd", "units"});
    ExpectRefused(1, "cannot write to no/such", {"export", "--systemd", "no/such"});
    ExpectRefused(1, "cannot write to ", {"export", "--systemd", ""});
    ExpectRefused(2, "excludes", {"export", "--systemd", "other", "--toml"});
}

TEST_F(CliExportSystemd, UnitsThatCannotAllBeWrittenAreRemoved) {
    WriteTable({{"a", Soon(24), 0, 24, "/bin/true", std::string(4096, 'x'), 0}});
    // A file may have 512 bytes: the timer, and not the service.
    CProgram shell({"/bin/sh", "-c",
                    "trap '' XFSZ; ulimit -f 1; exec " TOOL_PROGRAM " export --systemd units"});
    EXPECT_EQ(shell.Wait(), 1) << shell.Output();
    EXPECT_THAT(shell.Output(), HasSubstr("cannot write vantrix-a.service"));
    EXPECT_TRUE(fs::is_empty("units"));
}
