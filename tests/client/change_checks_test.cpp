// Reasons to refuse a change before the add-in is loaded: the task, the table, permissions, and
// harm that the load would do.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>

#include "ClientError.h"
#include "ClientStore.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

TEST_F(ClientStore, ValidationErrorsAreRefusedByName) {
    ErrorOf(EError::cRefused, [&] { store.Create(Task(""), false); });
    ErrorOf(EError::cRefused, [&] { store.Create(Task("a", In(-11s), 0), false); });
    ErrorOf(EError::cRefused, [&] { store.Create(Task("a", In(1h), 268435456), false); });
    TNewTask missing = Task("a");
    missing.program = "/no/such/program";
    const std::string message = ErrorOf(EError::cRefused, [&] { store.Create(missing, false); });
    EXPECT_NE(message.find("(or --force missing-program)"), std::string::npos) << message;
    EXPECT_FALSE(fs::exists(cTable));
    store.Create(missing, false, {"missing-program"});
    EXPECT_EQ(NamesInTable(), "a");
}

TEST_F(ClientStore, DamagedTableIsRefusedAndLeftAsItIs) {
    WriteFile(cTable, BytesOf({{"a", 1, 2, 3, "/p", "q", 0}}).substr(0, 40));
    ExpectKept([&] {
        ErrorOf(EError::cDamaged, [&] { store.Create(Task("b"), false); });
        ErrorOf(EError::cDamaged, [&] { store.Create(Task("a"), true); });
        ErrorOf(EError::cDamaged, [&] { store.Remove({"a"}); });
        ErrorOf(EError::cDamaged, [&] { store.Pause({"a"}); });
        ErrorOf(EError::cDamaged, [&] { store.Resume({"a"}); });
        ErrorOf(EError::cDamaged, [&] { store.SetPeriod("a", 1); });
        ErrorOf(EError::cDamaged, [&] { store.Edit("a", {}); });
        ErrorOf(EError::cDamaged, [&] { store.Run("a", true, false); });
    });
    EXPECT_EQ(CountSemaphoreSets(), 1) << "the mutex; nothing was loaded, which makes the events";
}

TEST_F(ClientStore, TableThatWouldHangALoadIsRefused) {
    WriteTable({{"endless", Seconds(In(-1h)), 0, 268435456, cRecorder, "", 1}});
    ExpectKept([&] { ErrorOf(EError::cDamaged, [&] { store.Create(Task("b"), false); }); });
    WriteTable({{"slow", -4'000'000'000'000, 0, 1, cRecorder, "", 1}});
    ExpectKept([&] { ErrorOf(EError::cDamaged, [&] { store.Create(Task("b"), false); }); });
}

TEST_F(ClientStore, PausedTasksOfThePastStayAsTheyAre) {
    const std::int64_t past = Seconds(In(-10h));
    const TRows rows = {{"once", past, 0, 0, cRecorder, "", 1},
                        {"often", past, 5, 3, cRecorder, "", 1}};
    WriteTable(rows);
    store.Create(Task("new"), false);
    TRows after = ::ReadTable();
    ASSERT_EQ(after.size(), 3U);
    after.pop_back();
    EXPECT_EQ(after, rows);
}

TEST_F(ClientStore, DueTasksWithoutASchedulingProcessNeedEvenIfDue) {
    const std::int64_t past = Seconds(In(-10h));
    const TRows rows = {{"once", past, 0, 0, cRecorder, "", 0},
                        {"often", past, 5, 3, cRecorder, "", 0}};
    WriteTable(rows);
    ExpectKept([&] {
        const std::string message =
            ErrorOf(EError::cNoScheduler, [&] { store.Create(Task("new"), false); });
        EXPECT_NE(message.find("\"once\""), std::string::npos) << message;
    });
    CStore({.evenIfDue = true}).Create(Task("new"), false);
    TRows after = ::ReadTable();
    ASSERT_EQ(after.size(), 3U);
    after.pop_back();
    EXPECT_EQ(after, rows) << "they stay due";
}

TEST_F(ClientStore, MissingDirectoriesAreReported) {
    fs::remove("files");
    EXPECT_NE(ErrorOf(EError::cFailed, [&] { store.Create(Task("a"), false); }).find("files"),
              std::string::npos);
    EXPECT_FALSE(fs::exists("files"));
    const CStore nowhere({.directory = "no such directory"});
    ErrorOf(EError::cFailed, [&] { nowhere.Create(Task("a"), false); });
    ErrorOf(EError::cFailed, [&] { nowhere.Read(); });
}

TEST_F(ClientStore, DueTimeTooFarBackIsRefused) {
    const TNewTask task = Task("a", TTime(-9'000'000'000'000s), 1);
    ErrorOf(EError::cRefused, [&] { store.Create(task, false); });
    store.Create(Task("a"), false);
    ExpectKept([&] { ErrorOf(EError::cRefused, [&] { store.Edit("a", {.due = task.due}); }); });
}

TEST_F(ClientStore, PeriodOfATaskThatIsDueItselfIsNotChangedUnderIt) {
    const std::int64_t due = Seconds(In(-1h));
    WriteTable({{"due", due, 0, 24, cRecorder, "", 0}});
    const CStore permissive({.evenIfDue = true});
    ExpectKept([&] { ErrorOf(EError::cRefused, [&] { permissive.SetPeriod("due", 6); }); });
    permissive.Edit("due", {.period = 6});
    EXPECT_EQ(::ReadTable()[0].next, due);
}

TEST_F(ClientStore, TableThatMayNotBeWrittenIsNoAccess) {
    store.Create(Task("a"), false);
    chmod(cTable, 0444);
    CForkedChild child([&] {
        if (!DropCapabilities())
            return 1;
        ExpectKept([&] { ErrorOf(EError::cNoAccess, [&] { store.Pause({"a"}); }); });
        return HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
