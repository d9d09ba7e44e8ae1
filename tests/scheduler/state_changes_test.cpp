// PauseTask, ResumeTask, SetTaskPeriod and ExecuteTaskNow.

#include <CEvent.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <optional>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr time_t cNow = 1'700'000'000;

class StateChanges : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        library.emplace();
        Put(rows);
    }

    void Put(const TRows& table) { WriteTable(table); }

    bool Signalled() {
        const bool result = changed.Wait(0) != 0;
        changed.ResetEvent();
        return result;
    }

    // A failed reload: nothing is changed, saved or signalled.
    template <typename Call>
    void ExpectNothingWithoutAFile(const Call& call) {
        library->IsScheduled("a");
        std::filesystem::remove(cTable);
        call();
        EXPECT_FALSE(std::filesystem::exists(cTable));
        EXPECT_FALSE(Signalled());
        EXPECT_EQ(library->TaskList()->front()->paused, 0);
        EXPECT_EQ(library->TaskList()->front()->period, 24U);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    }

    // An unknown name: the table is written as it was read, and signalled.
    template <typename Call>
    void ExpectWrittenAndSignalled(const Call& call) {
        std::filesystem::resize_file(cTable, std::filesystem::file_size(cTable) + 5);
        call();
        EXPECT_EQ(ReadFile(cTable), BytesOf(rows)) << "the bytes after the table are gone";
        EXPECT_TRUE(Signalled());
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    }

    const TRows rows = {{"a", cNow + 100, 5, 24, "/a", "text", 0},
                        {"once", cNow + 50, 0, 0, "/once", "", 0}};
    CFakeSystem system{cNow};
    CLogCapture log;
    CEvent changed{cTaskChanged, true};
    std::optional<CAddinLibrary> library;
};

// ---- Pause and resume -------------------------------------------------------------------------

TEST_F(StateChanges, PauseSetsTheFlagAndNothingElse) {
    library->PauseTask("a");
    TRows expected = rows;
    expected[0].paused = 1;
    EXPECT_EQ(ReadTable(), expected);
    EXPECT_TRUE(Signalled());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(StateChanges, PausingAgainChangesNothing) {
    library->PauseTask("a");
    const std::string bytes = ReadFile(cTable);
    library->PauseTask("a");
    EXPECT_EQ(ReadFile(cTable), bytes);
}

TEST_F(StateChanges, PauseOfATaskThatIsPastLeavesItsTime) {
    Put({{"a", cNow - 100, 5, 24, "/a", "text", 0}});
    library->PauseTask("a");
    EXPECT_EQ(ReadTable(), TRows({{"a", cNow - 100, 5, 24, "/a", "text", 1}}));
}

TEST_F(StateChanges, PauseOfAnUnknownNameWritesAndSignals) {
    ExpectWrittenAndSignalled([this] { library->PauseTask("unknown"); });
}

TEST_F(StateChanges, PauseWithoutAFileDoesNothing) {
    ExpectNothingWithoutAFile([this] { library->PauseTask("a"); });
}

TEST_F(StateChanges, ResumeClearsAnyFlag) {
    Put({{"a", cNow + 100, 5, 24, "/a", "text", 7}});
    library->ResumeTask("a");
    EXPECT_EQ(ReadTable(), TRows({{"a", cNow + 100, 5, 24, "/a", "text", 0}}));
    EXPECT_TRUE(Signalled());
}

TEST_F(StateChanges, ResumeReschedulesAPastTaskWithoutCatchUp) {
    Put({{"a", cNow - 10 * 86400 - 1, 5, 24, "/a", "text", 1}});
    library->ResumeTask("a");
    EXPECT_EQ(ReadTable(), TRows({{"a", cNow - 1 + 86400, 5, 24, "/a", "text", 0}}));
    library->Tick();
    EXPECT_TRUE(system.launches.empty());
}

TEST_F(StateChanges, ResumeRemovesATaskThatRunsOnceAndIsPast) {
    Put({{"a", cNow, 5, 0, "/a", "text", 1}, {"b", cNow + 1, 5, 0, "/b", "", 1}});
    library->ResumeTask("a");
    library->ResumeTask("b");
    EXPECT_EQ(NamesInTable(), "b");
    EXPECT_TRUE(Signalled());
}

TEST_F(StateChanges, ResumeOfAnUnknownNameWritesAndSignals) {
    ExpectWrittenAndSignalled([this] { library->ResumeTask("unknown"); });
}

TEST_F(StateChanges, ResumeWithoutAFileDoesNothing) {
    ExpectNothingWithoutAFile([this] { library->ResumeTask("a"); });
}

// ---- Another period ---------------------------------------------------------------------------

TEST_F(StateChanges, PeriodOfAnUnknownNameReturnsFalseWritesAndSignals) {
    ExpectWrittenAndSignalled([this] { EXPECT_FALSE(library->SetTaskPeriod("unknown", 5)); });
}

TEST_F(StateChanges, PeriodWithoutAFileReturnsFalseAndDoesNothing) {
    ExpectNothingWithoutAFile([this] { EXPECT_FALSE(library->SetTaskPeriod("a", 5)); });
}

TEST_F(StateChanges, PeriodOfZeroRemovesATaskWhoseEarlierDueTimeIsNotInTheFuture) {
    EXPECT_TRUE(library->SetTaskPeriod("a", 0));
    EXPECT_EQ(NamesInTable(), "once");
    EXPECT_TRUE(Signalled());
}

TEST_F(StateChanges, PeriodOfATaskThatRanOnceCountsFromItsOwnDueTime) {
    EXPECT_TRUE(library->SetTaskPeriod("once", 3));
    EXPECT_EQ(ReadTable().at(1).next, cNow + 50);
    EXPECT_EQ(ReadTable().at(1).period, 3U);
}

// Zones in which a period must have the same length: west and east of UTC, half hours, daylight
// saving in 1970 and now, a standard time that changed since, and a zone without a table.
class Zones : public StateChanges, public testing::WithParamInterface<const char*> {
protected:
    void SetUp() override {
        setenv("TZ", GetParam(), 1);
        tzset();
        StateChanges::SetUp();
    }
};

TEST_P(Zones, GridGoesBackByTheOldPeriodAndForwardByTheNew) {
    // Due in 100 s, every day: yesterday's run was at -86300. Every 5 hours from there the next is
    // at +3700.
    EXPECT_TRUE(library->SetTaskPeriod("a", 5));
    EXPECT_EQ(ReadTable().at(0).next, cNow + 100 - 86400 + 5 * 5 * 3600);
    EXPECT_EQ(ReadTable().at(0).period, 5U);
    EXPECT_TRUE(Signalled());
}

TEST_P(Zones, LongerPeriodKeepsThePhase) {
    EXPECT_TRUE(library->SetTaskPeriod("a", 168));
    EXPECT_EQ(ReadTable().at(0).next, cNow + 100 - 86400 + 168 * 3600);
}

TEST_P(Zones, PeriodThatGoesBackToTheFutureStaysThere) {
    Put({{"a", cNow + 20 * 3600, 0, 5, "/a", "", 0}});
    EXPECT_TRUE(library->SetTaskPeriod("a", 7));
    EXPECT_EQ(ReadTable().at(0).next, cNow + 15 * 3600);
}

TEST_P(Zones, EveryPeriodOfTenYearsIsItsLengthInSeconds) {
    const CInsideLibrary inside;
    for (std::uint32_t period = 0; period < 10 * 8766; ++period) {
        ASSERT_EQ(inside.SecondsOfPeriod(period), std::time_t{period} * 3600) << period;
    }
    EXPECT_EQ(inside.SecondsOfPeriod(1193046), 1193046L * 3600);
    EXPECT_EQ(inside.SecondsOfPeriod(1193047), 1193047L * 3600);
    EXPECT_EQ(inside.SecondsOfPeriod(268435456), 268435456L * 3600);
    EXPECT_EQ(inside.SecondsOfPeriod(2147483647), 2147483647L * 3600);
    EXPECT_EQ(inside.SecondsOfPeriod(4294967295), -3600) << "from 2^31 on the hours are negative";
}

INSTANTIATE_TEST_SUITE_P(TZ, Zones,
                         testing::Values("UTC", "Europe/Berlin", "Europe/London",
                                         "America/New_York", "America/Santiago", "Asia/Kathmandu",
                                         "Australia/Lord_Howe", "Pacific/Auckland", "Pacific/Apia",
                                         "Africa/Monrovia", "Asia/Tokyo", "<-0330>+3:30",
                                         "CET-1CEST", ""));

// A zone that changed its standard time has hours that it skipped or had twice in standard time.
struct TMovedClock {
    const char* zone;
    std::uint32_t period;  // the hour of the change, counted from the beginning of 1970
};
static void PrintTo(const TMovedClock& moved, std::ostream* out) {
    *out << moved.zone << ' ' << moved.period;
}

class MovedClocks : public StateChanges, public testing::WithParamInterface<TMovedClock> {};

TEST_P(MovedClocks, PeriodsAroundTheMoveAreTheirLengthInSeconds) {
    setenv("TZ", GetParam().zone, 1);
    tzset();
    const CInsideLibrary inside;
    for (std::uint32_t period = GetParam().period - 30; period < GetParam().period + 30; ++period)
        EXPECT_EQ(inside.SecondsOfPeriod(period), std::time_t{period} * 3600) << period;
}

INSTANTIATE_TEST_SUITE_P(Skipped, MovedClocks,
                         testing::Values(TMovedClock{"Africa/Casablanca", 124512},
                                         TMovedClock{"Africa/Monrovia", 17664},
                                         TMovedClock{"Asia/Kathmandu", 140256},
                                         TMovedClock{"Europe/Moscow", 193274},
                                         TMovedClock{"Europe/Moscow", 361442},
                                         TMovedClock{"Australia/Lord_Howe", 97848}));

INSTANTIATE_TEST_SUITE_P(Twice, MovedClocks,
                         testing::Values(TMovedClock{"Asia/Yerevan", 188412},
                                         TMovedClock{"America/Argentina/Cordoba", 184026},
                                         TMovedClock{"Europe/Minsk", 188413},
                                         TMovedClock{"America/Resolute", 276454},
                                         TMovedClock{"America/Cambridge_Bay", 267884},
                                         TMovedClock{"Asia/Tbilisi", 302788},
                                         TMovedClock{"Atlantic/Stanley", 140339},
                                         TMovedClock{"Pacific/Apia", 368124}));

static bool gFailCalendar = false;
static std::vector<tm> gRecords;  // arguments of mktime

// Called by the add-in on the test's thread. Records its argument, then does what libc
// does, or returns -1 without setting errno.
extern "C" time_t mktime(tm* record) noexcept {
    gRecords.push_back(*record);
    if (gFailCalendar)
        return -1;
    return reinterpret_cast<time_t (*)(tm*)>(dlsym(RTLD_NEXT, "mktime"))(record);
}

TEST_F(StateChanges, CalendarIsAskedForTheHoursSinceTheFirstDayOf1970) {
    gRecords.clear();
    EXPECT_TRUE(library->SetTaskPeriod("a", 5));
    ASSERT_FALSE(gRecords.empty());
    const tm& first = gRecords.front();
    EXPECT_EQ(first.tm_year, 70);
    EXPECT_EQ(first.tm_mon, 0);
    EXPECT_EQ(first.tm_mday, 1);
    EXPECT_EQ(first.tm_hour, 24);
    EXPECT_EQ(first.tm_min, 0);
    EXPECT_EQ(first.tm_sec, 0);
    EXPECT_EQ(first.tm_isdst, 0) << "in standard time";
    EXPECT_LE(gRecords.size(), 2U);
}

TEST_F(StateChanges, CalendarThatFailsTakesBackWhatItReturns) {
    Put({{"a", cNow + 100, 0, 24, "/a", "", 0}});
    gFailCalendar = true;
    gRecords.clear();
    EXPECT_TRUE(library->SetTaskPeriod("a", 5));
    gFailCalendar = false;
    std::vector<int> kinds;
    for (const tm& record : gRecords)
        kinds.push_back(record.tm_isdst);
    EXPECT_EQ(kinds, std::vector<int>({0, 1, -1, -1})) << "standard, daylight saving, whichever";
    EXPECT_EQ(ReadTable().at(0).next, cNow + 100 + 1);
    EXPECT_EQ(ReadTable().at(0).period, 5U);
}

TEST_F(StateChanges, PeriodsThatWrapAreTakenBackInFull) {
    Put({{"a", cNow + 4294969200, 0, 1193047, "/a", "", 0}});
    EXPECT_TRUE(library->SetTaskPeriod("a", 1));
    EXPECT_EQ(ReadTable().at(0).next, cNow);
}

TEST_F(StateChanges, PeriodTakenBackBelowTheRangeWraps) {
    Put({{"a", INT64_MIN + 10, 0, 1, "/a", "", 0}});
    EXPECT_TRUE(library->SetTaskPeriod("a", 2));
    EXPECT_EQ(ReadTable().at(0).next, INT64_MAX - 3600 + 11);
}

// ---- Running at once --------------------------------------------------------------------------

TEST_F(StateChanges, RunNowLaunchesSavesAndLeavesTheNextDueTime) {
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(system.LaunchedPaths(), "/a");
    EXPECT_EQ(system.launches[0].arguments.at(1), "text");
    TRows expected = rows;
    expected[0].last = cNow + 2;
    EXPECT_EQ(ReadTable(), expected);
    EXPECT_FALSE(Signalled());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(StateChanges, RunNowHoldsTheMutexThroughThePause) {
    int value = -1;
    system.onSleep = [&] { value = StoreSemaphoreValue(); };
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(value, 0);
}

TEST_F(StateChanges, RunNowOfAPausedTaskStartsItAndLeavesItPaused) {
    library->PauseTask("a");
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(system.LaunchedPaths(), "/a");
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
}

TEST_F(StateChanges, RunNowOfATaskThatRunsOnceKeepsIt) {
    library->ExecuteTaskNow("once", true);
    EXPECT_EQ(system.LaunchedPaths(), "/onc");
    EXPECT_EQ(ReadTable().at(1).program, "/onc") << "the trimmed path is saved";
    EXPECT_EQ(NamesInTable(), "a once");
}

TEST_F(StateChanges, RunNowOfAnUnknownNameNeitherSavesNorSignals) {
    std::filesystem::resize_file(cTable, std::filesystem::file_size(cTable) + 5);
    const std::string bytes = ReadFile(cTable);
    library->ExecuteTaskNow("unknown", true);
    library->ExecuteTaskNow("unknown", false);
    EXPECT_EQ(ReadFile(cTable), bytes);
    EXPECT_FALSE(Signalled());
    EXPECT_TRUE(system.launches.empty());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(StateChanges, RunNowWithoutAFileDoesNothing) {
    ExpectNothingWithoutAFile([this] { library->ExecuteTaskNow("a", true); });
    EXPECT_TRUE(system.launches.empty());
}

TEST_F(StateChanges, RunNowThatFailsToStartIsLoggedAndSaved) {
    system.launchResult = EACCES;
    std::filesystem::resize_file(cTable, std::filesystem::file_size(cTable) + 5);
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed}));
    EXPECT_EQ(ReadFile(cTable), BytesOf(rows));
}

TEST_F(StateChanges, UnforcedRunNowStartsATaskThatDoesNotRunAndLeavesTheMutexHigher) {
    library->ExecuteTaskNow("a", false);
    EXPECT_EQ(system.LaunchedPaths(), "/a");
    EXPECT_EQ(StoreSemaphoreValue(), 2);
}

TEST_F(StateChanges, UnforcedRunNowOfATaskThatSeemsToRunDoesNothing) {
    Put({{"a", cNow + 100, 5, 24, "", "text", 0}});
    std::filesystem::resize_file(cTable, std::filesystem::file_size(cTable) + 5);
    const std::string bytes = ReadFile(cTable);
    library->ExecuteTaskNow("a", false);
    EXPECT_TRUE(system.launches.empty());
    EXPECT_EQ(ReadFile(cTable), bytes);
    EXPECT_FALSE(Signalled());
    system.launchResult = ENOENT;
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed}));
}

TEST_F(StateChanges, OnTheSchedulingThreadChangesAreMadeInMemoryAndSaved) {
    library->IsScheduled("a");
    library->Tick();
    Put({});
    library->PauseTask("a");
    EXPECT_EQ(NamesInTable(), "a once");
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    EXPECT_TRUE(library->SetTaskPeriod("a", 24));
    library->ResumeTask("a");
    library->ExecuteTaskNow("a", true);
    EXPECT_EQ(system.LaunchedPaths(), "/a");
}
