// The host after one that was killed: tasks that the previous host did not get to are launched, and
// none is launched twice.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;

TEST(HostAfterAKill, TaskWhoseLaunchEndedTheHostDoesNotEndTheNext) {
    WriteTable({{"bad", cFar, 0, 24, "/bin/a.sh", "", 0},
                {"good", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host;
    TRows rows = ReadTable();
    rows[0].next = rows[1].next = std::time(nullptr);
    SaveTable(rows);
    WakeChanged();
    EXPECT_EQ(host.Wait(), 1000 + SIGABRT);
    WaitUntil([&] { return std::time(nullptr) > rows[0].next; });
    CHost next;
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("log"); });
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(next.Stop(), 0);
}

TEST(HostAfterAKill, UnsavedLaunchIsNotRepeated) {
    // The host is killed in the middle of a tick: the launch is made and not saved.
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host(HostThatPauses());
    const TRows rows = StartTheOnlyTask();
    host.Kill(SIGKILL);
    host.Wait();
    EXPECT_EQ(ReadTable(), rows) << "not saved";
    CHost next;
    EXPECT_EQ(ReadTable()[0].next, rows[0].next + 24 * 3600);
    EXPECT_NE(ReadTable()[0].last, 0);
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n");
}

// A host that is just being killed is not taken for a second one.
TEST(HostAfterAKill, TheNextHostMayBeStartedAtOnce) {
    for (int attempt = 0; attempt < 10; ++attempt) {
        CHost host;
        host.Kill(SIGKILL);
        CHost next;
        EXPECT_EQ(next.Stop(), 0) << next.Output();
    }
}

TEST(HostAfterAKill, TasksDueUnderThePreviousHostAreLaunched) {
    WriteTable({Row("other")});
    {
        CHost host;
        host.Kill(SIGKILL);
        host.Wait();
    }
    const std::int64_t due = std::time(nullptr);
    WriteTable({{"due", due, 0, 24, PROGRAMS "/append-text", "log", 0},
                {"once", due, 0, 0, PROGRAMS "/append-text", "once", 0},
                {"missed", due - 1'000'000, 0, 24, PROGRAMS "/append-text", "missed", 0}});
    WaitUntil([&] { return std::time(nullptr) > due; });
    CHost host;
    WaitUntil([] { return fs::exists("log"); });
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("once"); });
    EXPECT_EQ(host.CountInOutput("was due at"), 2U) << host.Output();
    EXPECT_EQ(host.CountInOutput("missed while no host ran: task \"missed\""), 1U);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable().at(0).next, due + 24 * 3600) << "on its grid";
    EXPECT_FALSE(fs::exists("missed")) << "no host was up when it was due";
    EXPECT_EQ(ReadFile("log"), "log\n");
}
