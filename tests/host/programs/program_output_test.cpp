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

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "runs/COutputFile.h"
#include "runs/COutputReader.h"
#include "runs/OutputFiles.h"
#include "runs/RunningRuns.h"

static const std::string cWriter = PROGRAMS "/write-lines";

// What is kept of the task's last run.
static std::string OutputOf(const std::string& task) {
    const std::vector<vxsched::TOutput> outputs = vxsched::FindOutputs(".", task);
    if (outputs.empty())
        return "";
    vxsched::COutputReader reader(outputs[0].path);
    std::string output;
    for (std::string bytes = reader.Next(); !bytes.empty(); bytes = reader.Next())
        output += bytes;
    return output;
}

// ---- Copied to where the host writes, or kept only --------------------------------------------

TEST(HostOutput, IsInheritedByDefaultAndInputIsEmpty) {
    CHost host;
    CreateDue("task", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("\ntask: input 0\n")) << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\ntask: error text\n")) << host.Output();
    EXPECT_TRUE(host.WaitForOutput("\ntask: output text\n")) << host.Output();
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
    EXPECT_TRUE(host.WaitForOutput("\ntask: input 0\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostOutput, IsCopiedNowhereIfAskedFor) {
    CHost host(HostWith({"--output", "none"}));
    CreateDue("task", cWriter, "text");
    WaitUntil([] { return OutputOf("task") == "output text\nerror text\ninput 0\n"; });
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("text\n"), 0U) << host.Output();
}

// Nor sends a name anything to a terminal.
TEST(HostOutput, NameOfATaskForgesNoLine) {
    CHost host;
    CreateDue("task\nvxschedd\x1b", cWriter, "text");
    EXPECT_TRUE(host.WaitForOutput("output text\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("\nvxschedd"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("\x1b"), 0U) << host.Output();
}

TEST(HostOutput, IsKeptUpToItsSize) {
    CHost host(HostWith({"--output-size", "8"}));
    CreateDue("task", cWriter, "text");
    WaitUntil([] { return OutputOf("task") == "input 0\n"; });
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

// A kill or a restart of the host breaks no pipe of a running program.
TEST(HostOutput, OfAProgramThatOutlivesTheHostIsKept) {
    std::size_t runs = 0;
    for (const int end : {SIGTERM, SIGKILL}) {
        for (const char* const file : {"begun", "go", "host.log"})
            std::filesystem::remove(file);
        // The runner has the host's output too, and Wait() waits for the end of that.
        CProgram host(
            {"/bin/sh", "-c", "exec \"$0\" --directory . >> host.log 2>&1", HOST_PROGRAM});
        WaitUntil([] { return LogHolds("host.log", " as process ") && WorkerIsIdle(); });
        WriteFile("script",
                  "echo before; touch begun; while [ -e script ] && [ ! -e go ]; do sleep 0.01; "
                  "done; echo after; exit 3");
        CreateDue("task", "/bin/sh", "script");
        WaitUntil([] { return std::filesystem::exists("begun"); });
        WaitForTheTicksEnd();
        host.Kill(end);
        host.Wait();
        CHost next;
        WriteFile("go", "");
        ++runs;
        WaitUntil([&] { return CountLines("files/history.jsonl") == runs; });
        const std::string record = Lines("files/history.jsonl").back();
        EXPECT_NE(record.find("\"outcome\":\"exited\""), std::string::npos) << record;
        EXPECT_NE(record.find("\"status\":3"), std::string::npos) << record;
        EXPECT_EQ(OutputOf("task"), "before\nafter\n");
        EXPECT_EQ(next.Stop(), 0);
    }
}

// Leaves an output of a task, which is forty days old.
static void LeaveOldOutput(const std::string& task) {
    MakeOutputFile(task, "1", 100).Append("old");
    const std::filesystem::path path = OutputPathOf(task, "1");
    const auto time = std::filesystem::file_time_type::clock::now() - std::chrono::days(40);
    std::filesystem::last_write_time(path, time);
    std::filesystem::last_write_time(path.parent_path(), time);
}

TEST(HostOutput, OfATaskThatIsGoneIsRemovedOnceItIsOld) {
    WriteTable({{"here", cFar, 0, 24, cWriter, "text", 0}});
    const std::vector<std::vector<std::string>> hosts = {HostWith({}), HostWith({"--run-once"})};
    for (const std::vector<std::string>& command : hosts) {
        LeaveOldOutput("here");
        LeaveOldOutput("gone");
        CProgram host(command);
        WaitUntil([] { return !std::filesystem::exists("files/output/gone"); });
        host.Kill(SIGTERM);
        EXPECT_EQ(host.Wait(), 0) << host.Output();
        EXPECT_EQ(OutputOf("here"), "old");
        std::filesystem::remove_all("files/output");
    }
}

TEST(HostHistory, DeathOfARunnerOfTheHostBeforeIsRecordedWhileTheNextRuns) {
    CProgram host({"/bin/sh", "-c", "exec \"$0\" --directory . >> host.log 2>&1", HOST_PROGRAM});
    WaitUntil([] { return LogHolds("host.log", " as process ") && WorkerIsIdle(); });
    CreateDue("task", "/bin/sleep", "1000");
    WaitUntil([] { return !vxsched::FindRunningRuns(".", "task").empty(); });
    WaitForTheTicksEnd();
    host.Kill(SIGKILL);
    host.Wait();
    CHost next;
    const vxsched::TRunning running = vxsched::FindRunningRuns(".", "task").at(0);
    kill(running.runner, SIGKILL);
    WaitUntil([] { return CountLines("files/history.jsonl") == 1; });
    EXPECT_NE(Lines("files/history.jsonl").at(0).find("\"runner died\""), std::string::npos);
    kill(running.run.process, SIGKILL);
    EXPECT_EQ(next.Stop(), 0);
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
    EXPECT_TRUE(host.WaitForOutput("\ntask: output text\n")) << host.Output();
    WaitForTheTicksEnd();
    CreateDue("again", cWriter, "other");
    EXPECT_TRUE(host.WaitForOutput("\nagain: output other\n")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("cannot connect to the journal"), 1U) << "at the startup";
}
