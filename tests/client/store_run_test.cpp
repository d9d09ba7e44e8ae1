// Runs outside the schedule by the client library: their process, their exit status, and the table
// afterwards. The processes of a program with the same parameter that other tests run count as the
// task's, so a run that may not be refused is forced, or has a parameter of its own.

#include <gtest/gtest.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ClientError.h"
#include "ClientStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

TEST_F(ClientStore, RunStartsTheProgramOutsideTheSchedule) {
    const TTime next = In(1h);
    store.Create(Task("a", next), false);
    store.Pause({"a"});
    TRun reported;
    const TRun run = store.Run("a", true, true, [&](const TRun& launched) { reported = launched; });
    EXPECT_GT(run.process, 0);
    EXPECT_NE(run.id, "");
    EXPECT_EQ(reported.process, run.process);
    EXPECT_EQ(reported.id, run.id);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(RecordedArgument("a parameter"), "argument a parameter");
    const TRow row = ::ReadTable().at(0);
    EXPECT_EQ(row.next, Seconds(next));
    EXPECT_GE(row.last, Seconds(In(-10s)));
    EXPECT_EQ(row.paused, 1U);
}

TEST_F(ClientStore, RunGivesTheProgramTheTasksNameAndNoDueTime) {
    setenv("VXSCHED_TASK", "another", 1);
    setenv("VXSCHED_DUE", "1", 1);
    store.Create({"a", In(1h), 24, PROGRAMS "/record-environment", "variables"}, false);
    store.Run("a", true, true);
    EXPECT_EQ(ReadFile("variables"), "VXSCHED_TASK=a\n");
}

TEST_F(ClientStore, RunReportsTheEnd) {
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "status 3"}, false);
    EXPECT_EQ(WEXITSTATUS(store.Run("a", true, true).status.value()), 3);
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "signal 9"}, true);
    EXPECT_EQ(WTERMSIG(store.Run("a", true, true).status.value()), SIGKILL);
}

TEST_F(ClientStore, RunOfWhatRunsAlreadyIsRefusedUnlessForced) {
    store.Create({"a", In(1h), 24, PROGRAMS "/wait-for-it", fs::absolute("end it")}, false);
    const TRun first = store.Run("a", false, false);
    const std::string message = ErrorOf(EError::cRefused, [&] { store.Run("a", false, false); });
    EXPECT_NE(message.find(std::to_string(first.process)), std::string::npos) << message;
    const TRun second = store.Run("a", true, false);
    EXPECT_NE(first.process, second.process);
    WriteFile("end it", "");
    WaitUntil([&] { return HasEnded(first.process) && HasEnded(second.process); });
}

TEST_F(ClientStore, RunOfAMissingProgramIsRefused) {
    WriteTable({{"a", Seconds(In(1h)), 0, 24, "/no/such/program", "", 0}});
    ExpectKept([&] {
        const std::string message = ErrorOf(EError::cRefused, [&] { store.Run("a", true, false); });
        EXPECT_NE(message.find("/no/such/program"), std::string::npos) << message;
        ErrorOf(EError::cNotFound, [&] { store.Run("b", true, false); });
    });
}

TEST_F(ClientStore, EndOfARunIsKnownAlsoToAClientThatIgnoresChildren) {
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "status 3"}, false);
    CForkedChild child([&] {
        std::signal(SIGCHLD, SIG_IGN);
        return WEXITSTATUS(store.Run("a", true, true).status.value());
    });
    EXPECT_EQ(child.Wait(), 3);
}

TEST_F(ClientStore, TwoRunsAtOnceAreOne) {
    store.Create({"a", In(1h), 24, PROGRAMS "/wait-for-it", fs::absolute("end it")}, false);
    std::atomic<int> launched{0};
    std::vector<std::thread> clients;
    for (int client = 0; client < 4; ++client) {
        clients.emplace_back([&] {
            try {
                CStore({}).Run("a", false, false);
                ++launched;
            } catch (const CError& error) {
                EXPECT_EQ(error.Code(), EError::cRefused) << error.what();
            }
        });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(launched, 1);
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

// The add-in does not announce a launch outside the schedule.
TEST_F(ClientStore, LastLaunchOfARunOutlivesWhatTheSchedulerWrites) {
    CHost host;
    store.Create(Task("a"), false);
    store.Run("a", true, false);
    store.Create({"due", Now(), 24, cRecorder, "scheduled"}, false);
    EXPECT_EQ(RecordedArgument("scheduled"), "argument scheduled");
    WaitUntil([&] { return store.Read().Find("due")->last != TTime(); });
    EXPECT_NE(store.Read().Find("a")->last, TTime());
    EXPECT_EQ(host.Stop(), 0);
}
