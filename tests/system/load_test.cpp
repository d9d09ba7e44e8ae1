// Many processes change the table at once while a scheduler ticks: no change is lost, none appears
// from nowhere, and the semaphore ends at one.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr int cClients = 8;
static constexpr int cChanges = 1000;
static constexpr long cNow = 1'000'000;
static constexpr long cFuture = 4'000'000'000;

static void Signal(const std::string& file) {
    WriteFile(file, "");
}

static void WaitFor(const std::string& file) {
    WaitUntil([&] { return std::filesystem::exists(file); });
}

// Makes its changes and records the final state of its own tasks.
RUN_AGAIN(ChangingClient) {
    const std::string me = "client " + arguments.at(0);
    std::mt19937 random(static_cast<unsigned int>(std::stoul(arguments.at(1))));
    const CFakeSystem system(cNow);
    const CAddinLibrary library;
    Signal(me + " loaded");
    WaitFor("go");

    std::map<std::string, TRow> mine;
    for (int change = 0; change < cChanges; ++change) {
        const std::string name = me + " task " + std::to_string(random() % 5);
        const auto found = mine.find(name);
        const auto period = static_cast<unsigned int>(random() % 100);
        const long due = cFuture + static_cast<long>(random() % 1'000'000);
        switch (random() % 5) {
            case 0:
            case 1: {
                const std::string parameter = std::to_string(random());
                library.Create(name.c_str(), due, period, "/opt/tool", parameter.c_str());
                mine[name] = {name, due, 0, period, "/opt/tool", parameter, 0};
                break;
            }
            case 2:
                library.DestroyTask(name.c_str());
                mine.erase(name);
                break;
            case 3:
                library.PauseTask(name.c_str());
                if (found != mine.end())
                    found->second.paused = 1;
                break;
            default:
                library.ResumeTask(name.c_str());
                if (found != mine.end())
                    found->second.paused = 0;
                break;
        }
    }
    TRows rows;
    for (const auto& [name, row] : mine)
        rows.push_back(row);
    WriteFile(me, BytesOf(rows));
    _exit(0);
}

// Ticks until the file that stops it exists. Its clock advances by an hour each time, so its own
// task is due at every tick and the table is written; it wakes to changes like any scheduling
// process.
RUN_AGAIN(TickingScheduler) {
    CFakeSystem system(cNow);
    system.ended = true;
    const CAddinLibrary library;
    Signal("scheduler loaded");
    WaitFor("go");
    long ticks = 0;
    for (; !std::filesystem::exists("enough"); ++ticks) {
        library.Tick();
        system.now = cNow + (ticks + 1) * 3600;
    }
    library.Tick();
    WriteFile("launches",
              std::to_string(system.launches.size()) + ' ' + std::to_string(system.now));
    _exit(0);
}

TEST(Load, ChangesOfEightProcessesUnderATickingSchedulerAddUp) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    const TRow own = {"scheduler's task", cNow, 0, 1, "/opt/own", "", 0};
    WriteTable({own});

    // One after the other: a load sets the mutex free.
    CProgram scheduler(ThisProgramAs("TickingScheduler"));
    WaitFor("scheduler loaded");
    std::vector<std::unique_ptr<CProgram>> clients;
    for (int client = 0; client < cClients; ++client) {
        const std::string number = std::to_string(client);
        clients.push_back(std::make_unique<CProgram>(ThisProgramAs(
            "ChangingClient", {number, std::to_string(seed + static_cast<unsigned int>(client))})));
        WaitFor("client " + number + " loaded");
    }
    Signal("go");
    for (const auto& client : clients) {
        EXPECT_EQ(client->Wait(), 0);
        EXPECT_EQ(client->Output(), "") << "nothing was logged";
    }
    Signal("enough");
    EXPECT_EQ(scheduler.Wait(), 0);
    EXPECT_EQ(scheduler.Output(), "");
    EXPECT_EQ(StoreSemaphoreValue(), 1);

    std::map<std::string, TRow> table;
    for (const TRow& row : ReadTable())
        EXPECT_TRUE(table.emplace(row.name, row).second) << row.name << " is a duplicate";
    const auto of = [](const std::string& file) {
        std::filesystem::copy_file(file, cTable, std::filesystem::copy_options::overwrite_existing);
        return ReadTable();
    };
    for (int client = 0; client < cClients; ++client) {
        for (const TRow& row : of("client " + std::to_string(client))) {
            EXPECT_EQ(table[row.name], row);
            table.erase(row.name);
        }
    }
    ASSERT_EQ(table.size(), 1U) << "besides the clients' tasks";
    const TRow& moved = table.begin()->second;
    EXPECT_EQ(moved.name, own.name);
    // Launched at every hour that a tick saw, and rescheduled each time.
    const std::string launches = ReadFile("launches");
    const long count = std::stol(launches);
    const long now = std::stol(launches.substr(launches.find(' ')));
    EXPECT_GT(count, 1);
    EXPECT_GT(moved.next, cNow);
    EXPECT_GE(moved.next, now - 3600);
    EXPECT_LE(moved.next, now + 3600);
}
