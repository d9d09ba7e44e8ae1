// Where programs that a real host launches read and write.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include "host/programs/CProgramOutput.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "HostProgram.h"

static const std::string cWriter = PROGRAMS "/write-lines";

// ---- Inherited --------------------------------------------------------------------------------

TEST(HostOutput, IsInheritedByDefaultAndInputIsEmpty) {
    CHost host;
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("\ninput 0\n")) << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\nerror text\n")) << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\noutput text\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

// The host has input that launched programs must not read.
RUN_AGAIN(HostWithInput) {
    if (std::freopen("input", "r", stdin) == nullptr)
        return 1;
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 1;
}

TEST(HostOutput, InputIsNotTheHosts) {
    WriteFile("input", "for the host");
    CHost host(ThisProgramAs("HostWithInput"));
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("\ninput 0\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

// ---- A file for each task ---------------------------------------------------------------------

TEST(HostOutput, EachTaskHasAFileInTheGivenDirectoryWhichIsCreated) {
    CHost host(HostWith({"--output", "out"}));
    ReplaceTable({{"one", 1, 0, 1, cWriter, "first", 0}, {"a/b", 1, 0, 1, cWriter, "second", 0}});
    WakeWorker();
    WaitUntil([] { return ReadFile("out/a%2Fb.log") == "output second\nerror second\ninput 0\n"; });
    WaitUntil([] { return ReadFile("out/one.log") == "output first\nerror first\ninput 0\n"; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("output first\n"), 0U) << host.Output();
}

TEST(HostOutput, FileIsAppendedToAndRotatedByALaunchThatFindsItTooLarge) {
    std::filesystem::create_directory("out");
    WriteFile("out/small.log", "12345\n");
    WriteFile("out/large.log", "123456789\n");
    CHost host(HostWith({"--output", "./out", "--output-size", "9"}));
    ReplaceTable({{"small", 1, 0, 1, cWriter, "new", 0}, {"large", 1, 0, 1, cWriter, "new", 0}});
    WakeWorker();
    WaitUntil([] { return ReadFile("out/large.log") == "output new\nerror new\ninput 0\n"; });
    EXPECT_EQ(ReadFile("out/large.log.1"), "123456789\n");
    WaitUntil(
        [] { return ReadFile("out/small.log") == "12345\noutput new\nerror new\ninput 0\n"; });
    EXPECT_FALSE(std::filesystem::exists("out/small.log.1"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostOutput, FileThatCannotBeOpenedLetsTheProgramInheritAndIsLogged) {
    CHost host(HostWith({"--output", "out"}));
    std::filesystem::create_directory("out/task.log");
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("task.log: Is a directory. The program writes where the host"))
        << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\noutput text\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostOutput, PipeInThePlaceOfAFileIsNotWaitedFor) {
    CHost host(HostWith({"--output", "out"}));
    ASSERT_EQ(mkfifo("out/task.log", 0644), 0);
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(
        host.WaitForOutput("task.log: it is not a file, or a FIFO without a reader. The "
                           "program writes where the host does"))
        << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\noutput text\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostOutput, LinkToADeviceIsWrittenTo) {
    std::filesystem::create_directory("out");
    std::filesystem::create_symlink("/dev/null", "out/task.log");
    CHost host(HostWith({"--output", "out"}));
    CreateDue("task", cWriter, "text");
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("cannot open"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("output text"), 0U) << host.Output();
}

TEST(HostOutput, DirectoryThatCannotBeUsedIsRefused) {
    WriteFile("a file", "");
    CProgram missing(HostWith({"--output", "missing/out"}));
    EXPECT_EQ(missing.Wait(), 3);
    EXPECT_NE(missing.Output().find("missing/out: No such file or directory. Choose another "
                                    "directory with --output."),
              std::string::npos)
        << missing.Output();
    CProgram file(HostWith({"--output", "./a file"}));
    EXPECT_EQ(file.Wait(), 3);
    EXPECT_NE(file.Output().find("a file: Not a directory"), std::string::npos) << file.Output();
}

// A task of that name would write into the log, and its launch would rotate it.
TEST(HostOutput, DirectoryOfTheLogIsRefused) {
    std::filesystem::create_directory("out");
    std::filesystem::create_directory_symlink("out", "link");
    for (const char* const output : {"out", "./out/", "link", "out/../out"}) {
        for (const bool isCheck : {false, true}) {
            CProgram host(HostWith({"--log", "out/vxschedd.log", "--output", output,
                                    isCheck ? "--check" : "--run-once"}));
            EXPECT_EQ(host.Wait(), 2) << output;
            EXPECT_NE(host.Output().find("a task could write to the log"), std::string::npos)
                << host.Output();
        }
    }
    EXPECT_TRUE(std::filesystem::is_empty("out"));
}

// A link is opened where it leads to, also one that leads to a file that is not there yet.
TEST(HostOutput, LogThatIsALinkIntoTheDirectoryOfTheOutputIsRefused) {
    std::filesystem::create_directories("out/deeper");
    std::filesystem::create_directory("logs");
    std::filesystem::create_directory_symlink("out", "another-out");
    std::filesystem::create_symlink("../another-out/task.log", "logs/link");
    std::filesystem::create_symlink("link", "logs/chain");
    std::filesystem::create_symlink("../out/deeper/log", "logs/deeper");
    for (const bool exists : {false, true}) {
        if (exists)
            WriteFile("out/task.log", "");
        for (const char* const log : {"logs/link", "logs/chain"}) {
            CProgram host(HostWith({"--log", log, "--output", "out", "--run-once"}));
            EXPECT_EQ(host.Wait(), 2) << log;
            EXPECT_NE(host.Output().find("a task could write to the log"), std::string::npos)
                << host.Output();
        }
        EXPECT_EQ(std::filesystem::exists("out/task.log"), exists);
    }
    EXPECT_EQ(ReadFile("out/task.log"), "");
    CProgram host(HostWith({"--log", "logs/deeper", "--output", "out", "--check"}));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    std::filesystem::create_symlink("loop", "logs/loop");
    CProgram looping(HostWith({"--log", "logs/loop", "--output", "out", "--check"}));
    EXPECT_EQ(looping.Wait(), 1) << looping.Output();
}

// ---- The journal ------------------------------------------------------------------------------

// Enters a mount namespace with a /run of its own.
static bool HideRunTimeFiles() {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        WriteFile("/proc/self/setgroups", "deny");
        WriteFile("/proc/self/uid_map", uid + ' ' + uid + " 1");
        WriteFile("/proc/self/gid_map", gid + ' ' + gid + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/run", "tmpfs", 0, nullptr) == 0 &&
           std::filesystem::create_directories("/run/systemd/journal");
}

// A fake journal: writes what it reads from each connection to a file "stream N" once it is closed.
static int ServeStreams(int listener) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int number = 1;; ++number) {
        const int stream = accept(listener, nullptr, nullptr);
        std::string content;
        char block[4096];
        ssize_t count = 0;
        while ((count = read(stream, block, sizeof block)) > 0)
            content.append(block, static_cast<std::size_t>(count));
        close(stream);
        WriteFile("stream.new", content);
        std::filesystem::rename("stream.new", "stream " + std::to_string(number));
    }
}

static bool StartJournal() {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/systemd/journal/stdout"};
    if (bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(listener, 8) != 0)
        return false;
    if (fork() == 0)
        _exit(ServeStreams(listener));
    close(listener);
    return true;
}

RUN_AGAIN(HostThatWritesToTheJournal) {
    if (!HideRunTimeFiles() || (arguments[0] == "with one" && !StartJournal()))
        return 99;
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", "--output", "journal",
          static_cast<char*>(nullptr));
    return 98;
}

TEST(HostOutput, JournalHasAStreamForEachLaunch) {
    CHost host(ThisProgramAs("HostThatWritesToTheJournal", {"with one"}));
    CreateDue("the task", cWriter, "text");
    // The first stream is the host's own, opened to find out whether there is a journal.
    WaitUntil([] { return std::filesystem::exists("stream 2"); });
    EXPECT_EQ(ReadFile("stream 2"),
              "task/the%20task\n\n6\n1\n0\n0\n0\noutput text\nerror text\ninput 0\n");
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("journal"), 0U) << host.Output();
}

// Its lines would pass for the host's own.
TEST(HostOutput, NoTaskWritesToTheJournalUnderTheIdentifierOfTheHost) {
    CHost host(ThisProgramAs("HostThatWritesToTheJournal", {"with one"}));
    CreateDue("vxschedd", cWriter, "text");
    WaitUntil([] { return std::filesystem::exists("stream 2"); });
    EXPECT_TRUE(ReadFile("stream 2").starts_with("task/vxschedd\n\n6\n")) << ReadFile("stream 2");
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostOutput, WithoutAJournalProgramsInheritAndTheLogIsWarned) {
    CHost host(ThisProgramAs("HostThatWritesToTheJournal", {"without"}));
    EXPECT_EQ(host.CountInOutput("cannot connect to the journal: No such file or directory"), 1U)
        << host.Output();
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("\noutput text\n")) << host.Output();
    WaitForTheTicksEnd();
    CreateDue("again", cWriter, "other");
    EXPECT_TRUE(host.WaitForOutput("\noutput other\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("cannot connect to the journal"), 1U) << "at the startup";
}
