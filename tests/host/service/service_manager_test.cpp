// The host under a fake service manager: what it reports, and how the log looks where standard
// error is the journal.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "LogCapture.h"
#include "NotifySocket.h"
#include "Process.h"

using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using namespace std::chrono_literals;

// ---- Notifications ----------------------------------------------------------------------------

TEST(HostService, IsNotifiedOfReadinessStatusAndStop) {
    CNotifySocket socket;
    CHost host;
    EXPECT_EQ(socket.Next(), "READY=1");
    EXPECT_EQ(socket.Next(), "STATUS=waiting for the next task");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_THAT(socket.Waiting(), ElementsAre("STOPPING=1"));
}

TEST(HostService, IsNotifiedHowManyProgramsRun) {
    CNotifySocket socket;
    CHost host;
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_THAT(
        socket.Until("STATUS=1 program(s) running"),
        ElementsAre("READY=1", "STATUS=waiting for the next task", "STATUS=1 program(s) running"));
    WriteFile("end it", "");
    EXPECT_EQ(socket.Next(), "STATUS=waiting for the next task");
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostService, IsNotNotifiedOfReadinessByAHostThatCannotRun) {
    CNotifySocket socket;
    std::filesystem::create_directories("files/scheduler.dat");  // nothing to repair
    CProgram host({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_THAT(socket.Waiting(), ElementsAre());
}

class CWatchdogTime {
public:
    explicit CWatchdogTime(const char* microseconds) { setenv("WATCHDOG_USEC", microseconds, 1); }
    ~CWatchdogTime() { unsetenv("WATCHDOG_USEC"); }
    CWatchdogTime(const CWatchdogTime&) = delete;
    CWatchdogTime& operator=(const CWatchdogTime&) = delete;
};

TEST(HostService, WatchdogIsNotifiedRepeatedlyWhileTheWorkerIsAlive) {
    CNotifySocket socket;
    const CWatchdogTime time("100000");
    CHost host;
    socket.Until("WATCHDOG=1");
    EXPECT_THAT(socket.Until("WATCHDOG=1"), ElementsAre("WATCHDOG=1"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostService, WatchdogIsNotNotifiedWhileTheWorkerWaitsForTheMutex) {
    CNotifySocket socket;
    const CWatchdogTime time("100000");
    CHost host;
    {
        const vxsched::CStoreMutexLock lock(1h);
        ASSERT_TRUE(lock.IsHeld());
        WakeWorker();
        EXPECT_TRUE(host.WaitForOutput("the worker is stuck")) << host.Output();
        socket.Until("STATUS=the worker is stuck");
        EXPECT_THAT(socket.Waiting(), Not(Contains("WATCHDOG=1")));
    }
    EXPECT_TRUE(host.WaitForOutput("the worker is alive again")) << host.Output();
    EXPECT_EQ(socket.Next(), "WATCHDOG=1");
    EXPECT_EQ(socket.Next(), "STATUS=waiting for the next task");
    EXPECT_EQ(host.Stop(), 0);
}

// ---- The unit ---------------------------------------------------------------------------------

static std::vector<std::string> ValuesInUnit(const std::string& key) {
    std::istringstream lines(ReadFile(SERVICE_UNIT));
    std::vector<std::string> values;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with(key + '='))
            values.push_back(line.substr(key.size() + 1));
    }
    return values;
}

TEST(ServiceUnit, ExpectsNotificationsAndLeavesTheStoreReachable) {
    EXPECT_THAT(ValuesInUnit("Type"), ElementsAre("notify"));
    EXPECT_THAT(ValuesInUnit("WatchdogSec"), ElementsAre("2min"));
    EXPECT_THAT(ValuesInUnit("User"), ElementsAre("vxschedd"));
    for (const char* key : {"PrivateIPC", "DynamicUser", "RemoveIPC", "PrivateUsers"})
        EXPECT_THAT(ValuesInUnit(key), ElementsAre()) << key;
}

// Once a full disk has room again, the table can be repaired.
TEST(ServiceUnit, RetriesATableThatCouldNotBeRepaired) {
    EXPECT_THAT(ValuesInUnit("Restart"), ElementsAre("on-failure"));
    EXPECT_THAT(ValuesInUnit("RestartPreventExitStatus"), ElementsAre("2 3 4 5"));
}

TEST(ServiceUnit, StartsTheHostWithOptionsThatItHas) {
    const std::vector<std::string> commands = ValuesInUnit("ExecStart");
    ASSERT_EQ(commands.size(), 1U);
    std::istringstream words(commands[0]);
    std::vector<std::string> command;
    for (std::string word; words >> word;) {
        if (const std::size_t place = word.find("%S/"); place != std::string::npos)
            word.replace(place, 3, "./");
        command.push_back(word);
    }
    EXPECT_TRUE(command.at(0).ends_with("/bin/vxschedd")) << command.at(0);
    command[0] = HOST_PROGRAM;
    command.emplace_back("--check");
    std::filesystem::create_directory("vxschedd");
    CProgram host(command);
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

// ---- The log where standard error is the journal ----------------------------------------------

RUN_AGAIN(HostOnTheJournal) {
    struct stat status {};
    fstat(STDERR_FILENO, &status);
    const std::string stream = std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
    setenv("JOURNAL_STREAM", arguments.empty() ? stream.c_str() : arguments[0].c_str(), 1);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 1;
}

TEST(HostJournal, LinesBeginWithTheirPriorityAndHaveNoTime) {
    CHost host(ThisProgramAs("HostOnTheJournal"));
    CreateDue("task", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host.WaitForOutput(cStillRunning)) << host.Output();
    WriteFile("end it", "");
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    WaitForTheTicksEnd();
    CreateDue("killed", PROGRAMS "/end-with", "signal 15");
    EXPECT_TRUE(host.WaitForOutput("was killed")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    const std::string output = '\n' + host.Output();
    const std::string here = std::filesystem::current_path();
    for (const std::string& message :
         {"\n<6>running in " + here + " as process ", std::string("\n<6>started process "),
          std::string("\n<7>Failed waitpid.\n"), std::string("\n<4>process "),
          std::string("\n<6>stopped\n")})
        EXPECT_NE(output.find(message), std::string::npos) << message << output;
    std::istringstream lines(host.Output());
    for (std::string line; std::getline(lines, line);)
        EXPECT_EQ(line.front(), '<') << line;
}

TEST(HostJournal, FailureToStartIsAnErrorThere) {
    std::filesystem::create_directories("files/scheduler.dat");  // nothing to repair
    CProgram host(ThisProgramAs("HostOnTheJournal"));
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_TRUE(host.Output().starts_with("<3>cannot prepare the table")) << host.Output();
}

TEST(HostJournal, OfAnotherStreamLeavesTheTimes) {
    CHost host(ThisProgramAs("HostOnTheJournal", {"1:1"}));
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("<6>"), 0U) << host.Output();
    EXPECT_TRUE(host.Output().starts_with("20")) << host.Output();
    EXPECT_EQ(host.CountInOutput(" vxschedd: running in /"), 1U) << host.Output();
}
