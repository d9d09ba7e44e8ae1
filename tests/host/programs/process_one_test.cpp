// A host that is process 1 of a PID namespace, as in a container: orphans become its children.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "base/Processes.h"
#include "runs/HistoryReader.h"

namespace fs = std::filesystem;

namespace {

// The zombies among the children of process 1, by their names.
std::string Zombies() {
    std::string names;
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const auto status = vxsched::ReadProcessStat(entry.path());
        if (status && status->HasEnded())
            names += status->name + ' ';
    }
    return names;
}

// Launches a program that leaves two processes of its own to the host, one after the other.
void LeaveOrphans() {
    WriteFile(
        "script",
        "(while [ -e files ] && [ ! -e go ]; do sleep 0.01; done; touch gone) & echo $! > orphan");
    WaitUntil(WorkerIsIdle);
    CreateDue("daemon", "/bin/sh", "script");
    WaitUntil([] { return vxsched::ReadHistory(".", "daemon").runs.size() == 1; });
    const TRunRecord run = vxsched::ReadHistory(".", "daemon").runs.front();
    EXPECT_EQ(run.outcome, TRunRecord::cExited);
    EXPECT_EQ(run.number, 0);
    EXPECT_TRUE(fs::exists("/proc/" + Lines("orphan").at(0)));
    WriteFile("go", "");
    WaitUntil([] { return fs::exists("gone"); });
    WaitUntil([] { return !fs::exists("/proc/" + Lines("orphan").at(0)); });
    WaitUntil([] { return Zombies().empty(); });
    WaitForTheTicksEnd();
}

}  // namespace

TEST(HostAsProcessOne, CollectsOrphansAndNoProgramBeforeTheAddInHasWaitedForIt) {
    const int status = RunInPidNamespace([] {
        if (fork() == 0) {
            LeaveOrphans();
            WriteFile("result", testing::Test::HasFailure() ? "failed" : "passed");
            kill(1, SIGTERM);
            _exit(0);
        }
        return execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", "--log", "log", nullptr);
    });
    if (status == -1)
        GTEST_SKIP() << cCannotMount;
    EXPECT_EQ(status, 0);
    EXPECT_EQ(ReadFile("result"), "passed");
    const std::string log = ReadFile("log");
    EXPECT_EQ(log.find("something else collected"), std::string::npos) << log;
}
