// Several real processes with the library loaded: one table, one mutex, one event between them.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr long cFuture = 4'000'000'000;

static void WaitForWaiters(int count) {
    WaitUntil([&] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == count; });
}

// A client that makes one call and exits; it removes the store mutex only for "unload".
RUN_AGAIN(Client) {
    CAddinLibrary library;
    const std::string& call = arguments.at(0);
    if (call == "create")
        library.Create("task", cFuture, 24, "/opt/tool", "text");
    else if (call == "pause")
        library.PauseTask("task");
    else if (call == "remove")
        library.DestroyTask("task");
    else if (call == "is scheduled")
        _exit(library.IsScheduled("task") ? 1 : 0);
    else if (call == "unload")
        library.Unload();
    else
        _exit(99);
    _exit(0);
}

static int RunClient(const std::string& call) {
    CProgram client(ThisProgramAs("Client", {call}));
    const int result = client.Wait();
    EXPECT_EQ(client.Output(), "");
    return result;
}

TEST(SharedStore, EveryProcessSeesWhatAnotherChanged) {
    WriteTable({});
    const CAddinLibrary library;
    EXPECT_FALSE(library.IsScheduled("task"));
    EXPECT_EQ(RunClient("create"), 0);
    EXPECT_TRUE(library.IsScheduled("task"));
    EXPECT_EQ(RunClient("is scheduled"), 1);
    library.DestroyTask("task");
    EXPECT_EQ(RunClient("is scheduled"), 0);
}

TEST(SharedStore, UnloadOfTheAddInInOneProcessLeavesTheTasksToTheOthers) {
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    library.AddIn().Unload();
    EXPECT_TRUE(library.TaskList()->empty());
    EXPECT_EQ(RunClient("is scheduled"), 1);
}

TEST(SharedStore, SchedulingProcessLearnsOfAChangeThroughTheEvent) {
    CFakeSystem system(cFuture - 10);
    WriteTable({});
    const CAddinLibrary library;
    library.Tick();
    EXPECT_EQ(RunClient("create"), 0);
    EXPECT_FALSE(library.IsScheduled("task")) << "the scheduling thread answers from memory";
    library.Tick();
    EXPECT_TRUE(library.IsScheduled("task"));
    EXPECT_EQ(RunClient("pause"), 0);
    system.now = cFuture;
    library.Tick();
    EXPECT_TRUE(system.launches.empty()) << "paused meanwhile";
    EXPECT_EQ(RunClient("remove"), 0);
    library.Tick();
    EXPECT_TRUE(library.TaskList()->empty());
}

TEST(SharedStore, WorkerOfOneProcessTakesInTheChangeOfAnother) {
    WriteTable({});
    const CAddinLibrary library;
    library.AddIn().Start();
    EXPECT_EQ(RunClient("create"), 0);
    CEvent changed(cTaskChanged, true);
    CEvent("libVantrixScheduler.so", false).SetEvent();
    WaitUntil([&] { return changed.Wait(0) == 0; });
    library.AddIn().Stop();
    ASSERT_EQ(library.TaskList()->size(), 1U);
    EXPECT_EQ(library.TaskList()->front()->program, "/opt/tool");
}

TEST(SharedStore, CallsWaitForTheHolderInAnyProcess) {
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    CForkedChild holder([&] {
        sembuf take{0, -1, SEM_UNDO};
        semop(semget(cStoreKey, 1, 0), &take, 1);
        WaitUntil([] { return std::filesystem::exists("let go"); });
        // The waiter then sees the change that was made under the mutex.
        WriteTable({});
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    CForkedChild waiter([&] { return library.IsScheduled("task") ? 1 : 42; });
    WaitForWaiters(1);
    WriteFile("let go", "");
    EXPECT_EQ(waiter.Wait(), 42);
    EXPECT_EQ(holder.Wait(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(SharedStore, KilledHolderFreesTheMutexAndAWaiterGoesOn) {
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    CForkedChild holder([&] {
        CFakeSystem system;
        system.onSleep = [] {
            for (;;)
                pause();
        };
        library.ExecuteTaskNow("task", true);
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    CForkedChild waiter([&] { return library.IsScheduled("task") ? 42 : 1; });
    WaitForWaiters(1);
    holder.Kill(SIGKILL);
    EXPECT_EQ(waiter.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(SharedStore, CallOfAnotherProcessWaitsForTheWholeTick) {
    CFakeSystem system(cFuture - 10);
    const CLogCapture log;
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    CForkedChild client([&] {
        WaitUntil([] { return StoreSemaphoreValue() == 0; });
        library.PauseTask("task");
        return 0;
    });
    system.now = cFuture;
    system.onSleep = [] { WaitForWaiters(1); };
    library.Tick();
    EXPECT_EQ(client.Wait(), 0);
    // Neither change is lost.
    EXPECT_EQ(ReadTable(), TRows({{"task", cFuture + 3600, cFuture + 2, 1, "/opt/tool", "", 1}}));
}

TEST(SharedStore, LoadDuringATickLetsTheNewProcessInAndLeavesOneTooMany) {
    CFakeSystem system(cFuture - 10);
    const CLogCapture log;
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    system.now = cFuture;
    int before = -1;
    int client = -1;
    system.onSleep = [&] {
        before = StoreSemaphoreValue();
        client = RunClient("is scheduled");
    };
    library.Tick();
    EXPECT_EQ(before, 0);
    EXPECT_EQ(client, 1) << "it was answered while the tick held the mutex";
    EXPECT_EQ(StoreSemaphoreValue(), 2);
}

TEST(SharedStore, HolderThatIsKilledAfterALoadAddsNothing) {
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    CForkedChild holder([&] {
        CFakeSystem system;
        system.onSleep = [] {
            for (;;)
                pause();
        };
        const CLogCapture log;
        library.ExecuteTaskNow("task", true);
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    EXPECT_EQ(RunClient("is scheduled"), 1);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    holder.Kill(SIGKILL);
    EXPECT_EQ(holder.Wait(), 1000 + SIGKILL);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(SharedStore, ChangesOfManyProcessesAddUp) {
    WriteTable({});
    const CAddinLibrary library;
    std::vector<std::unique_ptr<CForkedChild>> children;
    for (int child = 0; child < 4; ++child)
        children.push_back(std::make_unique<CForkedChild>([&library, child] {
            for (int iteration = 0; iteration < 50; ++iteration) {
                const std::string name = std::to_string(child) + '-' + std::to_string(iteration);
                library.Create(name.c_str(), cFuture, 1);
                if (iteration % 2 == 0)
                    library.DestroyTask(name.c_str());
            }
            return 42;
        }));
    for (const auto& child : children)
        EXPECT_EQ(child->Wait(), 42);
    EXPECT_EQ(ReadTable().size(), 4U * 25);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(SharedStore, UnloadInOneProcessLeavesTheOthersWithoutALock) {
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    EXPECT_EQ(RunClient("unload"), 0);
    EXPECT_FALSE(StoreSemaphoreExists());
    // Deliberate: the work is done without the lock.
    EXPECT_TRUE(library.IsScheduled("task"));
    library.PauseTask("task");
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    EXPECT_FALSE(StoreSemaphoreExists());
}

TEST(SharedStore, TicksGoOnWithoutTheMutexThatAnotherProcessRemoved) {
    CFakeSystem system(cFuture - 10);
    const CLogCapture log;
    WriteTable({{"task", cFuture, 0, 1, "/opt/tool", "", 0}});
    const CAddinLibrary library;
    EXPECT_EQ(RunClient("unload"), 0);
    system.now = cFuture;
    library.Tick();
    EXPECT_EQ(system.LaunchedPaths(), "/opt/tool");
    EXPECT_EQ(ReadTable().at(0).next, cFuture + 3600);
}

TEST(SharedStore, NewMutexOfALaterProcessIsNotTheOneOfAnEarlier) {
    WriteTable({});
    const CAddinLibrary library;
    EXPECT_EQ(RunClient("unload"), 0);
    EXPECT_EQ(RunClient("create"), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    sembuf take{0, -1, SEM_UNDO};
    ASSERT_EQ(semop(semget(cStoreKey, 1, 0), &take, 1), 0);
    EXPECT_TRUE(library.IsScheduled("task")) << "it does not wait for the new holder";
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}
