// Direct clients that load the add-in at once, call it and end in every way, next to a host and to
// commands: whatever they do to the store mutex, everybody gets on. MUTEX_STRESS_ITERATIONS sets
// how often, MUTEX_STRESS_SEED repeats a run. Tasks that are lost next to direct clients are counted
// and printed; with MUTEX_STRESS_TASKS none may be.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"
#include "WedgedMutex.h"

namespace fs = std::filesystem;

static constexpr int cIterations = 50;  // MUTEX_STRESS_ITERATIONS overrides it
static constexpr int cClients = 4;
static constexpr unsigned int cNoProgress = 30;  // seconds

// A direct client: NAME SEED. Creates the file made/NAME once the creation of its task has
// returned.
RUN_AGAIN(DirectClient) {
    const std::string& name = arguments.at(0);
    std::mt19937 random(static_cast<unsigned int>(std::stoul(arguments.at(1))));
    const auto library = std::make_unique<CAddinLibrary>();
    if (random() % 8 == 0)
        raise(SIGKILL);
    library->Create(name.c_str(), cFar, 24);
    WriteFile("made/" + name, "");
    for (auto call = random() % 3; call > 0; --call) {
        if (random() % 2 == 0)
            library->PauseTask(name.c_str());
        else
            library->IsTaskRunning(name.c_str());
    }
    switch (random() % 3) {
        case 0:
            return 0;  // the finalisers remove the mutex
        case 1:
            _exit(0);
        default:
            raise(SIGKILL);
    }
    return 0;
}

// Ends the test if it is not called again for a while.
static void ReportProgress() {
    // Process 1 of a namespace gets only the signals that it handles.
    std::signal(SIGALRM, [](int) {
        static constexpr char cMessage[] = "no progress for 30 s\n";
        [[maybe_unused]] const auto written = write(STDERR_FILENO, cMessage, sizeof cMessage - 1);
        _exit(3);
    });
    alarm(cNoProgress);
}

static int Iterations() {
    const char* const number = std::getenv("MUTEX_STRESS_ITERATIONS");
    return number != nullptr ? std::atoi(number) : cIterations;
}

// A command next to the direct clients. Its status is 0 if the change was in the table, 9 if it may
// have been overwritten, and 5 if it found the table in the middle of a save of a direct client.
static TToolRun RunNextToClients(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {"--lock-timeout", "25"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return RunTool(command);
}

// How many of `made` the table does not have; prints that.
static std::size_t CountLost(const char* makers, const std::set<std::string>& made) {
    std::set<std::string> names;
    for (const TRow& row : ReadTable())
        names.insert(row.name);
    const auto lost = std::count_if(made.begin(), made.end(),
                                    [&](const std::string& name) { return !names.contains(name); });
    std::printf("lost: %td of %zu tasks of %s\n", lost, made.size(), makers);
    return static_cast<std::size_t>(lost);
}

TEST(MutexStress, DirectClientsOfEveryKindStopNobody) {
    Inspectable([] {
        const char* const given = std::getenv("MUTEX_STRESS_SEED");
        const unsigned int seed =
            given != nullptr ? static_cast<unsigned int>(std::atoi(given)) : std::random_device()();
        std::printf("MUTEX_STRESS_SEED=%u\n", seed);
        std::fflush(stdout);
        std::mt19937 random(seed);
        fs::create_directory("made");
        WriteTable({});
        ReportProgress();
        CProgram host(HostWith({"--log", "log"}));
        WaitUntil([] { return LogHolds("log", " as process ") && WorkerIsIdle(); });
        std::set<std::string> madeByCommands;
        std::map<int, int> statuses;
        for (int iteration = 0; iteration < Iterations(); ++iteration) {
            std::vector<std::unique_ptr<CProgram>> clients;
            clients.reserve(cClients);
            for (int client = 0; client < cClients; ++client)
                clients.push_back(std::make_unique<CProgram>(ThisProgramAs(
                    "DirectClient", {std::to_string(iteration) + '.' + std::to_string(client),
                                     std::to_string(random())})));
            if (iteration % 5 == 0) {
                const std::string name = "command " + std::to_string(iteration);
                const TToolRun run = RunNextToClients(
                    {"create", name, "--at", "2090-01-01 00:00", "--", "/bin/true"});
                ++statuses[run.status];
                EXPECT_TRUE(run.status == 0 || run.status == 5 || run.status == 9)
                    << run.status << run.error;
                if (run.status == 0)
                    madeByCommands.insert(name);
                ReportProgress();
            }
            for (const auto& client : clients)
                client->Wait();
            ReportProgress();
        }
        // The host restores what the last client has left.
        WaitUntil([] { return RunTool({"check"}).status == 0; });
        ReportProgress();
        // A change of the table, so that the host checks the mutex a last time.
        const TToolRun last =
            RunNextToClients({"create", "last", "--at", "2090-01-01 00:00", "--", "/bin/true"});
        EXPECT_EQ(last.status, 0) << last.error;
        ReportProgress();
        WaitUntil([] { return StoreSemaphoreValue() == 1 && WorkerIsIdle(); });
        ReportProgress();
        EXPECT_EQ(CountLost("the last command", {"last"}), 0U);
        std::set<std::string> madeByClients;
        for (const auto& made : fs::directory_iterator("made"))
            madeByClients.insert(made.path().filename().string());
        EXPECT_FALSE(madeByClients.empty());
        for (const auto& [status, count] : statuses)
            std::printf("commands with status %d: %d\n", status, count);
        // Direct clients let each other in at each load, so one's save may overwrite another's, or
        // that of a command.
        const std::size_t lost =
            CountLost("clients", madeByClients) + CountLost("commands", madeByCommands);
        std::fflush(stdout);
        if (std::getenv("MUTEX_STRESS_TASKS") != nullptr) {
            EXPECT_EQ(lost, 0U);
        }
        host.Kill(SIGTERM);
        EXPECT_EQ(host.Wait(), 0);
        alarm(0);
        if (testing::Test::HasFailure())
            std::printf("%s\n", ReadFile("log").c_str());
    });
}
