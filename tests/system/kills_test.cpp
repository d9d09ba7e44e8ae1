// Processes that are killed: before and after every system call of an operation, and at random
// moments. Afterwards the mutex must be free, no process may wait for ever, and the table must be
// the old one, the new one, or one that the next reader detects as damaged.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "TracedChild.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr char cStop[] = "libVantrixScheduler.so";
static constexpr long cNow = 1'000'000;
static constexpr long cFuture = 4'000'000'000;

enum : int { cIntact = 40, cNoticed };

// How the next process that loads the library finds the file: cIntact, or cNoticed when it logged
// damage and left an empty table. In both cases the mutex is free for it.
static int NextLoad() {
    CForkedChild next([] {
        CFakeSystem system(cNow);
        CLogCapture log;
        const CAddinLibrary library;
        const std::vector<std::string> lines = log.Take();
        if (StoreSemaphoreValue() != 1)
            return 1;
        if (lines.empty())
            return static_cast<int>(cIntact);
        return lines == std::vector<std::string>({cReadingFailed}) &&
                       ReadFile(cTable) == std::string(8, '\0')
                   ? static_cast<int>(cNoticed)
                   : 2;
    });
    return next.Wait();
}

static void RemoveAllSets() {
    for (int id = TheOnlySet(); id != -1; id = TheOnlySet())
        semctl(id, 0, IPC_RMID);
}

// How far an operation got before it was killed.
struct TProgress {
    bool truncated = false;
    bool written = false;
    bool signalled = false;
    std::string at;

    // Records that the call was made.
    void Made(const std::string& call, std::size_t writes) {
        if (call.find("TRUNC") != std::string::npos)
            truncated = true;
        if (truncated && call.starts_with("write") && ++writesMade == writes)
            written = true;
        if (call == "semctl changed 0 SETVAL 1")
            signalled = true;
    }

private:
    std::size_t writesMade = 0;
};

class KilledAtEachCall : public testing::Test {
protected:
    using TOperation = std::function<void(const CAddinLibrary& library)>;

    void SetUp() override {
        old = {{"first", cFuture, 5, 24, "/opt/tool", "text", 0},
               {"second", cFuture, 0, 1, "/opt/other", "", 1}};
    }

    // Runs `operation` in a child once for every point at which it can be killed, and kills it
    // there.
    void KillAtEachCallOf(const TOperation& operation) {
        const std::string before = BytesOf(old);
        const auto prepare = [&] {
            system.emplace(cNow);
            system->ended = true;
            library.emplace();
        };
        const auto body = [&] {
            operation(*library);
            return 0;
        };
        WriteTable(old);
        std::size_t writes = 0;
        for (const std::string& call : SystemCallsOf(prepare, body))
            writes += call.starts_with("write") ? 1 : 0;
        const std::string after = ReadFile(cTable);
        ASSERT_NE(before, after);

        bool ended = false;
        for (int point = 0; !ended; ++point) {
            WriteFile(cTable, before);
            changed.ResetEvent();
            CTracedChild child(prepare, body);
            TProgress progress;
            for (int step = 0; step < point && !ended; ++step) {
                ended = !child.Step();
                if (ended)
                    break;
                progress.at = (child.IsBefore() ? "before " : "after ") + child.Call();
                if (!child.IsBefore())
                    progress.Made(child.Call(), writes);
            }
            if (ended)
                break;
            child.Kill();
            SCOPED_TRACE("killed " + progress.at);
            EXPECT_EQ(StoreSemaphoreValue(), 1);
            EXPECT_EQ(changed.Wait(0) != 0, progress.signalled);
            const std::string file = ReadFile(cTable);
            if (!progress.truncated) {
                EXPECT_EQ(file, before);
            } else if (progress.written) {
                EXPECT_EQ(file, after);
            } else {
                EXPECT_EQ(after.compare(0, file.size(), file), 0);
                EXPECT_LT(file.size(), after.size());
                EXPECT_EQ(NextLoad(), cNoticed);
                ++damaged;
            }
        }
        EXPECT_GT(damaged, 0) << "there is a moment at which the table is lost";
    }

    TRows old;
    int damaged = 0;
    CEvent changed{cTaskChanged, true};
    std::optional<CFakeSystem> system;
    std::optional<CAddinLibrary> library;
};

TEST_F(KilledAtEachCall, CreationIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.Create("third", cFuture, 1); });
}

TEST_F(KilledAtEachCall, ReplacementIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.Create("first", cFuture, 1); });
}

TEST_F(KilledAtEachCall, RemovalIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.DestroyTask("first"); });
}

TEST_F(KilledAtEachCall, PauseIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.PauseTask("first"); });
}

TEST_F(KilledAtEachCall, ResumptionIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.ResumeTask("second"); });
}

TEST_F(KilledAtEachCall, PeriodIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.SetTaskPeriod("first", 2); });
}

TEST_F(KilledAtEachCall, RunNowIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) { it.ExecuteTaskNow("first", true); });
}

TEST_F(KilledAtEachCall, TickIsOldNewOrNoticed) {
    KillAtEachCallOf([](const CAddinLibrary& it) {
        for (TTask* task : *it.TaskList())
            task->nextExecution = cNow;
        it.Tick();
    });
}

TEST_F(KilledAtEachCall, TableOfSeveralBlocksIsOldNewOrNoticed) {
    // Few long parameters rather than many short ones: the child is stopped at each system call,
    // and each allocation may make one.
    for (int index = 0; index < 22; ++index)
        old.push_back({"task " + std::to_string(index), cFuture, 0, 1, "/opt/other",
                       std::string(100'000, 'x'), 0});
    KillAtEachCallOf([](const CAddinLibrary& it) { it.PauseTask("first"); });
    EXPECT_GT(damaged, 4) << "between every two writes";
}

TEST_F(KilledAtEachCall, ProbeLeavesTheMutexAtOne) {
    WriteTable(old);
    bool ended = false;
    int highest = 0;
    for (int point = 0; !ended; ++point) {
        CTracedChild child([&] { library.emplace(); },
                           [&] {
                               library->IsTaskRunning("first");
                               return 0;
                           });
        for (int step = 0; step < point && !ended; ++step)
            ended = !child.Step();
        if (ended)
            break;
        highest = std::max(highest, StoreSemaphoreValue());
        child.Kill();
        EXPECT_EQ(StoreSemaphoreValue(), 1) << point;
    }
    EXPECT_EQ(highest, 2) << "the excess of the probe is undone with its process";
    EXPECT_EQ(ReadTable(), old);
}

// From the first semaphore to the last write of a load in a store that does not exist yet.
TEST_F(KilledAtEachCall, LoadLeavesAStoreThatTheNextLoadBringsUp) {
    old.push_back({"past", cNow - 10, 0, 1, "/opt/tool", "", 0});
    TRows moved = old;
    moved.back().next = cNow - 10 + 3600;
    bool ended = false;
    int lost = 0;
    for (int point = 0; !ended; ++point) {
        WriteTable(old);
        TProgress progress;
        {
            CTracedChild child(
                [&] {
                    system.emplace(cNow);
                    library.emplace();
                    library->DestroyAddIn(library->CreateAddIn());
                    RemoveAllSets();
                    WriteTable(old);
                },
                [&] {
                    library->CreateAddIn();
                    return 0;
                });
            for (int step = 0; step < point && !ended; ++step) {
                ended = !child.Step();
                if (!ended && !child.IsBefore())
                    progress.Made(child.Call(), 1);
            }
            if (ended)
                break;
            child.Kill();
        }
        SCOPED_TRACE(point);
        const bool damage = progress.truncated && !progress.written;
        EXPECT_EQ(NextLoad(), damage ? cNoticed : cIntact);
        EXPECT_EQ(ReadTable(), damage ? TRows() : moved);
        lost += damage ? 1 : 0;
    }
    EXPECT_GT(lost, 0);
}

TEST_F(KilledAtEachCall, UnloadLeavesAStoreThatTheNextLoadBringsUp) {
    bool ended = false;
    for (int point = 0; !ended; ++point) {
        WriteTable(old);
        CTracedChild child([&] { library.emplace(); },
                           [&] {
                               library->DestroyAddIn(library->CreateAddIn());
                               return 0;
                           });
        for (int step = 0; step < point && !ended; ++step)
            ended = !child.Step();
        if (ended)
            break;
        child.Kill();
        EXPECT_EQ(NextLoad(), cIntact);
        EXPECT_EQ(ReadTable(), old);
    }
}

// ---- Named events -----------------------------------------------------------------------------

// Kills a child at each system call of its operation on the event, and checks the event from a
// process that has it open all the time.
static void KillAtEachCallOnAnEvent(bool manualReset, const std::function<void(CEvent&)>& operation,
                                    const std::function<void(CEvent& mine, bool made)>& check) {
    bool ended = false;
    for (int point = 0; !ended; ++point) {
        CEvent mine(cStop, manualReset);
        std::optional<CEvent> its;
        CTracedChild child([&] { its.emplace(cStop, manualReset); },
                           [&] {
                               operation(*its);
                               return 0;
                           });
        bool made = false;
        for (int step = 0; step < point && !ended; ++step) {
            ended = !child.Step();
            made |= !ended && !child.IsBefore() && !child.Call().empty();
        }
        if (!ended) {
            child.Kill();
            check(mine, made);
        }
    }
}

TEST(KilledOnAnEvent, SetterHasSignalledOrNot) {
    for (const bool manualReset : {false, true}) {
        KillAtEachCallOnAnEvent(
            manualReset, [](CEvent& event) { event.SetEvent(); },
            [](CEvent& mine, bool made) { EXPECT_EQ(mine.Wait(0), made ? 1 : 0); });
        EXPECT_EQ(CountSemaphoreSets(), 0);
    }
}

TEST(KilledOnAnEvent, ResetterHasTakenTheSignalOrNot) {
    KillAtEachCallOnAnEvent(
        true, [](CEvent& event) { event.ResetEvent(); },
        [](CEvent& mine, bool made) {
            EXPECT_EQ(mine.Wait(0), 0) << made;
            mine.SetEvent();
            EXPECT_EQ(mine.Wait(0), 1);
        });
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(KilledOnAnEvent, WaiterLeavesTheEventUsable) {
    for (const bool manualReset : {false, true}) {
        KillAtEachCallOnAnEvent(
            manualReset, [](CEvent& event) { event.Wait(0); },
            [](CEvent& mine, bool) {
                mine.SetEvent();
                EXPECT_EQ(mine.Wait(0), 1);
            });
        EXPECT_EQ(CountSemaphoreSets(), 0);
    }
}

TEST(KilledOnAnEvent, OpenerAndCloserLeaveNothingBehind) {
    for (const bool manualReset : {false, true}) {
        KillAtEachCallOnAnEvent(
            manualReset, [&](CEvent&) { const CEvent another(cStop, manualReset); },
            [](CEvent& mine, bool) {
                mine.SetEvent();
                EXPECT_EQ(mine.Wait(0), 1);
            });
        EXPECT_EQ(CountSemaphoreSets(), 0);
    }
}

TEST(KilledOnAnEvent, LastCloserLeavesAnEventThatTheNextOpenerFindsNotSignalled) {
    bool ended = false;
    for (int point = 0; !ended; ++point) {
        {
            std::optional<CEvent> its;
            CTracedChild child(
                [&] {
                    its.emplace(cStop, true);
                    its->SetEvent();
                },
                [&] {
                    its.reset();
                    return 0;
                });
            // `its` was made in the child: here there is none to be closed.
            for (int step = 0; step < point && !ended; ++step)
                ended = !child.Step();
        }
        CEvent next(cStop, true);
        EXPECT_EQ(next.Wait(0), 0) << point;
        next.SetEvent();
        EXPECT_EQ(next.Wait(0), 1) << point;
    }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// ---- Random moments ---------------------------------------------------------------------------

// A thousand holders are killed while another process keeps calling.
TEST(KilledAtRandom, AThousandHoldersLeaveAFreeMutexAndNobodyWaiting) {
    const TRows table = {{"kept", cFuture, 0, 1, "/opt/tool", "", 0}};
    WriteTable(table);
    const CAddinLibrary library;
    CForkedChild asker([&] {
        CLogCapture log;
        while (!std::filesystem::exists("enough"))
            library.IsScheduled("kept");
        return 42;
    });
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    int lost = 0;
    for (int iteration = 0; iteration < 1000; ++iteration) {
        CForkedChild holder([&] {
            CLogCapture log;
            for (;;) {
                library.Create("changing", cFuture, 1);
                library.PauseTask("changing");
                library.DestroyTask("changing");
            }
            return 0;
        });
        usleep(static_cast<useconds_t>(random() % 1000));
        holder.Kill(SIGKILL);
        ASSERT_EQ(holder.Wait(), 1000 + SIGKILL);
        // The other process may hold it at this moment; a killed one does not.
        sembuf take{0, -1, SEM_UNDO};
        const timespec second{1, 0};
        const int set = semget(cStoreKey, 1, 0);
        ASSERT_EQ(semtimedop(set, &take, 1, &second), 0);
        const std::string file = ReadFile(cTable);
        if (file.find("kept") == std::string::npos) {
            // Cut at its truncation, or reset by the next reader.
            ++lost;
            EXPECT_TRUE(file.empty() || file.starts_with(std::string("\0\0\0\0\0\0\0\0", 8)) ||
                        file.starts_with(std::string("\1\0\0\0\0\0\0\0", 8)))
                << iteration;
            WriteTable(table);
        }
        sembuf give{0, 1, SEM_UNDO};
        semop(set, &give, 1);
    }
    WriteFile("enough", "");
    EXPECT_EQ(asker.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    RecordProperty("TablesLost", lost);
}
