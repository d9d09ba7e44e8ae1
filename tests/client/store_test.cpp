// The client library's changes while other clients or a scheduling process are running, and after
// failures.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Store.h>
#include "base/CDescriptor.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AddinLibrary.h"
#include "ClientError.h"
#include "ClientStore.h"
#include "FakeMonotonicClock.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

// Loads the add-in, as a direct client does, which sets the mutex free.
static void AddinLoad() {
    CForkedChild child([] {
        const CAddinLibrary library;
        _exit(0);
        return 0;
    });
    child.Wait();
}

TEST_F(ClientStore, MissingAddInIsReportedAndReleasesTheMutex) {
    store.Create(Task("a"), false);
    const CStore without({.addIn = "./no-add-in.so"});
    ExpectKept([&] {
        const std::string message =
            ErrorOf(EError::cFailed, [&] { without.Run("a", true, false); });
        EXPECT_NE(message.find("no-add-in.so"), std::string::npos) << message;
    });
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(ClientStore, NoTableReplacesAPipe) {
    ASSERT_EQ(mkfifo(cTable, 0644), 0);
    ErrorOf(EError::cFailed, [&] { store.ReplaceAll({}); });
    EXPECT_TRUE(fs::is_fifo(cTable));
    EXPECT_FALSE(fs::exists("files/scheduler.dat.before"));
}

// ---- While others are running -----------------------------------------------------------------

TEST_F(ClientStore, ChangeLeavesTheMutexFreeAndTheSetThere) {
    store.Create(Task("a"), false);
    EXPECT_TRUE(StoreSemaphoreExists());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    store.Pause({"a"});
    store.Run("a", true, false);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(CountSemaphoreSets(), 3) << "the mutex and the two events that the next one opens";
}

static const std::string cAdvice =
    "; nothing was changed; try again, or with a longer lock timeout (--lock-timeout)";

TEST_F(ClientStore, HolderIsWaitedForAndReportedOnATimeout) {
    store.Create(Task("a"), false);
    CForkedChild holder([] {
        const CStoreMutexLock lock(1s);
        WriteFile("held", "");
        pause();
        return 0;
    });
    WaitUntil([] { return fs::exists("held"); });
    const CStore impatient({.lockTimeout = 50ms});
    ExpectKept([&] {
        const std::string message = ErrorOf(EError::cBusy, [&] { impatient.Pause({"a"}); });
        EXPECT_NE(message.find(std::to_string(holder.Id())), std::string::npos) << message;
        EXPECT_NE(message.find(cAdvice), std::string::npos) << message;
        const std::string replacing = ErrorOf(EError::cBusy, [&] { impatient.ReplaceAll({}); });
        EXPECT_NE(replacing.find(cAdvice), std::string::npos) << replacing;
    });
    EXPECT_EQ(StoreSemaphoreValue(), 0) << "it was not interrupted";
    holder.Kill(SIGKILL);
    holder.Wait();
    store.Pause({"a"});
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(ClientStore, OtherClientsAreWaitedFor) {
    store.Create(Task("a"), false);
    const CStore impatient({.lockTimeout = 50ms});
    const CWriterLock writerLock(".", 0ms);
    ErrorOf(EError::cBusy, [&] { impatient.Pause({"a"}); });
    EXPECT_EQ(::ReadTable()[0].paused, 0U);
    const std::string replacing = ErrorOf(EError::cBusy, [&] { impatient.ReplaceAll({}); });
    EXPECT_NE(replacing.find(cAdvice), std::string::npos) << replacing;
}

TEST_F(ClientStore, ManyAtOnceLoseNothing) {
    std::vector<std::thread> clients;
    for (int client = 0; client < 8; ++client) {
        clients.emplace_back([client] {
            const CStore own({.lockTimeout = 60s});
            own.Create(Task("stays " + std::to_string(client)), false);
            own.Create(Task("goes " + std::to_string(client)), false);
            own.Pause({"stays " + std::to_string(client)});
            own.Remove({"goes " + std::to_string(client)});
        });
    }
    for (std::thread& client : clients)
        client.join();
    const TRows rows = ::ReadTable();
    EXPECT_EQ(rows.size(), 8U);
    for (const TRow& row : rows)
        EXPECT_EQ(row.paused, 1U) << row.name;
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(ClientStore, HolderThatWasResetMeanwhileDoesNotLetTwoIn) {
    store.Create(Task("a"), false);
    {
        const CStoreMutexLock lock(1s);
        AddinLoad();
    }
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// ---- With a scheduling process ----------------------------------------------------------------

TEST_F(ClientStore, SchedulingProcessIsFoundByItsLock) {
    EXPECT_FALSE(FindSchedulingProcess(".").has_value());
    EXPECT_FALSE(store.Wake());
    CHost host;
    const auto found = FindSchedulingProcess(".");
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->process, host.Id());
    EXPECT_TRUE(found->sharesStore);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_FALSE(FindSchedulingProcess(".").has_value());
}

TEST_F(ClientStore, HostWithoutThatLockIsFoundByWhatItRuns) {
    CHost host;
    fs::remove("files/vxschedd.lock");
    const auto found = FindSchedulingProcess(".");
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->process, host.Id());
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(ClientStore, ChangeTakesEffectAtOnce) {
    CHost host;
    store.Create(Task("a", Now(), 0), false);
    EXPECT_EQ(RecordedArgument("a parameter"), "argument a parameter");
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

// The worker counts as ticking while the host is stopped. When the client waits for the tick's end,
// the table is overwritten, as by that tick.
TEST_F(ClientStore, ChangeThatATickOverwritesCanBeCancelledUntilItBeginsAgain) {
    store.Create(Task("a"), false);
    const std::string before = ReadFile(cTable);
    CHost host;
    std::optional<CFakeMonotonicClock> clock;
    std::string order;
    const auto overwrite = [&] {
        if (order != "begin ")
            return;
        order += "overwritten ";
        WriteFile(cTable, before);
        host.Kill(SIGCONT);
        while (!WorkerIsIdle())
            std::this_thread::yield();
    };
    TStoreOptions options{.lockTimeout = 60s};
    options.onBegin = [&] {
        order += "begin ";
        if (clock)
            return;
        host.Kill(SIGSTOP);
        WaitUntil([] { return !WorkerIsIdle(); });
        clock.emplace().onSleep = overwrite;
    };
    options.onRetry = [&] { order += "retry "; };
    CStore(options).Pause({"a"});
    clock.reset();
    EXPECT_EQ(order, "begin overwritten retry begin ");
    EXPECT_EQ(::ReadTable()[0].paused, 1U);
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(ClientStore, DueTasksAreStartedBeforeAChange) {
    CHost host;
    store.Create({"first", In(2s), 0, cRecorder, "of the first"}, false);
    WaitUntil([] { return Now() >= In(0s); });
    WaitUntil([until = In(2s)] { return Now() >= until; });
    store.Create(Task("second"), false);
    EXPECT_TRUE(fs::exists("of the first")) << "it was due and has run";
    EXPECT_EQ(NamesInTable(), "second");
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(ClientStore, TickUnderWayIsWaitedForAndLosesNoChange) {
    CHost host(HostThatPauses());
    ReplaceTable({{"slow", Seconds(Now()), 0, 24, PROGRAMS "/wait-for-it", "end it", 0}});
    WakeWorker();
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    store.Create(Task("other"), false);  // while the tick pauses and holds the mutex
    EXPECT_EQ(NamesInTable(), "slow other");
    EXPECT_NE(::ReadTable()[0].last, 0) << "the tick's save is kept";
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "slow other");
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

// ---- When something goes wrong ----------------------------------------------------------------

// Makes a change in a process whose files may not grow as far as the save needs. Its error message
// goes to the file "error".
static int CreateBeyondTheLimit(const TNewTask& task) {
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = RLIM_INFINITY};
    std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &limit);
    try {
        CStore({}).Create(task, false);
    } catch (const CError& error) {
        WriteFile("error", error.what());
        return error.Code() == EError::cFailed ? 42 : 1;
    }
    return 2;
}

TEST_F(ClientStore, SaveThatFailsLeavesTheTable) {
    store.Create(Task("a"), false);
    const std::string before = ReadFile(cTable);
    TNewTask task = Task("c");
    task.parameter = std::string(10'000, 'p');
    CForkedChild client([&] { return CreateBeyondTheLimit(task); });
    EXPECT_EQ(client.Wait(), 42) << ReadFile("error");
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_NE(ReadFile("error").find("was not made"), std::string::npos) << ReadFile("error");
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator("files"), fs::directory_iterator()), 2)
        << "the table and the backup";
}

TEST_F(ClientStore, TemporaryFilesOfAKilledProcessAreRemoved) {
    for (const char* const name : {".save-1", ".new-2", ".before.new-3"})
        WriteFile(std::string(cTable) + name, "partial");
    WriteFile(std::string(cTable) + ".damaged-4", "kept");
    store.Create(Task("a"), false);
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".save-1"));
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".new-2"));
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".before.new-3"));
    EXPECT_EQ(ReadFile(std::string(cTable) + ".damaged-4"), "kept");
}

// Replacing a file with two hard links would separate them, so it is rewritten in place.
TEST_F(ClientStore, BackupIsRestoredWhenASaveInPlaceFails) {
    store.Create(Task("a"), false);
    const std::string before = ReadFile(cTable);
    fs::create_hard_link(cTable, "another name");
    TNewTask task = Task("c");
    task.parameter = std::string(10'000, 'p');
    CForkedChild client([&] { return CreateBeyondTheLimit(task); });
    EXPECT_EQ(client.Wait(), 42) << ReadFile("error");
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_NE(ReadFile("error").find("as it was before"), std::string::npos) << ReadFile("error");
}

TEST_F(ClientStore, TableOfAHostInAnotherNamespaceIsNotOverwritten) {
    store.Create(Task("a"), false);
    CHost host;
    CForkedChild child([&] {
        if (unshare(CLONE_NEWIPC) != 0)
            return 1;
        ExpectKept([&] {
            ErrorOf(EError::cNoScheduler, [&] { store.Pause({"a"}); });
            ErrorOf(EError::cNoScheduler, [&] { store.ReplaceAll({}); });
        });
        return HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(host.Stop(), 0);
}

// Runs `body` in a child that is process 1 of a PID namespace of its own, with its own /proc, and
// in the given other new namespaces.
static void InAnotherPidNamespace(int others, const std::function<void()>& body) {
    CForkedChild child([&] {
        if (unshare(CLONE_NEWPID | CLONE_NEWNS | others) != 0)
            return 1;
        CForkedChild first([&] {
            mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
            if (mount("proc", "/proc", "proc", 0, nullptr) != 0)
                return 2;
            body();
            return testing::Test::HasFailure() ? 3 : 42;
        });
        return first.Wait();
    });
    EXPECT_EQ(child.Wait(), 42);
}

TEST_F(ClientStore, HostInAnotherPidNamespaceIsFound) {
    CHost host;
    InAnotherPidNamespace(0, [] {
        const auto found = FindSchedulingProcess(".");
        ASSERT_TRUE(found.has_value());
        EXPECT_EQ(found->process, 0);
        EXPECT_TRUE(found->sharesStore);
        EXPECT_EQ(found->Name(), "a process of another PID namespace");
    });
    InAnotherPidNamespace(CLONE_NEWIPC, [this] {
        const auto found = FindSchedulingProcess(".");
        ASSERT_TRUE(found.has_value());
        EXPECT_FALSE(found->sharesStore);
        ExpectKept([&] { ErrorOf(EError::cNoScheduler, [&] { store.ReplaceAll({}); }); });
    });
    EXPECT_EQ(host.Stop(), 0);
    InAnotherPidNamespace(CLONE_NEWIPC,
                          [] { EXPECT_FALSE(FindSchedulingProcess(".").has_value()); });
}

TEST_F(ClientStore, ReplacedTableIsTakenUpByTheSchedulingProcess) {
    CHost host;
    store.ReplaceAll({{"b", Now(), TTime(), 24, cRecorder, "replaced", false}});
    EXPECT_EQ(RecordedArgument("replaced"), "argument replaced");
    WaitUntil([&] { return store.Read().tasks.at(0).last != TTime(); });
    EXPECT_EQ(host.Stop(), 0);
}

// An interrupted save of such an add-in would leave a partial table.
TEST_F(ClientStore, AddInWhoseSavesAreNotInOneStepIsRefusedBeforeTheLoad) {
    store.Create(Task("a"), false);
    const auto expectRefused = [](const CStore& refused, const char* reason) {
        ExpectKept([&] {
            EXPECT_THAT(ErrorOf(EError::cFailed, [&] { refused.Run("a", true, false); }),
                        testing::HasSubstr(reason));
        });
    };
    const CStore other({.addIn = OWN_SUPPORT_ADDIN});
    expectRefused(other, "it does not leave COpen to libvxcsupport");
    setenv("LD_PRELOAD", OWN_SUPPORT, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    expectRefused(store, "with the COpen of " OWN_SUPPORT " instead of");
}

// The superuser's would otherwise be open in a process of the store's owner.
TEST(ChangeProcess, GetsNoOtherDescriptors) {
    WriteTable({Row("first")});
    WriteFile("secret", "");
    const CDescriptor secret(open("secret", O_RDONLY));  // not close-on-exec
    std::size_t count = 0;
    bool isInherited = false;
    const auto begin = [&] {
        const std::string change = std::to_string(ChildOf(getpid()).value());
        for (const auto& entry : std::filesystem::directory_iterator("/proc/" + change + "/fd")) {
            ++count;
            isInherited |= std::filesystem::read_symlink(entry).filename() == "secret";
        }
    };
    vxsched::CStore({.onBegin = begin}).Pause({"first"});
    EXPECT_GT(count, 0U);
    EXPECT_FALSE(isInherited);
}
