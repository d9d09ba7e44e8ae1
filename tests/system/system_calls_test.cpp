// The system calls of each operation: every call that the real library makes, in order, with its
// arguments. Only calls about memory are left out.

#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "TracedChild.h"

using TCalls = std::vector<std::string>;

static constexpr long cFuture = 4'000'000'000;
static constexpr char cMutexName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";

// The sizes of the blocks in which a table is read and written.
static const std::string cReadBlock = "read 65536";
static constexpr std::size_t cWriteBlock = 1 << 20;

static TCalls operator+(TCalls left, const TCalls& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

static const TCalls cLock = {"semop mutex 0:-1 undo"};
static const TCalls cUnlock = {"semop mutex 0:1 undo"};
static const TCalls cLoad = {"stat files/scheduler.dat", "open files/scheduler.dat RDWR CLOEXEC 00",
                             cReadBlock, "close"};
static const TCalls cSignal = {"semctl changed 0 SETVAL 1"};
static const TCalls cTestEvent = {"semop changed 0:-1 now 0:1"};

static TCalls Save(std::size_t length) {
    TCalls writes(length / cWriteBlock, "write " + std::to_string(cWriteBlock));
    if (length % cWriteBlock != 0)
        writes.push_back("write " + std::to_string(length % cWriteBlock));
    return TCalls{"open files/scheduler.dat RDWR CREAT TRUNC CLOEXEC 0644"} + writes +
           TCalls{"close"};
}

// A table of that length, read to its last task.
static TCalls LoadOf(std::size_t length) {
    return TCalls{cLoad[0], cLoad[1]} + TCalls((length + 65535) / 65536, cReadBlock) +
           TCalls{cLoad[3]};
}

class SystemCalls : public testing::Test {
protected:
    using TOperation = void (*)(const CAddinLibrary& library);

    void SetUp() override {
        rows = {{"first", cFuture, 0, 24, "/opt/tool", "text", 0},
                {"second", cFuture, 0, 1, "/opt/other", "", 1}};
        WriteTable(rows);
    }

    // The calls of the operation in a process that has loaded the library and has done the same
    // before, so that one-time work (a memory arena, a symbol's first use) is not counted.
    TCalls Of(TOperation operation, TOperation before = nullptr) {
        const TCalls calls = SystemCallsOf(
            [&] {
                system.emplace(cFuture - 1000);
                system->ended = true;  // nothing to log after a launch
                library.emplace();
                operation(*library);
                if (before != nullptr)
                    before(*library);
            },
            [&] {
                operation(*library);
                return 0;
            });
        EXPECT_EQ(calls.back(), "end");
        return {calls.begin(), calls.end() - 1};
    }

    std::size_t Size() const { return BytesOf(rows).size(); }

    TRows rows;
    std::optional<CFakeSystem> system;
    std::optional<CAddinLibrary> library;
};

TEST_F(SystemCalls, QueriesLockReadAndRelease) {
    const TCalls query = cLock + cLoad + cUnlock;
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.IsScheduled("first"); }), query);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.IsScheduled("unknown"); }), query);
    EXPECT_EQ(Of([](const CAddinLibrary& it) {
                  long next = 0;
                  it.GetNextExecution("first", &next);
              }),
              query);
    EXPECT_EQ(Of([](const CAddinLibrary& it) {
                  long last = 0;
                  it.GetLastExecuted("first", &last);
              }),
              query);
    EXPECT_EQ(Of([](const CAddinLibrary& it) {
                  unsigned int period = 0;
                  it.GetTaskPeriod("first", &period);
              }),
              query);
    EXPECT_EQ(query.size(), 6U);
}

TEST_F(SystemCalls, ChangesLockReadWriteSignalAndRelease) {
    const TCalls change = cLock + cLoad + Save(Size()) + cSignal + cUnlock;
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.PauseTask("first"); }), change);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.ResumeTask("first"); }), change);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.PauseTask("unknown"); }), change);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.DestroyTask("unknown"); }), change);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.Create("first", cFuture, 24, "/opt/tool", ""); }),
              cLock + cLoad + Save(Size() - 4) + cSignal + cUnlock);
    EXPECT_EQ(change.size(), 10U);
}

TEST_F(SystemCalls, ChangeOfAPeriodAlsoChecksTheZoneAtMostTwice) {
    unsetenv("TZ");
    TCalls calls = Of([](const CAddinLibrary& it) { it.SetTaskPeriod("first", 24); });
    EXPECT_LE(std::erase(calls, "stat /etc/localtime"), 2U) << "once where the zone is UTC";
    EXPECT_EQ(calls, cLock + cLoad + Save(Size()) + cSignal + cUnlock);
}

// The rule that reschedules a past task does not write by itself.
TEST_F(SystemCalls, ChangesThatRescheduleWriteOnce) {
    rows[0].next = cFuture - 5000;
    const auto writes = [&](TOperation operation) {
        WriteTable(rows);
        const TCalls calls = Of(operation, [](const CAddinLibrary&) {
            WriteTable({{"first", cFuture - 5000, 0, 24, "/opt/tool", "text", 0}});
        });
        return std::count_if(calls.begin(), calls.end(), [](const std::string& call) {
            return call.find("TRUNC") != std::string::npos;
        });
    };
    EXPECT_EQ(writes([](const CAddinLibrary& it) { it.Create("new", 5, 24, "/opt/tool"); }), 1);
    EXPECT_EQ(writes([](const CAddinLibrary& it) { it.Create("first", 5, 24, "/opt/tool"); }), 1);
    EXPECT_EQ(writes([](const CAddinLibrary& it) { it.ResumeTask("first"); }), 1);
    EXPECT_EQ(writes([](const CAddinLibrary& it) { it.SetTaskPeriod("first", 1); }), 1);
}

TEST_F(SystemCalls, LoadThatReschedulesWritesOnce) {
    const TCalls calls = SystemCallsOf(
        [&] {
            library.emplace();
            library->DestroyAddIn(library->CreateAddIn());
            rows[0].next = 5;
            WriteTable(rows);
        },
        [&] {
            library->CreateAddIn();
            return 0;
        });
    EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                            [](const std::string& call) { return call.starts_with("write"); }),
              1);
}

TEST_F(SystemCalls, RunNowWritesWithoutASignal) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.ExecuteTaskNow("first", true); }),
              cLock + cLoad + Save(Size()) + cUnlock);
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.ExecuteTaskNow("unknown", true); }),
              cLock + cLoad + cUnlock);
}

TEST_F(SystemCalls, MissingFileIsTestedForAndNotOpened) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) {
                  std::remove(cTable);
                  it.PauseTask("first");
              }),
              TCalls({"call 87"}) + cLock + TCalls({"stat files/scheduler.dat"}) + cUnlock)
        << "call 87 is the test's own unlink";
}

TEST_F(SystemCalls, TickWithNothingDueTestsTheEventAndReleases) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.Tick(); }), cLock + cTestEvent + cUnlock);
}

TEST_F(SystemCalls, TickAfterAChangeReadsTheFileAndThenResetsTheEvent) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.Tick(); },
                 [](const CAddinLibrary& it) { it.PauseTask("second"); }),
              cLock + cTestEvent + cLoad + TCalls({"semctl changed 0 SETVAL 0"}) + cUnlock);
}

TEST_F(SystemCalls, TickThatLaunchesTestsTheEventAfterEachLaunchAndWritesOnceAtTheEnd) {
    rows[1].paused = 0;
    WriteTable(rows);
    EXPECT_EQ(Of([](const CAddinLibrary& it) {
                  for (TTask* task : *it.TaskList())
                      task->nextExecution = 0;
                  it.Tick();
              }),
              cLock + cTestEvent + cTestEvent + cTestEvent + Save(Size()) + cUnlock);
}

TEST_F(SystemCalls, SchedulingThreadDoesNotReadTheFileForItsCalls) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.IsScheduled("first"); },
                 [](const CAddinLibrary& it) { it.Tick(); }),
              cLock + cUnlock);
}

TEST_F(SystemCalls, UnloadOfTheAddInOnlyLocksAndReleases) {
    EXPECT_EQ(Of([](const CAddinLibrary& it) { it.AddIn().Unload(); }), cLock + cUnlock);
}

TEST_F(SystemCalls, UnloadOfTheAddInEmptiesTheListBetweenLockAndRelease) {
    library.emplace();
    const auto& tasks = *library->TaskList();
    CTracedChild child([] {},
                       [&] {
                           library->AddIn().Unload();
                           return 0;
                       });
    // The child has its own copy of the list at the same address.
    const auto sizeBefore = [&](const std::string& call) {
        while (child.Step() && (!child.IsBefore() || child.Call() != call)) {
        }
        alignas(std::list<TTask*>) unsigned char copy[sizeof(std::list<TTask*>)];
        child.ReadMemory(&tasks, copy, sizeof copy);
        return reinterpret_cast<std::list<TTask*>*>(copy)->size();
    };
    EXPECT_EQ(sizeBefore(cLock.front()), 2U);
    EXPECT_EQ(sizeBefore(cUnlock.front()), 0U);
}

// No further call is made on a set that may not be opened.
TEST_F(SystemCalls, ConstructionThatMayNotOpenTheSetEndsTheProcessAtOnce) {
    ASSERT_NE(semget(cStoreKey, 1, IPC_CREAT), -1);
    bool asked = false;
    const TCalls calls = SystemCallsOf([] { DropCapabilities(); },
                                       [] {
                                           new CMutex(cMutexName);
                                           return 0;
                                       });
    for (const std::string& call : calls)
        asked |= call.starts_with("semctl");
    EXPECT_FALSE(asked);
    EXPECT_EQ(calls.at(0), "semget mutex 1 03660");
    EXPECT_EQ(calls.at(1), "semget mutex 1 0660");
}

TEST_F(SystemCalls, ConstructionMakesTheSharedObjectsThenReadsAndWritesUnderTheMutex) {
    const TCalls calls = SystemCallsOf(
        [&] {
            library.emplace();
            library->DestroyAddIn(library->CreateAddIn());
        },
        [&] {
            library->CreateAddIn();
            return 0;
        });
    EXPECT_EQ(calls,
              TCalls({"semget stop 3 01660", "semop stop 2:0 now 1:0 now 0:0 now 1:1 now undo",
                      "semget mutex 1 03660", "semctl mutex 0 SETVAL 1", "semget changed 3 01660",
                      "semop changed 2:0 now 1:0 now 0:0 now 1:1 now undo"}) +
                  cLock + cLoad + Save(Size()) + cUnlock + TCalls({"end"}));
}

TEST_F(SystemCalls, ConstructionWithSetsThatExistOpensTheMutexAndSetsItFreeAsWell) {
    library.emplace();
    const TCalls calls = SystemCallsOf([&] {},
                                       [&] {
                                           new CMutex(cMutexName);
                                           return 0;
                                       });
    EXPECT_EQ(calls, TCalls({"semget mutex 1 03660", "semget mutex 1 0660",
                             "semctl mutex 0 SETVAL 1", "end"}));
}

TEST_F(SystemCalls, DestructionClosesTheEventAndRemovesTheMutex) {
    const TCalls calls = SystemCallsOf([&] { library.emplace(); },
                                       [&] {
                                           library->DestroyAddIn(library->CreateAddIn());
                                           return 0;
                                       });
    EXPECT_EQ(calls,
              TCalls({"semop changed 1:-1 now undo 1:0 now 2:1 now", "semctl changed 0 RMID",
                      "semop mutex 0:1 undo", "semctl mutex 0 RMID",
                      "semop stop 1:-1 now undo 1:0 now 2:1 now", "semctl stop 0 RMID", "end"}));
}

// At 10 tasks and at 100,000, with strings of all lengths across the ends of the blocks.
TEST_F(SystemCalls, LargerTableTakesMoreReadsAndWritesAndNothingElse) {
    for (const std::size_t tasks : {10U, 100'000U}) {
        rows.clear();
        for (std::size_t index = 0; index < tasks; ++index)
            rows.push_back({"name " + std::to_string(index), cFuture, 0, 24, "/opt/tool",
                            std::string(index % 97, 'x'), 0});
        WriteTable(rows);
        EXPECT_EQ(Of([](const CAddinLibrary& it) { it.IsScheduled("unknown"); }),
                  cLock + LoadOf(Size()) + cUnlock);
        EXPECT_EQ(Of([](const CAddinLibrary& it) { it.PauseTask("unknown"); }),
                  cLock + LoadOf(Size()) + Save(Size()) + cSignal + cUnlock);
    }
}
