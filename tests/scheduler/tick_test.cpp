// The tick: the launches, their order, the saved table, and changes of the table during the walk
// over the tasks.

#include <CEvent.h>
#include <VXC_Log.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <scheduler/Scheduler.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <thread>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr time_t cNow = 1'000'000;

// A task of that name whose program is "/name".
static TRow Task(const std::string& name, std::int64_t next, std::uint32_t period,
                 std::uint32_t paused = 0) {
    return {name, next, 0, period, "/" + name, "parameter of " + name, paused};
}

// The tick reads these rows unchanged: they are written to the file after the load, which would
// have rescheduled them, and signalled.
class Tick : public testing::Test {
protected:
    void SetUp() override { WriteTable({}); }

    CAddinLibrary& Library() {
        if (!library)
            library.emplace();
        return *library;
    }

    void Put(const TRows& rows) {
        Library();
        WriteTable(rows);
        changed.SetEvent();
    }

    std::string TickAndListLaunches() {
        system.launches.clear();
        Library().Tick();
        return system.LaunchedPaths();
    }

    CFakeSystem system{cNow};
    CLogCapture log;
    CEvent changed{cTaskChanged, true};
    std::optional<CAddinLibrary> library;
};

TEST_F(Tick, StartsDueTasksAndReschedulesThem) {
    Put({Task("a", cNow - 10, 1), Task("b", cNow + 10, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(ReadTable()[0].next, cNow - 10 + 3600);
    EXPECT_EQ(ReadTable()[0].last, cNow + 2);
    EXPECT_EQ(ReadTable()[1], Task("b", cNow + 10, 1));
}

TEST_F(Tick, EqualTimeIsDue) {
    Put({Task("a", cNow, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
}

TEST_F(Tick, OneSecondLaterWaitsEvenIfTheTickLastsLonger) {
    Put({Task("a", cNow, 1), Task("b", cNow + 1, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_GT(system.now, cNow + 1);
    EXPECT_EQ(TickAndListLaunches(), "/b");
}

TEST_F(Tick, TaskDueAgainAtTheSameSecondRunsAtTheNextTick) {
    // The two seconds of the launch advance the clock exactly to the task's next due time: it stays
    // due.
    Put({Task("a", cNow + 2 - 3600, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(ReadTable()[0].next, cNow + 2);
    EXPECT_EQ(TickAndListLaunches(), "/a");
}

TEST_F(Tick, PausedTaskIsNeverStartedWhateverTheFlagHolds) {
    Put({Task("a", cNow - 1, 1, 1), Task("b", cNow - 1, 0, 2),
         Task("c", INT64_MIN, 1, 0xFFFFFFFF)});
    EXPECT_EQ(TickAndListLaunches(), "");
    EXPECT_EQ(NamesInTable(), "a b c");
}

TEST_F(Tick, EmptyListTestsTheEventAndTakesAndReleasesTheMutex) {
    Put({});
    EXPECT_EQ(TickAndListLaunches(), "");
    EXPECT_EQ(changed.Wait(0), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Tick, NothingDueDoesNotWriteTheFile) {
    Put({Task("a", cNow + 100, 1)});
    TickAndListLaunches();
    std::filesystem::remove(cTable);
    TickAndListLaunches();
    EXPECT_FALSE(std::filesystem::exists(cTable));
}

TEST_F(Tick, EmptyListDoesNotWriteTheFile) {
    TickAndListLaunches();
    std::filesystem::remove(cTable);
    TickAndListLaunches();
    EXPECT_FALSE(std::filesystem::exists(cTable));
}

TEST_F(Tick, WritesOnceAtTheEnd) {
    Put({Task("a", cNow, 1), Task("b", cNow, 1)});
    std::string during;
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/b")
            during = ReadFile(cTable);
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /b");
    EXPECT_EQ(during, BytesOf({Task("a", cNow, 1), Task("b", cNow, 1)}));
    EXPECT_NE(ReadFile(cTable), during);
}

TEST_F(Tick, ReadsTheFileOnlyWhenTheEventIsSignalled) {
    Library();
    WriteTable({Task("a", cNow, 1)});
    EXPECT_EQ(TickAndListLaunches(), "");
    changed.SetEvent();
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(changed.Wait(0), 0);
}

TEST_F(Tick, FileThatCannotBeReadLeavesTheListAndIsNotReported) {
    Put({Task("a", cNow + 5, 0)});
    TickAndListLaunches();
    std::filesystem::remove(cTable);
    changed.SetEvent();
    system.now = cNow + 5;
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(changed.Wait(0), 0);
    EXPECT_EQ(ReadTable(), TRows());
}

TEST_F(Tick, DamagedFileIsResetAndNothingIsStarted) {
    Put({Task("a", cNow + 5, 1)});
    TickAndListLaunches();
    WriteFile(cTable, "damaged");
    changed.SetEvent();
    system.now = cNow + 5;
    EXPECT_EQ(TickAndListLaunches(), "");
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
    EXPECT_EQ(ReadTable(), TRows());
    EXPECT_EQ(changed.Wait(0), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Tick, TimesAreComparedWithTheirSign) {
    Put({Task("x", INT64_MAX, 1), Task("a", INT64_MIN, 0), Task("b", -1, 0)});
    EXPECT_EQ(TickAndListLaunches(), "/a /b");
    EXPECT_EQ(ReadTable(), TRows({Task("x", INT64_MAX, 1)}));
}

TEST_F(Tick, ClockBeforeTheEpochIsAClockToo) {
    Put({Task("a", -10, 0), Task("b", -9, 0)});
    system.now = -10;
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(Tick, TaskThatRunsOnceIsStartedRemovedAndTheFileSavedWithoutIt) {
    Put({Task("a", cNow - 1, 0), Task("b", cNow + 1000, 0)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(NamesInTable(), "b");
    EXPECT_EQ(TickAndListLaunches(), "");
}

TEST_F(Tick, OnlyTaskRunsOnce) {
    Put({Task("a", cNow, 0)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(ReadTable(), TRows());
}

TEST_F(Tick, OfTwoDueTasksThatRunOnceTheSecondWaitsForTheNextTick) {
    Put({Task("a", cNow, 0), Task("b", cNow, 0)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(NamesInTable(), "b");
    EXPECT_EQ(TickAndListLaunches(), "/b");
    EXPECT_EQ(NamesInTable(), "");
}

TEST_F(Tick, AfterARemovalTheNewFirstTaskIsSkipped) {
    Put({Task("a", cNow, 0), Task("b", cNow, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(TickAndListLaunches(), "/b");
}

TEST_F(Tick, AfterARemovalTheWalkGoesOnWithTheSecondTask) {
    Put({Task("x", cNow + 10'000, 1), Task("a", cNow, 0), Task("b", cNow, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a /b");
}

TEST_F(Tick, EventSignalledDuringALaunchRestartsTheWalkAtTheSecondTask) {
    Put({Task("a", cNow, 1), Task("b", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/a")
            changed.SetEvent();
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /b");
    EXPECT_NE(changed.Wait(0), 0) << "the event stays signalled for the next tick";
}

TEST_F(Tick, FirstTaskIsNotCheckedAgainAfterTheJump) {
    Put({Task("a", cNow, 1, 1), Task("b", cNow, 1), Task("c", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/b") {
            Library().TaskList()->front()->paused = 0;
            changed.SetEvent();
        }
    };
    EXPECT_EQ(TickAndListLaunches(), "/b /c");
    EXPECT_EQ(TickAndListLaunches(), "/a") << "as the tick has saved it";
}

TEST_F(Tick, EventSignalledWhileTheOnlyTaskRunsEndsTheWalk) {
    Put({Task("a", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch&) { changed.SetEvent(); };
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(ReadTable()[0].next, cNow + 3600);
}

TEST_F(Tick, ListThatGrowsDuringALaunchRestartsTheWalkToo) {
    // The tasks are counted before the launch. The jump lets the same tick reach b, which is
    // resumed meanwhile.
    Put({Task("a", cNow, 1), Task("b", cNow, 1, 1), Task("c", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path != "/c")
            return;
        (*std::next(Library().TaskList()->begin()))->paused = 0;
        auto* const more = new TTask;
        more->name = "more";
        more->nextExecution = cNow + 1000;
        Library().TaskList()->push_back(more);
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /c /b");
}

TEST_F(Tick, EventAndRemovalTogetherAreOneJump) {
    Put({Task("x", cNow + 10'000, 1), Task("a", cNow, 0), Task("b", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/a")
            changed.SetEvent();
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /b");
    EXPECT_EQ(NamesInTable(), "x b");
}

TEST_F(Tick, SignalDuringALaunchMakesTheNextTickReadTheFile) {
    Put({Task("a", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch&) { changed.SetEvent(); };
    EXPECT_EQ(TickAndListLaunches(), "/a");
    system.onLaunch = nullptr;
    WriteTable({Task("c", cNow, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/c");
    EXPECT_EQ(changed.Wait(0), 0);
}

TEST_F(Tick, EveryLaterLaunchSeesTheSignalAgain) {
    // Only the jump back after c lets the same tick reach b, which is resumed meanwhile.
    Put({Task("a", cNow, 1), Task("b", cNow, 1, 1), Task("c", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/a")
            changed.SetEvent();
        if (launch.path == "/c")
            (*std::next(Library().TaskList()->begin()))->paused = 0;
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /c /b");
}

TEST_F(Tick, WithoutASignalTheWalkGoesOnFromWhereItIs) {
    Put({Task("a", cNow, 1), Task("b", cNow, 1, 1), Task("c", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/c")
            (*std::next(Library().TaskList()->begin()))->paused = 0;
    };
    EXPECT_EQ(TickAndListLaunches(), "/a /c");
}

TEST_F(Tick, ChangeSavedDuringTheWalkIsOverwrittenAndReadBackAtTheNextTick) {
    Put({Task("a", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch&) {
        WriteTable({Task("other", cNow + 5000, 1)});
        changed.SetEvent();
    };
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(NamesInTable(), "a");
    system.onLaunch = nullptr;
    TickAndListLaunches();
    EXPECT_EQ(changed.Wait(0), 0);
    EXPECT_EQ(Library().TaskList()->size(), 1U);
    EXPECT_EQ(Library().TaskList()->front()->name, "a");
}

TEST_F(Tick, OfTwoTasksOfANameTheFirstIsRemovedAndTheOneThatRanRunsAgain) {
    TRow first = Task("same", cNow + 10'000, 0);
    first.program = "/first";
    TRow second = Task("same", cNow, 0);
    second.program = "/second";
    Put({first, second});
    EXPECT_EQ(TickAndListLaunches(), "/second");
    ASSERT_EQ(ReadTable().size(), 1U);
    EXPECT_EQ(ReadTable()[0].program, "/second");
    EXPECT_EQ(TickAndListLaunches(), "/second");
    EXPECT_EQ(ReadTable(), TRows());
}

TEST_F(Tick, TaskWhoseLaunchFailedIsRescheduledOrRemovedLikeAnyOther) {
    Put({Task("x", cNow + 10'000, 1), Task("first", cNow, 0), Task("second", cNow - 1, 2)});
    system.launchResult = ENOENT;
    EXPECT_EQ(TickAndListLaunches(), "/first /second");
    EXPECT_EQ(NamesInTable(), "x second");
    EXPECT_EQ(ReadTable()[1].next, cNow - 1 + 7200);
    EXPECT_EQ(ReadTable()[1].last, 0);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed, cLaunchFailed}));
}

TEST_F(Tick, MissedPeriodsAreStartedOnce) {
    Put({Task("a", cNow - 10 * 3600 - 5, 1)});
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(ReadTable()[0].next, cNow - 5 + 3600);
    EXPECT_EQ(TickAndListLaunches(), "");
}

TEST_F(Tick, ReadsTheClockOnceForTheWholeWalk) {
    Put({Task("a", cNow + 1, 1), Task("b", cNow + 2, 1), Task("c", cNow + 3, 1)});
    const int before = system.timeReadings;
    TickAndListLaunches();
    EXPECT_EQ(system.timeReadings - before, 1);
    // A launch reads it twice more: for the last launch and for the next due time.
    system.now = cNow + 1;
    const int beforeStart = system.timeReadings;
    EXPECT_EQ(TickAndListLaunches(), "/a");
    EXPECT_EQ(system.timeReadings - beforeStart, 3);
}

TEST_F(Tick, HoldsTheMutexThroughLaunchAndPause) {
    Put({Task("a", cNow, 1)});
    std::vector<int> values;
    system.onLaunch = [&](const CFakeSystem::TLaunch&) { values.push_back(StoreSemaphoreValue()); };
    system.onSleep = [&] { values.push_back(StoreSemaphoreValue()); };
    TickAndListLaunches();
    EXPECT_EQ(values, std::vector<int>({0, 0}));
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Tick, ExceptionReleasesTheMutexAndSavesNothing) {
    Put({Task("a", cNow, 1)});
    system.onLaunch = [](const CFakeSystem::TLaunch&) { throw std::runtime_error("launch"); };
    EXPECT_THROW(TickAndListLaunches(), std::runtime_error);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(ReadTable(), TRows({Task("a", cNow, 1)}));
}

static void Throw(const std::string& /*message*/, void* /*context*/) {
    throw std::runtime_error("log");
}

TEST_F(Tick, ExceptionOfTheLogAboutALaterTaskLeavesTheListAsItWasThen) {
    Put({Task("a", cNow, 1), Task("b", cNow, 1)});
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        if (launch.path == "/b")
            VXC_SetLogSink(Throw, nullptr);
    };
    EXPECT_THROW(TickAndListLaunches(), std::runtime_error);
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(ReadTable(), TRows({Task("a", cNow, 1), Task("b", cNow, 1)}));
    EXPECT_EQ(Library().TaskList()->front()->nextExecution, cNow + 3600);
    EXPECT_EQ(Library().TaskList()->back()->nextExecution, cNow);
}

TEST_F(Tick, ExceptionWhileTheFileIsReadLeavesTheEventSignalled) {
    Put({});
    WriteFile(cTable, "damaged");
    VXC_SetLogSink(Throw, nullptr);
    EXPECT_THROW(TickAndListLaunches(), std::runtime_error);
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_NE(changed.Wait(0), 0);
}

TEST_F(Tick, ManyDueTasksAreAllStartedInOrder) {
    TRows rows;
    std::string expected;
    for (int index = 0; index < 200; ++index) {
        rows.push_back(Task("t" + std::to_string(index), cNow, 1));
        expected += (index == 0 ? "/t" : " /t") + std::to_string(index);
    }
    Put(rows);
    EXPECT_EQ(TickAndListLaunches(), expected);
    EXPECT_EQ(system.sleeps.size(), 200U);
}

TEST_F(Tick, SchedulingThreadAnswersFromMemoryAndOthersFromTheFile) {
    Put({Task("a", cNow + 100, 1)});
    EXPECT_TRUE(Library().IsScheduled("a"));
    TickAndListLaunches();
    WriteTable({});
    EXPECT_TRUE(Library().IsScheduled("a"));
    bool elsewhere = true;
    std::thread([&] { elsewhere = Library().IsScheduled("a"); }).join();
    EXPECT_FALSE(elsewhere);
}

TEST_F(Tick, BeforeTheFirstTickEveryThreadReadsTheFile) {
    Put({Task("a", cNow + 100, 1)});
    EXPECT_TRUE(Library().IsScheduled("a"));
    WriteTable({});
    EXPECT_FALSE(Library().IsScheduled("a"));
}

TEST_F(Tick, LatestTickingThreadIsTheSchedulingThread) {
    Put({Task("a", cNow + 100, 1)});
    TickAndListLaunches();
    std::thread([&] { Library().Tick(); }).join();
    WriteTable({});
    EXPECT_FALSE(Library().IsScheduled("a"));
}
