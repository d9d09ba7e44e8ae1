// Runs the command vxsched next to a running host in the situations in which loading the add-in
// could do harm: at the second of a due time, in parallel, during a tick, and killed at random
// moments.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxsched/Table.h>
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

static const std::string cRecorder = PROGRAMS "/record-launch";

static TRow Later(const std::string& name) {
    return {name, std::time(nullptr) + 3600, 0, 24, cRecorder, "a parameter", 0};
}

static vxsched::TTable TableNow() {
    return vxsched::ReadTable(".", 10s);
}

// Runs `body` in a child process with its own store, so that several can run in parallel.
static std::unique_ptr<CForkedChild> RunInOwnStore(const std::string& directory,
                                                   const std::function<void()>& body) {
    return std::make_unique<CForkedChild>([&] {
        if (unshare(CLONE_NEWIPC) != 0)
            return 1;
        fs::create_directories(directory + "/files");
        fs::current_path(directory);
        body();
        return testing::Test::HasFailure() ? 2 : 42;
    });
}

// ---- At the second of a due time --------------------------------------------------------------

// Seconds within which creating the task must be finished.
#ifdef PLAIN_BUILD
static constexpr int cAhead = 2;
#else
static constexpr int cAhead = 10;
#endif

// A task that runs once becomes due, and another task is changed at a random moment around that
// second. The due task must run exactly once.
static void ChangeAroundADueTime(int iteration, std::mt19937& random) {
    const std::string record = "record " + std::to_string(iteration);
    const std::string task = "once " + std::to_string(iteration);
    const std::time_t due = std::time(nullptr) + cAhead;
    const TToolRun create = RunTool({"create", task, "--at", "@" + std::to_string(due), "--force",
                                     "past-due", "--", cRecorder, record});
    ASSERT_EQ(create.status, 0) << create.error;
    const auto offset =
        std::chrono::milliseconds(std::uniform_int_distribution<>(-300, 300)(random));
    const auto moment = std::chrono::system_clock::from_time_t(due) + offset;
    std::this_thread::sleep_until(moment);
    const TToolRun pause = RunTool({iteration % 2 == 0 ? "pause" : "resume", "other"});
    EXPECT_EQ(pause.status, 0) << pause.error;
    WaitUntil([&] { return fs::exists(record); });
    WaitUntil([&] { return TableNow().Find(task) == nullptr; });
    EXPECT_EQ(TableNow().Find("other")->paused, iteration % 2 == 0);
}

class CliAtADueTime : public testing::TestWithParam<int> {};

TEST_P(CliAtADueTime, NothingIsRemovedWithoutARun) {
    constexpr int cStores = 25;
#ifdef PLAIN_BUILD
    constexpr int cIterations = 4;
#else
    constexpr int cIterations = 1;
#endif
    std::vector<std::unique_ptr<CForkedChild>> stores;
    for (int store = 0; store < cStores; ++store) {
        stores.push_back(RunInOwnStore("store " + std::to_string(store), [&] {
            WriteTable({Later("other")});
            CHost host;
            std::mt19937 random(static_cast<unsigned int>(GetParam() * cStores + store));
            for (int iteration = 0; iteration < cIterations; ++iteration)
                ChangeAroundADueTime(iteration, random);
            EXPECT_EQ(host.CountInOutput("started process"), 0U)
                << "the output has not been read yet";
            EXPECT_EQ(host.Stop(), 0);
            EXPECT_EQ(host.CountInOutput("started process"), static_cast<std::size_t>(cIterations))
                << host.Output();
        }));
    }
    for (const auto& store : stores)
        EXPECT_EQ(store->Wait(), 42);
}

INSTANTIATE_TEST_SUITE_P(Half, CliAtADueTime, testing::Values(0, 1));

// ---- Next to other processes ------------------------------------------------------------------

TEST(CliSafety, CommandsInParallelLoseNothing) {
    WriteTable({});
    const CHost host;
    std::vector<std::thread> commands;
    for (int command = 0; command < 20; ++command) {
        commands.emplace_back([command] {
            const TToolRun run = RunTool({"create", "task " + std::to_string(command),
                                          "--lock-timeout", "60", "--at", "in 1h", "--every", "1d",
                                          "--", cRecorder, std::to_string(command)});
            EXPECT_EQ(run.status, 0) << run.error;
        });
    }
    for (std::thread& command : commands)
        command.join();
    const vxsched::TTable table = TableNow();
    EXPECT_EQ(table.tasks.size(), 20U);
    for (int command = 0; command < 20; ++command)
        EXPECT_NE(table.Find("task " + std::to_string(command)), nullptr) << command;
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
}

TEST(CliSafety, CommandDuringATickLosesNoChangeAndBreaksNoLock) {
    WriteTable({});
    CHost host(HostThatPauses());
    ReplaceTable({{"slow", std::time(nullptr), 0, 24, PROGRAMS "/wait-for-it", "end it", 0}});
    WakeWorker();
    // The tick lasts two seconds more after the launch; a value of 0 could be missed on a busy
    // machine.
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    const TToolRun run = RunTool({"create", "other", "--at", "in 1h", "--", cRecorder});
    EXPECT_EQ(run.status, 0) << run.error;
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
    const vxsched::TTable table = TableNow();
    ASSERT_EQ(table.tasks.size(), 2U);
    EXPECT_NE(table.Find("slow")->last, vxsched::TTime()) << "the tick must have saved the launch";
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("started process"), 1U);
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

TEST(CliSafety, LockOfAStoppedHolderIsNotBroken) {
    WriteTable({Later("a")});
    EXPECT_EQ(RunTool({"pause", "a"}).status, 0);
    CForkedChild holder([] {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile("held", "");
        raise(SIGSTOP);
        return StoreSemaphoreValue() == 0 ? 42 : 1;
    });
    WaitUntil([] { return fs::exists("held"); });
    const TToolRun run = RunTool({"resume", "a", "--lock-timeout", "0.1"});
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.error, testing::HasSubstr("process " + std::to_string(holder.Id())));
    EXPECT_THAT(run.error, testing::HasSubstr("nothing was changed; try again"));
    WaitUntil([&] {
        holder.Kill(SIGCONT);
        return StoreSemaphoreValue() == 1;
    });
    EXPECT_EQ(holder.Wait(), 42);
    EXPECT_EQ(ReadTable()[0].paused, 1U);
}

TEST(CliSafety, RefusedRepairLeavesNoQuarantineFile) {
    WriteTable({Later("a")});
    WriteFile(cTable, "damaged");
    const vxsched::CWriterLock lock(".", 10s);
    const TToolRun run = RunTool({"repair", "--lock-timeout", "0.1"});
    EXPECT_EQ(run.status, 1) << run.error;
    EXPECT_EQ(QuarantinedFile(), "");
    EXPECT_EQ(ReadFile(cTable), "damaged");
}

// ---- Hosts that start and exit ----------------------------------------------------------------

static std::unique_ptr<CProgram> StartHost() {
    auto host =
        std::make_unique<CProgram>(std::vector<std::string>{HOST_PROGRAM, "--directory", "."});
    EXPECT_TRUE(host->WaitForOutput(" as process ")) << host->Output();
    return host;
}

TEST(CliSafety, HostsThatStartAndExitLoseNoChange) {
    WriteTable({Later("base")});
    std::vector<std::thread> clients;
    constexpr int cClients = 3;
    constexpr int cTasks = 25;
    for (int client = 0; client < cClients; ++client) {
        clients.emplace_back([client] {
            for (int task = 0; task < cTasks; ++task) {
                const TToolRun run = RunTool(
                    {"create", "task " + std::to_string(client) + ' ' + std::to_string(task),
                     "--at", "in 1h", "--", cRecorder});
                EXPECT_EQ(run.status, 0) << run.error;
            }
        });
    }
    for (int iteration = 0; iteration < 12; ++iteration) {
        const std::unique_ptr<CProgram> host = StartHost();
        host->Kill(iteration % 2 == 0 ? SIGTERM : SIGKILL);
        host->Wait();
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(TableNow().tasks.size(), 1U + cClients * cTasks);
    EXPECT_NE(TableNow().Find("base"), nullptr);
}

// ---- Killed commands --------------------------------------------------------------------------

// No command removes these three tasks.
static void ExpectKept(int iteration) {
    const vxsched::TTable table = TableNow();
    for (const char* const name : {"first", "second", "third"})
        ASSERT_NE(table.Find(name), nullptr) << name << " in iteration " << iteration;
}

static bool IsDamaged() {
    return RunTool({"check"}).status == 5;
}

static std::string ChildrenOf(pid_t process) {
    const std::string id = std::to_string(process);
    return ReadFile("/proc/" + id + "/task/" + id + "/children");
}

struct TKill {
    bool withItsChange;  // the process that makes the change is killed as well
    bool withAHost;
};

class CliKilled : public testing::TestWithParam<TKill> {
protected:
    static void KillAtARandomMoment(const std::vector<std::string>& command, std::mt19937& random) {
        const pid_t process = fork();
        if (process == 0) {
            std::vector<char*> arguments{const_cast<char*>(TOOL_PROGRAM)};
            for (const std::string& argument : command)
                arguments.push_back(const_cast<char*>(argument.c_str()));
            arguments.push_back(nullptr);
            const int nowhere = open("/dev/null", O_WRONLY);
            dup2(nowhere, STDOUT_FILENO);
            dup2(nowhere, STDERR_FILENO);
            execv(arguments[0], arguments.data());
            _exit(127);
        }
        std::this_thread::sleep_for(
            std::chrono::microseconds(std::uniform_int_distribution<>(0, 25'000)(random)));
        const std::string children = GetParam().withItsChange ? ChildrenOf(process) : "";
        kill(process, SIGKILL);
        if (!children.empty())
            kill(std::stoi(children), SIGKILL);
        while (waitpid(process, nullptr, 0) == -1) {
        }
    }
};

TEST_P(CliKilled, LeavesAValidTableAndAFreeMutex) {
    WriteTable({Later("first"), Later("second"), Later("third")});
    const std::unique_ptr<CProgram> host = GetParam().withAHost ? StartHost() : nullptr;
    std::mt19937 random(1);
    const std::string longParameter(20'000, 'p');
    const std::vector<std::string> commands[] = {
        {"create", "new", "--replace", "--at", "in 1h", "--", cRecorder, longParameter},
        {"pause", "second", "first", "third"},
        {"create", "link", "--replace", "--at", "in 1h", "--", "/usr/bin/free"},
        {"edit", "first", "--parameter", longParameter + longParameter},
        {"remove", "new", "link"},
        {"resume", "second", "third", "first"}};
#ifdef PLAIN_BUILD
    constexpr int cIterations = 250;
#else
    constexpr int cIterations = 50;
#endif
    for (int iteration = 0; iteration < cIterations; ++iteration) {
        KillAtARandomMoment(commands[iteration % 6], random);
        {
            // Throws if the killed process has left the mutex locked.
            const vxsched::CStoreMutexLock lock(60s);
        }
        EXPECT_FALSE(IsDamaged()) << "in iteration " << iteration;
        ExpectKept(iteration);
        if (HasFailure())
            return;
    }
    EXPECT_EQ(RunTool({"pause", "third"}).status, 0);
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
    if (host) {
        host->Kill(SIGTERM);
        EXPECT_EQ(host->Wait(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Alone, CliKilled,
                         testing::Values(TKill{false, false}, TKill{true, false}));
INSTANTIATE_TEST_SUITE_P(WithAHost, CliKilled,
                         testing::Values(TKill{false, true}, TKill{true, true}));

static void PrintTo(const TKill& killed, std::ostream* out) {
    *out << (killed.withItsChange ? "with its change" : "the command alone");
}
