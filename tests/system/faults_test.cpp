// Faults of the system: transfers that fail, a full disk, no descriptors, a semaphore that is
// removed, signals, a clock that jumps, concurrent loads, forks. Each test checks what is
// preserved.

#include <CEvent.h>
#include <VXC_Information.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <scheduler/Scheduler.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableCalls.h"
#include "TableFile.h"
#include "TracedChild.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr long cNow = 1'000'000;
static constexpr long cFuture = 4'000'000'000;
static constexpr long cYear = 365L * 24 * 3600;

using TLines = std::vector<std::string>;

static int StoreSet() {
    return semget(cStoreKey, 1, 0);
}

static void Change(int set, short change) {
    sembuf operation{0, change, SEM_UNDO};
    semop(set, &operation, 1);
}

// Every exported function that reads the table, by name, with its answer as a string.
struct TFunction {
    const char* name;
    std::string (*call)(const CAddinLibrary& library);
    const char* failed;  // the answer when the table could not be read
    bool changes;
};

static const TFunction cFunctions[] = {
    {"IsScheduled",
     [](const CAddinLibrary& it) -> std::string {
         return it.IsScheduled("first") ? "true" : "false";
     },
     "false", false},
    {"GetNextExecution",
     [](const CAddinLibrary& it) -> std::string {
         long value = -7;
         it.GetNextExecution("first", &value);
         return std::to_string(value);
     },
     "-7", false},
    {"GetLastExecuted",
     [](const CAddinLibrary& it) -> std::string {
         long value = -7;
         it.GetLastExecuted("first", &value);
         return std::to_string(value);
     },
     "-7", false},
    {"GetTaskPeriod",
     [](const CAddinLibrary& it) -> std::string {
         unsigned int value = 7;
         const bool found = it.GetTaskPeriod("first", &value);
         return std::to_string(value) + (found ? " true" : " false");
     },
     "0 false", false},
    {"IsTaskRunning",
     [](const CAddinLibrary& it) -> std::string {
         return it.IsTaskRunning("first") ? "true" : "false";
     },
     "false", false},
    {"CreateTask",
     [](const CAddinLibrary& it) -> std::string {
         it.Create("third", cFuture, 1);
         return "";
     },
     "", true},
    {"DestroyTask",
     [](const CAddinLibrary& it) -> std::string {
         it.DestroyTask("first");
         return "";
     },
     "", true},
    {"PauseTask",
     [](const CAddinLibrary& it) -> std::string {
         it.PauseTask("first");
         return "";
     },
     "", true},
    {"ResumeTask",
     [](const CAddinLibrary& it) -> std::string {
         it.ResumeTask("second");
         return "";
     },
     "", true},
    {"SetTaskPeriod",
     [](const CAddinLibrary& it) -> std::string {
         return it.SetTaskPeriod("first", 2) ? "true" : "false";
     },
     "false", true},
    {"ExecuteTaskNow",
     [](const CAddinLibrary& it) -> std::string {
         it.ExecuteTaskNow("first", true);
         return "";
     },
     "", true},
};

class Faults : public testing::Test {
protected:
    void SetUp() override {
        WriteTable(table);
        library.emplace();
        EXPECT_EQ(log.Take(), TLines());
    }

    static bool TasksDeleted() {
        int flag = 0;
        return VXC_GetInformation("TasksDeleted", flag) && flag == 1;
    }

    // Makes the `index`-th of the calls of that name fail, counted from 0.
    void FailNth(const std::string& call, int index) {
        seen = 0;
        failed = false;
        gFailTableCall = [this, call, index](const std::string& made) {
            const bool now = made.starts_with(call) && seen++ == index;
            failed |= now;
            return now;
        };
    }

    // A table of several blocks, whose transfer takes several calls.
    void MakeLarge(const std::string& parameters) {
        for (int index = 0; index < 5000; ++index)
            table.push_back(
                {"task " + std::to_string(index), cFuture, 0, 1, "/opt/other", parameters, 0});
        WriteTable(table);
    }

    TRows table = {{"first", cFuture, 5, 24, "/opt/tool", "text", 0},
                   {"second", cFuture, 0, 1, "/opt/other", "", 1}};
    CFakeSystem system{cNow};
    CLogCapture log;
    std::optional<CAddinLibrary> library;
    int seen = 0;
    bool failed = false;
};

// ---- Transfers that fail ----------------------------------------------------------------------

TEST_F(Faults, EachReadThatFailsInTurnResetsTheTableAndIsReported) {
    MakeLarge("text");
    for (const TFunction& function : cFunctions) {
        SCOPED_TRACE(function.name);
        int reads = 0;
        for (;; ++reads) {
            WriteTable(table);
            FailNth("read", reads);
            const std::string answer = function.call(*library);
            gFailTableCall = nullptr;
            if (!failed)
                break;
            EXPECT_EQ(answer, function.failed);
            EXPECT_EQ(log.Take(), TLines({cReadingFailed}));
            EXPECT_TRUE(TasksDeleted());
            EXPECT_EQ(NamesInTable(), function.name == std::string("CreateTask") ? "third" : "");
            EXPECT_EQ(StoreSemaphoreValue(), 1);
        }
        EXPECT_GT(reads, 3) << "the table takes several";
        log.Take();
        semctl(StoreSet(), 0, SETVAL, 1);  // the probe leaves it at 2
    }
}

TEST_F(Faults, EachWriteThatFailsInTurnEmptiesTheListAndLeavesACutTable) {
    MakeLarge(std::string(800, 'x'));
    for (const TFunction& function : cFunctions) {
        if (!function.changes)
            continue;
        SCOPED_TRACE(function.name);
        int writes = 0;
        for (;; ++writes) {
            WriteTable(table);
            FailNth("write", writes);
            function.call(*library);
            gFailTableCall = nullptr;
            if (!failed)
                break;
            const TLines lines = log.Take();
            EXPECT_EQ(lines.back(), cWritingFailed);
            EXPECT_TRUE(TasksDeleted());
            EXPECT_TRUE(library->TaskList()->empty());
            EXPECT_EQ(ReadFile(cTable).size(), static_cast<std::size_t>(writes) << 20);
            EXPECT_EQ(StoreSemaphoreValue(), 1);
            // The next reader detects it.
            EXPECT_FALSE(library->IsScheduled("first"));
            EXPECT_EQ(log.Take(), TLines({cReadingFailed}));
            EXPECT_EQ(NamesInTable(), "");
        }
        EXPECT_GT(writes, 3) << "the table takes several";
        log.Take();
    }
}

TEST_F(Faults, FailedWriteOfAChangeIsSignalledAllTheSame) {
    CEvent changed(cTaskChanged, true);
    FailNth("write", 0);
    library->PauseTask("first");
    gFailTableCall = nullptr;
    EXPECT_EQ(log.Take(), TLines({cWritingFailed}));
    EXPECT_EQ(changed.Wait(0), 1);
}

TEST_F(Faults, EachOpenThatFailsIsSilentAndKeepsTheFile) {
    for (const TFunction& function : cFunctions) {
        SCOPED_TRACE(function.name);
        gFailTableCall = [](const std::string& call) { return call.starts_with("open"); };
        EXPECT_EQ(function.call(*library), function.failed);
        gFailTableCall = nullptr;
        EXPECT_EQ(log.Take(), TLines());
        EXPECT_EQ(ReadTable(), table);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    }
    EXPECT_FALSE(TasksDeleted());
}

TEST_F(Faults, TickWhoseTableCannotBeWrittenHasStartedTheDueTasksAndGoesOnEmpty) {
    library->TaskList()->front()->nextExecution = cNow;
    FailNth("write", 0);
    library->Tick();
    gFailTableCall = nullptr;
    EXPECT_EQ(system.LaunchedPaths(), "/opt/tool");
    EXPECT_EQ(log.Take(), TLines({cStillRunning, cWritingFailed}));
    EXPECT_TRUE(library->TaskList()->empty());
    EXPECT_EQ(ReadFile(cTable), "");
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    // The tick does not read the file without a signal, so nothing more happens until then.
    library->Tick();
    EXPECT_EQ(log.Take(), TLines());
}

// ---- No room ----------------------------------------------------------------------------------

// Mounts a file system of a few pages over the directory "files". False where no user namespace
// allows it.
static bool MountSmallDisk() {
    if (unshare(CLONE_NEWNS) != 0)
        return false;
    mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
    return mount("none", "files", "tmpfs", 0, "size=16k") == 0;
}

TEST_F(Faults, FullDiskCutsTheTableAndTheNextReaderResetsIt) {
    CForkedChild child([this] {
        if (!MountSmallDisk())
            return 1;
        WriteTable(table);
        const std::string large(30'000, 'x');
        library->Create("large", cFuture, 1, "/opt/tool", large.c_str());
        if (log.Take() != TLines({cWritingFailed}) || !TasksDeleted())
            return 2;
        const std::string file = ReadFile(cTable);
        TRows wanted = table;
        wanted.push_back({"large", cFuture, 0, 1, "/opt/tool", large, 0});
        if (file.size() < 4096 || BytesOf(wanted).compare(0, file.size(), file) != 0)
            return 3;
        if (library->IsScheduled("first") || log.Take() != TLines({cReadingFailed}))
            return 4;
        // A smaller table fits again.
        library->Create("small", cFuture, 1);
        return NamesInTable() == "small" && StoreSemaphoreValue() == 1 ? 42 : 5;
    });
    EXPECT_EQ(child.Wait(), 42);
}

TEST_F(Faults, DiskWithoutRoomForAnythingStaysEmptyAndIsReportedEachTime) {
    CForkedChild child([this] {
        if (!MountSmallDisk())
            return 1;
        WriteFile("files/filler", std::string(16 * 1024, 'x'));
        library->Create("task", cFuture, 1);  // no file yet: it is made, and stays empty
        if (log.Take() != TLines({cWritingFailed}) || ReadFile(cTable) != "")
            return 2;
        if (library->IsScheduled("task"))
            return 3;
        return log.Take() == TLines({cWritingFailed, cReadingFailed}) ? 42 : 4;
    });
    EXPECT_EQ(child.Wait(), 42);
}

TEST_F(Faults, SizeLimitCutsTheTableWhereverItFalls) {
    std::signal(SIGXFSZ, SIG_IGN);
    for (const rlim_t size : {0UL, 1UL, 8UL, 9UL, 50UL}) {
        SCOPED_TRACE(size);
        WriteTable(table);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = size;
        setrlimit(RLIMIT_FSIZE, &limit);
        library->PauseTask("first");
        limit.rlim_cur = RLIM_INFINITY;
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_EQ(log.Take(), TLines({cWritingFailed}));
        EXPECT_EQ(ReadFile(cTable).size(), size);
        EXPECT_FALSE(library->IsScheduled("first"));
        EXPECT_EQ(log.Take(), TLines({cReadingFailed}));
    }
}

TEST_F(Faults, WithoutDescriptorsNothingIsReadLostOrReported) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    for (const TFunction& function : cFunctions) {
        SCOPED_TRACE(function.name);
        limit.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &limit);
        const std::string answer = function.call(*library);
        limit.rlim_cur = before;
        setrlimit(RLIMIT_NOFILE, &limit);
        EXPECT_EQ(answer, function.failed);
        EXPECT_EQ(log.Take(), TLines());
        EXPECT_EQ(ReadTable(), table);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    }
    EXPECT_FALSE(TasksDeleted());
}

TEST_F(Faults, ProbeWithoutDescriptorsForItsPipeFindsNothing) {
    library->Tick();  // on the scheduling thread the table is not read
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &limit);
    const bool running = library->IsTaskRunning("first");
    limit.rlim_cur = before;
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_FALSE(running);
    EXPECT_EQ(StoreSemaphoreValue(), 2);
}

TEST_F(Faults, ProcessWithoutTheDirectoryFindsNothingAndCreatesNothing) {
    std::filesystem::remove_all("files");
    for (const TFunction& function : cFunctions) {
        SCOPED_TRACE(function.name);
        EXPECT_EQ(function.call(*library), function.failed);
    }
    library->Tick();
    EXPECT_FALSE(std::filesystem::exists("files"));
    EXPECT_EQ(log.Take(), TLines());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Faults, UserWithoutAccessToTheFileChangesNothing) {
    chmod(cTable, 0444);
    CForkedChild child([this] {
        if (!DropCapabilities())
            return 1;
        for (const TFunction& function : cFunctions) {
            if (function.call(*library) != function.failed)
                return 2;
        }
        return log.Take() == TLines() ? 42 : 3;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(ReadTable(), table);
}

// ---- The semaphore is removed; signals --------------------------------------------------------

TEST_F(Faults, SetRemovedBeforeACallLeavesTheCallsWithoutALock) {
    semctl(StoreSet(), 0, IPC_RMID);
    EXPECT_TRUE(library->IsScheduled("first"));
    library->PauseTask("first");
    EXPECT_EQ(ReadTable()[0].paused, 1U);
    EXPECT_FALSE(StoreSemaphoreExists()) << "no call creates it again";
}

TEST_F(Faults, SetRemovedWhileItIsHeldLeavesTheCallToItsEnd) {
    library->TaskList()->front()->nextExecution = cNow;
    system.onLaunch = [](const CFakeSystem::TLaunch&) { semctl(StoreSet(), 0, IPC_RMID); };
    library->Tick();
    EXPECT_EQ(ReadTable()[0].next, cNow + 24L * 3600);
    EXPECT_FALSE(StoreSemaphoreExists());
    system.onLaunch = nullptr;
    library->Tick();
    EXPECT_TRUE(library->IsScheduled("first"));
}

TEST_F(Faults, SetRemovedWhileItIsWaitedForLetsTheCallGoOnWithoutALock) {
    const int set = StoreSet();
    Change(set, -1);
    bool answer = false;
    std::thread waiter([&] { answer = library->IsScheduled("first"); });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    semctl(set, 0, IPC_RMID);
    waiter.join();
    EXPECT_TRUE(answer);
}

TEST_F(Faults, HolderThatIsStoppedKeepsOthersWaitingUntilItIsContinued) {
    const int set = StoreSet();
    CForkedChild holder([&] {
        Change(set, -1);
        WriteTable({});
        raise(SIGSTOP);
        WriteTable(table);
        Change(set, 1);
        return 0;
    });
    // Stopped in the middle of a change.
    const std::string state = "/proc/" + std::to_string(holder.Id()) + "/stat";
    WaitUntil([&] { return ReadFile(state).find(") T ") != std::string::npos; });
    sembuf take{0, -1, static_cast<short>(SEM_UNDO | IPC_NOWAIT)};
    EXPECT_EQ(semop(set, &take, 1), -1);
    CForkedChild waiter([this] { return library->IsScheduled("first") ? 42 : 1; });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    holder.Kill(SIGCONT);
    EXPECT_EQ(waiter.Wait(), 42);
    EXPECT_EQ(holder.Wait(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

static void OnSignal(int /*number*/) {}

// The wait has failed, the call continues without the lock, and its release lets one more in.
TEST_F(Faults, SignalHandlerDuringAWaitLetsTheCallGoOnWithoutALock) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGUSR1, &action, nullptr);
    const int set = StoreSet();
    Change(set, -1);
    std::atomic<bool> done{false};
    bool answer = false;
    std::thread waiter([&] {
        answer = library->IsScheduled("first");
        done = true;
    });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    while (!done) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    waiter.join();
    EXPECT_TRUE(answer);
    EXPECT_EQ(StoreSemaphoreValue(), 1) << "released under its holder";
    Change(set, 1);
    EXPECT_EQ(StoreSemaphoreValue(), 2);
}

TEST_F(Faults, BlockedAndIgnoredSignalsDoNotEndAWait) {
    std::signal(SIGUSR1, SIG_IGN);
    const int set = StoreSet();
    Change(set, -1);
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        library->IsScheduled("first");
        done = true;
    });
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    for (int iteration = 0; iteration < 100; ++iteration)
        pthread_kill(waiter.native_handle(), SIGUSR1);
    EXPECT_EQ(semctl(set, 0, GETNCNT), 1);
    EXPECT_FALSE(done);
    Change(set, 1);
    waiter.join();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// ---- The clock --------------------------------------------------------------------------------

TEST_F(Faults, ClockThatJumpsAYearForwardStartsEachTaskOnceAndKeepsTheGrid) {
    library->Tick();
    library->TaskList()->front()->nextExecution = cNow + 3600;
    library->TaskList()->front()->period = 24;
    system.now = cNow + cYear;
    library->Tick();
    library->Tick();
    EXPECT_EQ(system.LaunchedPaths(), "/opt/tool");
    const long next = ReadTable()[0].next;
    EXPECT_GE(next, cNow + cYear);
    EXPECT_LT(next, cNow + cYear + 24 * 3600);
    EXPECT_EQ((next - cNow - 3600) % (24 * 3600), 0);
}

TEST_F(Faults, ClockThatJumpsAYearBackStartsNothingUntilItIsThereAgain) {
    library->Tick();
    library->TaskList()->front()->nextExecution = cNow;
    library->TaskList()->front()->period = 1;
    library->Tick();
    EXPECT_EQ(system.launches.size(), 1U);
    const long next = ReadTable()[0].next;
    EXPECT_EQ(next, cNow + 3600);
    system.now = cNow - cYear;
    for (int tick = 0; tick < 10; ++tick) {
        library->Tick();
        system.now += 3600;
    }
    EXPECT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(ReadTable()[0].next, next);
    system.now = next;
    library->Tick();
    EXPECT_EQ(system.launches.size(), 2U);
}

// ---- Loads and forks --------------------------------------------------------------------------

// One process is stopped at each call of its load in turn while another loads completely, which
// sets the mutex free under the first. A second load between the first one's truncation and its
// write finds the table damaged and logs it; the first then writes the table that it has read.
TEST_F(Faults, SecondLoadAtEachMomentOfAFirstLeavesTheTable) {
    library.reset();
    bool ended = false;
    int noticed = 0;
    for (int point = 0; !ended; ++point) {
        WriteTable(table);
        std::optional<CAddinLibrary> first;
        CTracedChild child([] {},
                           [&] {
                               first.emplace();
                               return first->IsScheduled("first") ? 42 : 1;
                           });
        for (int step = 0; step < point && !ended; ++step)
            ended = !child.Step();
        if (ended)
            break;
        CForkedChild second([&] {
            CLogCapture lines;
            const CAddinLibrary loaded;
            _exit(lines.Take().empty() ? 42 : 43);
            return 0;
        });
        const int result = second.Wait();
        EXPECT_TRUE(result == 42 || result == 43) << result;
        noticed += result == 43 ? 1 : 0;
        EXPECT_EQ(child.Finish(), 42) << point;
        EXPECT_EQ(ReadTable(), table) << point;
        EXPECT_GE(StoreSemaphoreValue(), 1);
        EXPECT_LE(StoreSemaphoreValue(), 2);
        // The next load repairs it.
        CForkedChild third([] {
            const CAddinLibrary loaded;
            _exit(StoreSemaphoreValue() == 1 ? 42 : 1);
            return 0;
        });
        EXPECT_EQ(third.Wait(), 42);
    }
    EXPECT_GT(noticed, 0);
}

// Concurrent loads that keep meeting can lose the table: one truncates, the other reads nothing,
// the first writes, the other resets the table that it read as damaged. It is logged.
TEST_F(Faults, TwoLoadsThatKeepMeetingLoseTheTableAndReportIt) {
    library.reset();
    WriteTable(table);
    std::optional<CAddinLibrary> loaded;
    const auto load = [&] {
        CLogCapture lines;
        loaded.emplace();
        return lines.Take() == TLines({cReadingFailed}) ? 43 : 42;
    };
    CTracedChild first([] {}, load);
    CTracedChild second([] {}, load);
    const auto isTruncation = [](const CTracedChild& child) {
        return child.Call().find("TRUNC") != std::string::npos;
    };
    while (first.Step() && (first.IsBefore() || !isTruncation(first))) {
    }
    EXPECT_EQ(ReadFile(cTable), "");
    while (second.Step() && !isTruncation(second)) {
    }
    EXPECT_EQ(first.Finish(), 42);
    EXPECT_EQ(ReadTable(), table);
    EXPECT_EQ(second.Finish(), 43);
    EXPECT_EQ(ReadTable(), TRows());
}

TEST_F(Faults, ForkedChildSharesTheStoreAndItsEndAtOnceTakesNothingAway) {
    CForkedChild child([this] {
        library->PauseTask("first");
        return library->IsScheduled("first") ? 42 : 1;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(library->IsScheduled("first"));
    EXPECT_EQ(ReadTable()[0].paused, 1U);
}

TEST_F(Faults, ForkedChildDoesNotReleaseTheMutexOfItsParent) {
    system.onLaunch = [](const CFakeSystem::TLaunch&) {
        CForkedChild child([] { return 42; });
        EXPECT_EQ(child.Wait(), 42);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    };
    library->ExecuteTaskNow("first", true);
    EXPECT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Faults, ForkedChildThatExitsWithFinalisersRemovesTheMutexOfItsParent) {
    CEvent changed(cTaskChanged, true);
    CForkedChild child([] {
        std::exit(42);
        return 0;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_FALSE(StoreSemaphoreExists());
    EXPECT_TRUE(library->IsScheduled("first")) << "without a lock from now on";
    changed.SetEvent();
    EXPECT_EQ(changed.Wait(0), 1) << "the event is its parent's still";
}
