// Creating, rewriting and removing tasks: the changes to the table, its file and the event.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>

#include <filesystem>
#include <optional>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr time_t cNow = 1'000'000;

class Changes : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        library.emplace();
    }

    // Whether the event was signalled since the last time.
    bool Signalled() {
        const bool result = changed.Wait(0) != 0;
        changed.ResetEvent();
        return result;
    }

    CFakeSystem system{cNow};
    CLogCapture log;
    CEvent changed{cTaskChanged, true};
    std::optional<CAddinLibrary> library;
};

class Creating : public Changes {};
class Removing : public Changes {};

TEST_F(Creating, WritesEveryFieldAndSignals) {
    library->Create("name", cNow + 5, 24, "/bin/program", "-full -quiet");
    EXPECT_EQ(ReadTable(), TRows({{"name", cNow + 5, 0, 24, "/bin/program", "-full -quiet", 0}}));
    EXPECT_TRUE(Signalled());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Creating, AppendsInCallOrder) {
    library->Create("b", cNow + 5, 1);
    library->Create("a", cNow + 4, 1);
    library->Create("c", cNow + 3, 1);
    EXPECT_EQ(NamesInTable(), "b a c");
}

TEST_F(Creating, NullStringsAreStoredAsEmptyOnes) {
    library->Create("name", cNow + 5, 24, nullptr, nullptr);
    EXPECT_EQ(ReadTable(), TRows({{"name", cNow + 5, 0, 24, "", "", 0}}));
}

TEST_F(Creating, NullNameInAnEmptyTableIsTheEmptyName) {
    library->Create(nullptr, cNow + 5, 24);
    EXPECT_EQ(ReadTable().at(0).name, "");
    EXPECT_TRUE(library->IsScheduled(""));
}

TEST_F(Creating, RewritesInPlaceKeepsTheLastLaunchAndUnpauses) {
    WriteTable({{"a", cNow + 1, 1, 1, "/a", "a", 0},
                {"b", cNow + 2, 77, 2, "/b", "b", 1},
                {"c", cNow + 3, 3, 3, "/c", "c", 0}});
    library->Create("b", cNow + 9, 99, "/new", "other");
    EXPECT_EQ(ReadTable(), TRows({{"a", cNow + 1, 1, 1, "/a", "a", 0},
                                  {"b", cNow + 9, 77, 99, "/new", "other", 0},
                                  {"c", cNow + 3, 3, 3, "/c", "c", 0}}));
    EXPECT_TRUE(Signalled());
}

TEST_F(Creating, RewritesTheFirstOfTheName) {
    WriteTable({{"same", cNow + 1, 0, 1, "/a", "", 0}, {"same", cNow + 2, 0, 2, "/b", "", 0}});
    library->Create("same", cNow + 9, 99, "/new");
    EXPECT_EQ(ReadTable().at(0).program, "/new");
    EXPECT_EQ(ReadTable().at(1).program, "/b");
}

TEST_F(Creating, DueTimeIsReadAndNotWritten) {
    long due = cNow - 5;
    library->CreateTask("name", &due, 1, "/bin/program", "");
    EXPECT_EQ(due, cNow - 5);
    EXPECT_EQ(ReadTable().at(0).next, cNow - 5 + 3600);
}

TEST_F(Creating, NewTaskThatRunsOnceSurvivesAPastDueTimeAndRunsAtTheNextTick) {
    library->Create("past", cNow - 5, 0);
    library->Create("now", cNow, 0);
    EXPECT_EQ(NamesInTable(), "past now");
    EXPECT_EQ(ReadTable().at(0).next, cNow - 5);
    library->Tick();
    EXPECT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(NamesInTable(), "now");
}

TEST_F(Creating, RewritingToRunOnceInThePastRemovesTheTask) {
    library->Create("a", cNow + 5, 1);
    library->Create("b", cNow + 5, 1);
    Signalled();
    library->Create("a", cNow, 0);
    EXPECT_EQ(NamesInTable(), "b");
    EXPECT_TRUE(Signalled());
    library->Create("b", cNow - 1, 0);
    EXPECT_EQ(NamesInTable(), "");
}

TEST_F(Creating, RewritingToRunOnceInTheFutureKeepsTheTask) {
    library->Create("a", cNow + 5, 1);
    library->Create("a", cNow + 1, 0);
    EXPECT_EQ(NamesInTable(), "a");
}

TEST_F(Creating, RepeatingTaskInThePastIsRescheduledNewOrRewritten) {
    library->Create("a", cNow - 1, 2);
    EXPECT_EQ(ReadTable().at(0).next, cNow - 1 + 7200);
    library->Create("a", cNow - 3601, 1);
    EXPECT_EQ(ReadTable().at(0).next, cNow - 1 + 3600);
    library->Create("a", cNow, 1);
    EXPECT_EQ(ReadTable().at(0).next, cNow);
}

TEST_F(Creating, TimesAtTheEndsOfTheRangeAreStored) {
    library->Create("last", INT64_MAX, 4294967295);
    library->Create("first", INT64_MIN, 0);
    EXPECT_EQ(ReadTable().at(0).next, INT64_MAX);
    EXPECT_EQ(ReadTable().at(0).period, 4294967295U);
    EXPECT_EQ(ReadTable().at(1).next, INT64_MIN);
}

TEST_F(Creating, StringsOfEveryByteAndOfAMebibyteAreStored) {
    std::string everything;
    for (int byte = 1; byte < 256; ++byte)
        everything += static_cast<char>(byte);
    const std::string large(1 << 20, 'L');
    library->Create((everything + large).c_str(), cNow + 1, 1, large.c_str(), everything.c_str());
    EXPECT_EQ(ReadTable(), TRows({{everything + large, cNow + 1, 0, 1, large, everything, 0}}));
    EXPECT_TRUE(library->IsScheduled((everything + large).c_str()));
    EXPECT_FALSE(library->IsScheduled(everything.c_str()));
}

TEST_F(Creating, ReadsTheFileFirst) {
    WriteTable({{"other", cNow + 1, 0, 1, "/a", "", 0}});
    library->Create("new", cNow + 2, 1);
    EXPECT_EQ(NamesInTable(), "other new");
}

TEST_F(Creating, GoesOnWithTheListItHasWhenTheFileIsMissing) {
    library->Create("first", cNow + 1, 1);
    Signalled();
    std::filesystem::remove(cTable);
    library->Create("second", cNow + 2, 1);
    EXPECT_EQ(NamesInTable(), "first second");
    EXPECT_TRUE(Signalled());
}

TEST_F(Creating, IsTheOnlyOneLeftAfterADamagedFile) {
    library->Create("first", cNow + 1, 1);
    std::filesystem::resize_file(cTable, 20);
    library->Create("second", cNow + 2, 1);
    EXPECT_EQ(NamesInTable(), "second");
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
}

TEST_F(Creating, WithoutTheDirectoryTheTaskIsInMemoryOnlyAndTheEventIsSignalled) {
    std::filesystem::remove_all("files");
    library->Create("a", cNow + 1, 1);
    EXPECT_FALSE(std::filesystem::exists("files"));
    EXPECT_EQ(library->TaskList()->size(), 1U);
    EXPECT_TRUE(Signalled());
}

TEST_F(Creating, OnTheSchedulingThreadTheFileIsNotRead) {
    library->Create("mine", cNow + 1, 1);
    library->Tick();
    WriteTable({{"theirs", cNow + 1, 0, 1, "/a", "", 0}});
    library->Create("new", cNow + 2, 1);
    EXPECT_EQ(NamesInTable(), "mine new");
}

TEST_F(Creating, AThousandTasksKeepTheirOrder) {
    std::string expected;
    for (int index = 0; index < 1000; ++index) {
        library->Create(std::to_string(index).c_str(), cNow + 1, 1);
        expected += (index == 0 ? "" : " ") + std::to_string(index);
    }
    EXPECT_EQ(NamesInTable(), expected);
}

TEST_F(Removing, RemovesTheTaskSavesAndSignals) {
    WriteTable({{"a", cNow + 1, 0, 1, "/a", "", 0},
                {"b", cNow + 1, 0, 1, "/b", "", 0},
                {"c", cNow + 1, 0, 1, "/c", "", 0}});
    library->DestroyTask("b");
    EXPECT_EQ(NamesInTable(), "a c");
    EXPECT_TRUE(Signalled());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Removing, RemovesTheFirstOfTheName) {
    WriteTable({{"same", cNow + 1, 0, 1, "/a", "", 0}, {"same", cNow + 2, 0, 2, "/b", "", 0}});
    library->DestroyTask("same");
    EXPECT_EQ(ReadTable(), TRows({{"same", cNow + 2, 0, 2, "/b", "", 0}}));
}

TEST_F(Removing, UnknownNameWritesAndSignalsAllTheSame) {
    const TRows rows = {{"a", cNow + 1, 0, 1, "/a", "", 0}};
    // Bytes after the table disappear when it is written again.
    WriteTable(rows);
    std::filesystem::resize_file(cTable, std::filesystem::file_size(cTable) + 5);
    library->DestroyTask("unknown");
    EXPECT_EQ(ReadFile(cTable), BytesOf(rows));
    EXPECT_TRUE(Signalled());
}

TEST_F(Removing, FailedReloadChangesSavesAndSignalsNothing) {
    library->Create("a", cNow + 1, 1);
    Signalled();
    std::filesystem::remove(cTable);
    library->DestroyTask("a");
    EXPECT_FALSE(std::filesystem::exists(cTable));
    EXPECT_FALSE(Signalled());
    EXPECT_EQ(library->TaskList()->size(), 1U);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Removing, DamagedFileIsResetAndNotSignalled) {
    library->Create("a", cNow + 1, 1);
    Signalled();
    std::filesystem::resize_file(cTable, 20);
    library->DestroyTask("a");
    EXPECT_EQ(ReadTable(), TRows());
    EXPECT_FALSE(Signalled());
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
}
