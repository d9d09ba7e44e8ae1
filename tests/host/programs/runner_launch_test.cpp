// A host whose runner, the vxrun next to it, is missing or of no use: each program is launched all the
// same, once, and recorded once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "runs/HistoryReader.h"
#include "store/MutexHolders.h"
#include "store/StoreMutexState.h"

namespace fs = std::filesystem;

namespace {

class RunnerLaunch : public testing::Test {
protected:
    // A copy of the host in a directory of its own.
    RunnerLaunch() {
        const fs::path program = HOST_PROGRAM;
        for (const char* const path : {"bin", "lib", "files", "one.log", "two.log"})
            fs::remove_all(path);
        fs::create_directory("bin");
        fs::copy_file(program, "bin/vxschedd");
        fs::create_directory_symlink(program.parent_path().parent_path() / "lib", "lib");
    }

    static void InstallRunner(const std::string& script) {
        WriteFile("bin/vxrun", "#!/bin/sh\n" + script);
        fs::permissions("bin/vxrun", fs::perms::owner_all);
    }

    static std::vector<std::string> Command() {
        return {"bin/vxschedd", "--directory", ".", "--addin", ADDIN_LIBRARY};
    }

    static TRunRecord OnlyRun(const std::string& task) {
        std::vector<TRunRecord> runs;
        WaitUntil([&] {
            runs = vxsched::ReadHistory(".", task).runs;
            return !runs.empty();
        });
        EXPECT_EQ(runs.size(), 1U);
        return runs.front();
    }

    static void ExpectDirectLaunches() {
        CHost host(Command());
        for (const std::string task : {"one", "two"}) {
            CreateDue(task, PROGRAMS "/append-text", task + ".log");
            const TRunRecord run = OnlyRun(task);
            EXPECT_EQ(run.outcome, TRunRecord::cExited);
            EXPECT_NE(run.id, "");
            EXPECT_EQ(run.trigger, cScheduled);
            EXPECT_EQ(run.attempt, 1);
            EXPECT_EQ(run.output, "");
            EXPECT_EQ(Lines(task + ".log").size(), 1U);
            WaitForTheTicksEnd();
        }
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("programs are launched without the runner vxrun"), 1U)
            << host.Output();
    }
};

}  // namespace

TEST_F(RunnerLaunch, WithoutARunnerIsDirect) {
    ExpectDirectLaunches();
}

TEST_F(RunnerLaunch, WithARunnerThatTheSystemCannotLoadIsDirect) {
    InstallRunner("exit 127\n");
    ExpectDirectLaunches();
}

TEST_F(RunnerLaunch, WithARunnerThatIsGoneSinceTheStartupIsDirect) {
    InstallRunner("exit 127\n");
    CHost host(Command());
    fs::remove("bin/vxrun");
    CreateDue("one", PROGRAMS "/append-text", "one.log");
    EXPECT_EQ(OnlyRun("one").outcome, TRunRecord::cExited);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(Lines("one.log").size(), 1U);
}

// It may have launched the program, so that nobody else may.
TEST_F(RunnerLaunch, WithARunnerThatIsKilledIsRecordedAsThat) {
    InstallRunner("kill -9 $$\n");
    CHost host(Command());
    CreateDue("one", PROGRAMS "/append-text", "one.log");
    const TRunRecord run = OnlyRun("one");
    EXPECT_EQ(run.outcome, TRunRecord::cRunnerDied);
    EXPECT_TRUE(run.due);
    EXPECT_NE(run.id, "");
    EXPECT_EQ(run.trigger, cScheduled);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_FALSE(fs::exists("one.log"));
}

// The worker waits for its report under the store mutex, which nobody else may set free.
TEST_F(RunnerLaunch, WithARunnerThatDoesNotReportKeepsTheStoreMutex) {
    InstallRunner("echo $$ > runner; exec sleep 1000\n");
    CHost host(Command());
    CreateDue("one", PROGRAMS "/append-text", "one.log");
    WaitUntil([] { return CountLines("runner") == 1; });
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    const auto state = vxsched::InspectStoreMutex();
    ASSERT_TRUE(state);
    const auto holder = vxsched::FindPossibleHolder(*state);
    EXPECT_TRUE(holder && holder->process == host.Id());
    kill(std::stoi(ReadFile("runner")), SIGKILL);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}
