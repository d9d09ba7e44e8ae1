// vxschedd, a real process with real programs: what it launches, reports, refuses, and how it ends.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>

#include "HostProgram.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

// Sets up what a careless parent may leave to a host, blocked and ignored signals and an open
// descriptor, then becomes the host.
RUN_AGAIN(HostOfACarelessParent) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE, SIGHUP, SIGUSR1, SIGXFSZ})
        std::signal(number, SIG_IGN);
    const int descriptor = open("/dev/null", O_RDONLY);
    dup2(descriptor, 40);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    static_cast<void>(arguments);
    return 1;
}

RUN_AGAIN(HostWithASizeLimit) {
    const rlimit limit{.rlim_cur = std::stoul(arguments.at(0)), .rlim_max = RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 1;
}

RUN_AGAIN(HostWithoutStandardError) {
    close(STDERR_FILENO);
    close(STDIN_FILENO);
    static_cast<void>(arguments);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 1;
}

// The reading end of this host's output pipe is closed.
RUN_AGAIN(HostWithABrokenPipe) {
    int ends[2];
    if (pipe(ends) != 0)
        return 1;
    close(ends[0]);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    static_cast<void>(arguments);
    return 1;
}

static const std::string cRecorder = PROGRAMS "/record-launch";
static const std::vector<std::string> cCleanLaunch = {
    "arguments 2",         "argument " PROGRAMS "/record-launch",
    "argument the record", "descriptor 0",
    "descriptor 1",        "descriptor 2"};

// ---- A run, from end to end -------------------------------------------------------------------

TEST(Host, RunsATaskThatAnotherProcessCreatedAndReportsItsEnd) {
    CHost host;
    CreateDue("task", cRecorder, "the record");
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(Lines("the record"), cCleanLaunch);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("started process"), 1U) << host.Output();
    EXPECT_EQ(host.CountInOutput("exited with status 0"), 1U) << host.Output();
    EXPECT_NE(host.Output().find(": " + cRecorder + " \"the record\""), std::string::npos);
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(Host, ProgramsInheritNothingOfTheHostsBurden) {
    CHost host(ThisProgramAs("HostOfACarelessParent"));
    CreateDue("task", cRecorder, "the record");
    EXPECT_EQ(Lines("the record"), cCleanLaunch);
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.Stop(SIGINT), 0) << "it stops on a signal that its parent ignored";
}

TEST(Host, EveryEndIsReportedOnceAndNoChildIsLeftUncollected) {
    CHost host;
    CreateDue("fails", PROGRAMS "/end-with", "status 3");
    EXPECT_TRUE(host.WaitForOutput("exited with status 3")) << host.Output();
    WaitForTheTicksEnd();
    CreateDue("killed", PROGRAMS "/end-with", "signal 9");
    EXPECT_TRUE(host.WaitForOutput("was killed by SIGKILL")) << host.Output();
    WaitForTheTicksEnd();
    CreateDue("missing", "/no/such/program/at-all", "");
    EXPECT_TRUE(
        host.WaitForOutput("cannot start /no/such/program/at-all: No such file or directory"))
        << host.Output();
    EXPECT_TRUE(host.WaitForOutput(cLaunchFailed)) << host.Output();
    EXPECT_EQ(host.CountZombies(), 0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("exited with"), 1U) << host.Output();
    EXPECT_EQ(host.CountInOutput("was killed"), 1U) << host.Output();
}

TEST(Host, LongRunningProgramIsLeftRunningAndLogged) {
    std::optional<CHost> host(std::in_place);
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host->WaitForOutput("started process")) << host->Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host->Stop(), 0);
    EXPECT_EQ(host->CountInOutput(cStillRunning), 0U) << "not an error, and no level is shown";
    EXPECT_EQ(host->CountInOutput("leaving 1 launched program(s) running"), 1U) << host->Output();
    EXPECT_EQ(host->CountInOutput("exited with"), 0U);
    WriteFile("end it", "");
    WaitUntil([] { return std::filesystem::exists("end it.seen"); });
}

TEST(Host, EndsOfALongRunningProgramIsReportedWhenItComes) {
    CHost host;
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    WaitForTheTicksEnd();
    WriteFile("end it", "");
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.CountZombies(), 0);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(Host, UnusualExtensionEndsTheHost) {
    CHost host;
    CreateDue("script", "/opt/script.sh", "");
    EXPECT_EQ(host.Wait(), 1000 + SIGABRT);
    EXPECT_NE(host.Output().find("scheduler/Scheduler.cpp:"), std::string::npos) << host.Output();
    EXPECT_NE(host.Output().find("void Execute(TTask*&): Assertion `false' failed."),
              std::string::npos);
}

// ---- Stopping ---------------------------------------------------------------------------------

class HostStop : public testing::TestWithParam<int> {};

TEST_P(HostStop, IsCleanAndLeavesNothing) {
    CHost host;
    EXPECT_EQ(host.Stop(GetParam()), 0);
    EXPECT_EQ(CountSemaphoreSets(), 0);
    EXPECT_EQ(ReadTable(), TRows());
    EXPECT_EQ(host.CountInOutput(cLoadCalled), 0U);
    EXPECT_TRUE(host.Output().ends_with("vxschedd: stopped\n")) << host.Output();
}

INSTANTIATE_TEST_SUITE_P(Signals, HostStop, testing::Values(SIGTERM, SIGINT));

TEST(Host, StopDuringATickWaitsForItsEnd) {
    CHost host(HostThatPauses());
    CreateDue("task", cRecorder, "the record");
    Lines("the record");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable(), TRows()) << "the tick has saved the table without the task";
}

TEST(Host, ManySignalsAtOnceAreOneStop) {
    CHost host;
    for (int count = 0; count < 50; ++count) {
        host.Kill(SIGCHLD);
        host.Kill(SIGPIPE);
        host.Kill(SIGXFSZ);
    }
    WakeWorker();
    for (int count = 0; count < 50; ++count) {
        host.Kill(SIGTERM);
        host.Kill(SIGINT);
    }
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_EQ(host.CountInOutput("stopping on"), 1U);
}

// A handler could run on the worker and interrupt its wait for the mutex. (Signals from 32 on are
// used by the C library.)
TEST(Host, HasNoSignalHandlerAndIgnoresNothing) {
    const CHost host;
    EXPECT_EQ(std::stoul(host.Status("SigCgt"), nullptr, 16) & 0x7FFFFFFF, 0U);
    EXPECT_EQ(std::stoul(host.Status("SigIgn"), nullptr, 16) & 0x7FFFFFFF, 0U);
}

TEST(Host, OwnDescriptorsAreClosedInEveryOtherProgram) {
    const CHost host;
    const std::string directory = "/proc/" + std::to_string(host.Id());
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(directory + "/fd")) {
        const std::string target = std::filesystem::read_symlink(entry.path()).filename();
        if (target != "anon_inode:[signalfd]" && target != "anon_inode:[eventfd]" &&
            target != "vxschedd.lock")
            continue;
        found += target + ' ';
        std::istringstream info(
            ReadFile(directory + "/fdinfo/" + entry.path().filename().string()));
        std::string word;
        while (info >> word && word != "flags:") {
        }
        info >> word;
        EXPECT_NE(std::stoul(word, nullptr, 8) & O_CLOEXEC, 0U) << target;
    }
    EXPECT_EQ(found,
              "anon_inode:[signalfd] vxschedd.lock anon_inode:[eventfd] anon_inode:[eventfd] ");
}

// ---- One host per directory -------------------------------------------------------------------

TEST(Host, SecondOneInADirectoryIsRefusedAndTheFirstUnharmed) {
    CHost first;
    CProgram second({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(second.Wait(), 4);
    EXPECT_NE(
        second.Output().find("another host runs in . (process " + std::to_string(first.Id()) + ")"),
        std::string::npos)
        << second.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(first.Stop(), 0);
    CHost third;
    EXPECT_EQ(third.Stop(), 0);
}

TEST(Host, KilledOneDoesNotKeepTheNextOut) {
    {
        CHost killed;
        EXPECT_EQ(killed.Stop(SIGKILL), 1000 + SIGKILL);
    }
    CHost next;
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// ---- Faults -----------------------------------------------------------------------------------

TEST(Host, WriteBeyondTheSizeLimitIsAnErrorAndNotItsEnd) {
    const TRows rows = {{"task", 4'000'000'000, 0, 1, "/bin/program", std::string(1000, 'p'), 0}};
    WriteTable(rows);
    CHost host(ThisProgramAs("HostWithASizeLimit", {"500"}));
    EXPECT_NE(host.Output().find(cWritingFailed), std::string::npos) << host.Output();
    EXPECT_NE(host.Output().find("the add-in reports TasksDeleted = 1"), std::string::npos);
    EXPECT_TRUE(host.WaitForOutput("the table is restored, with 1 task(s)")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable(), rows);
}

TEST(Host, DamagedTableIsQuarantinedAndNothingThatCanBeReadIsLost) {
    const TRow row{"intact", 4'000'000'000, 0, 1, "/bin/program", "", 0};
    const std::string damaged = BytesOf({row, row}).substr(0, BytesOf({row}).size() + 5);
    std::filesystem::create_directory("files");
    WriteFile(cTable, damaged);
    CHost host;
    EXPECT_EQ(host.CountInOutput("the table is damaged at offset"), 1U) << host.Output();
    EXPECT_EQ(host.CountInOutput("kept \"intact\" from the damaged table"), 1U) << host.Output();
    EXPECT_EQ(ReadTable(), TRows{row});
    EXPECT_EQ(host.Stop(), 0);
    std::size_t quarantined = 0;
    for (const auto& entry : std::filesystem::directory_iterator("files")) {
        if (entry.path().string().find(".damaged-") != std::string::npos)
            quarantined += ReadFile(entry.path()) == damaged ? 1 : 10;
    }
    EXPECT_EQ(quarantined, 1U);
}

TEST(Host, StartedWithoutStandardErrorItKeepsItsLogOutOfTheTable) {
    CProgram host(ThisProgramAs("HostWithoutStandardError"));
    WaitUntil([] { return ReadFile(cTable) == BytesOf({}) && StoreSemaphoreValue() == 1; });
    CreateDue("task", cRecorder, "the record");
    EXPECT_EQ(Lines("the record"), cCleanLaunch);
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(ReadTable(), TRows());
}

TEST(Host, LogThatNobodyReadsDoesNotEndIt) {
    CProgram host(ThisProgramAs("HostWithABrokenPipe"));
    WaitUntil([] { return ReadFile(cTable) == BytesOf({}) && StoreSemaphoreValue() == 1; });
    CreateDue("task", cRecorder, "the record");
    EXPECT_EQ(Lines("the record"), cCleanLaunch);
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(host.Output(), "");
    EXPECT_EQ(ReadTable(), TRows());
}

// ---- The command line -------------------------------------------------------------------------

struct TCommandLine {
    std::vector<std::string> arguments;
    int status;
    const char* message;
};
void PrintTo(const TCommandLine& line, std::ostream* out) {
    for (const std::string& argument : line.arguments)
        *out << argument << ' ';
}

class HostCommandLine : public testing::TestWithParam<TCommandLine> {};

TEST_P(HostCommandLine, IsAnsweredWithAStatusAndAMessage) {
    WriteFile("a file", "");
    std::filesystem::create_directory("a directory");
    std::vector<std::string> command{HOST_PROGRAM};
    command.insert(command.end(), GetParam().arguments.begin(), GetParam().arguments.end());
    CProgram host(command);
    EXPECT_EQ(host.Wait(), GetParam().status);
    EXPECT_NE(host.Output().find(GetParam().message), std::string::npos) << host.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Lines, HostCommandLine,
    testing::Values(
        TCommandLine{{"--help"}, 0, "--directory"}, TCommandLine{{"--version"}, 0, "vxschedd "},
        TCommandLine{{}, 2, "--directory is required"},
        TCommandLine{{"--directory"}, 2, "--directory"},
        TCommandLine{{"--directory", ".", "--unknown"}, 2, "--unknown"},
        TCommandLine{{"--directory", ".", "--output-size", "large"}, 2, "--output-size"},
        TCommandLine{{"--directory", ".", "--history-size", "-1"}, 2, "--history-size"},
        TCommandLine{{"--directory", ".", "--lock-timeout", "-1"}, 2, "--lock-timeout"},
        TCommandLine{{"--directory", ".", "--launch-pause", "11"}, 2, "--launch-pause"},
        TCommandLine{
            {"--directory", ".", "--lock-timeout", "0x10"}, 2, "expected whole seconds from 0 to"},
        TCommandLine{{"--directory", ".", "--check", "--launch-pause", "010"}, 0, "ok: "},
        TCommandLine{{"--directory", ".", "--check", "--launch-pause", "08"}, 0, "ok: "},
        TCommandLine{{"--directory", ".", "--check", "--output-size", "64KiB"}, 0, "ok: "},
        TCommandLine{{"--directory", "missing"},
                     3,
                     "cannot use the directory missing: No such file or directory"},
        TCommandLine{
            {"--directory", "a file"}, 3, "cannot use the directory a file: Not a directory"},
        TCommandLine{{"--directory", "a directory", "--addin", "/no/add-in"},
                     5,
                     "cannot load the add-in /no/add-in"},
        TCommandLine{
            {"--directory", "a directory", "--addin", SUPPORT_LIBRARY}, 5, "is not an add-in"}));

TEST(Host, AnswersGoToStandardOutputAndMessagesToStandardError) {
    const std::string host = HOST_PROGRAM;
    CProgram version({"/bin/sh", "-c", host + " --version 2>&- | grep -c '^vxschedd [0-9]'"});
    EXPECT_EQ(version.Wait(), 0);
    EXPECT_EQ(version.Output(), "1\n");
    CProgram wrong({"/bin/sh", "-c", host + " --unknown 2>messages"});
    EXPECT_EQ(wrong.Wait(), 2);
    EXPECT_EQ(wrong.Output(), "");
    EXPECT_TRUE(ReadFile("messages").starts_with("vxschedd: ")) << ReadFile("messages");
}

RUN_AGAIN(HostWithoutCapabilities) {
    if (!DropCapabilities())
        return 1;
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", arguments.at(0).c_str(),
          static_cast<char*>(nullptr));
    return 1;
}

TEST(Host, DirectoryThatMayNotBeWrittenIsRefused) {
    std::filesystem::create_directory("closed");
    ASSERT_EQ(chmod("closed", 0555), 0);
    CProgram host(ThisProgramAs("HostWithoutCapabilities", {"closed"}));
    EXPECT_EQ(host.Wait(), 3);
    EXPECT_NE(host.Output().find("cannot create closed/files: Permission denied"),
              std::string::npos)
        << host.Output();
    std::filesystem::permissions("closed", std::filesystem::perms::owner_all);
    std::filesystem::create_directory("closed/files");
    ASSERT_EQ(chmod("closed/files", 0555), 0);
    CProgram other(ThisProgramAs("HostWithoutCapabilities", {"closed"}));
    EXPECT_EQ(other.Wait(), 3);
    EXPECT_NE(other.Output().find("cannot open closed/files/vxschedd.lock: Permission denied"),
              std::string::npos)
        << other.Output();
    std::filesystem::permissions("closed/files", std::filesystem::perms::owner_all);
}

TEST(Host, AddInOfARelativePathIsTheCallersNotTheDirectorys) {
    std::filesystem::create_directory("a directory");
    std::filesystem::create_symlink(ADDIN_LIBRARY, "add-in.so");
    CHost host({HOST_PROGRAM, "--directory", "a directory", "--addin", "./add-in.so"});
    EXPECT_EQ(host.Stop(), 0);
}

// A sanitizer reads this limit as well and exits before the host begins.
#ifdef PLAIN_BUILD
// The stack of a new thread is as large as this limit, which is more than there is memory.
RUN_AGAIN(HostWithEndlessStacks) {
    static_cast<void>(arguments);
    const rlimit limit{.rlim_cur = 1UL << 46, .rlim_max = RLIM_INFINITY};
    setrlimit(RLIMIT_STACK, &limit);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 99;
}

TEST(Host, ThreadThatCannotBeStartedIsReportedAndNotJoined) {
    CProgram host(ThisProgramAs("HostWithEndlessStacks"));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(
        host.Output().find("cannot start the scheduler's thread: Resource temporarily unavailable"),
        std::string::npos)
        << host.Output();
}
#endif

TEST(Host, FindsTheAddInNextToItself) {
    CHost host;
    EXPECT_NE(ReadFile("/proc/" + std::to_string(host.Id()) + "/maps").find(ADDIN_LIBRARY),
              std::string::npos);
}
