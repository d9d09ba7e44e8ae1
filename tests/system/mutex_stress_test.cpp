// Direct clients that load the add-in at once, call it and end in every way, next to a host and to
// commands: whatever they do to the store mutex, everybody gets on. MUTEX_STRESS_ITERATIONS sets
// how often, MUTEX_STRESS_SEED repeats a run; with MUTEX_STRESS_TASKS no created task may be lost.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
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
        for (int iteration = 0; iteration < Iterations(); ++iteration) {
            std::vector<std::unique_ptr<CProgram>> clients;
            for (int client = 0; client < cClients; ++client)
                clients.push_back(std::make_unique<CProgram>(ThisProgramAs(
                    "DirectClient", {std::to_string(iteration) + '.' + std::to_string(client),
                                     std::to_string(random())})));
            if (iteration % 5 == 0)
                RunTool({"--lock-timeout", "25", "create", "command " + std::to_string(iteration),
                         "--at", "2090-01-01 00:00", "--", "/bin/true"});
            for (const auto& client : clients)
                client->Wait();
            ReportProgress();
        }
        // A change of the table, so that the host checks the mutex a last time.
        const TToolRun last = RunTool({"--lock-timeout", "25", "create", "last", "--at",
                                       "2090-01-01 00:00", "--", "/bin/true"});
        EXPECT_EQ(last.status, 0) << last.error;
        ReportProgress();
        WaitUntil([] { return StoreSemaphoreValue() == 1 && WorkerIsIdle(); });
        ReportProgress();
        std::set<std::string> names;
        for (const TRow& row : ReadTable())
            names.insert(row.name);
        std::string lost;
        for (const auto& made : fs::directory_iterator("made")) {
            const std::string name = made.path().filename().string();
            if (!names.contains(name))
                lost += ' ' + name;
        }
        EXPECT_FALSE(fs::is_empty("made"));
        // Direct clients let each other in at each load, so one's save may overwrite another's.
        if (std::getenv("MUTEX_STRESS_TASKS") != nullptr)
            EXPECT_EQ(lost, "");
        else
            std::printf("lost:%s\n", lost.c_str());
        host.Kill(SIGTERM);
        EXPECT_EQ(host.Wait(), 0);
        alarm(0);
        if (testing::Test::HasFailure())
            std::printf("%s\n", ReadFile("log").c_str());
    });
}
