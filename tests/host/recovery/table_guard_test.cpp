// A table under a running host: kept when it is valid, restored when it is damaged, emptied or
// gone.

#include <CEvent.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "store/CStoreMutexLock.h"
#include "store/Layout.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

static bool HasSnapshot(const std::string& bytes) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("files/snapshots", ignored)) {
        if (fs::exists(entry.path(), ignored) && ReadFile(entry.path()) == bytes)
            return true;
    }
    return false;
}

TEST(HostGuard, EveryValidTableIsKept) {
    WriteTable(cThree);
    CHost host(HostWith({"--snapshots", "2"}));
    WaitUntil([] { return CountIn("files/snapshots", "scheduler.dat") == 1; });
    for (const char* const name : {"first", "second", "third"})
        EXPECT_EQ(RunTool({"pause", name}).status, 0);
    TRows paused = cThree;
    for (TRow& row : paused)
        row.paused = 1;
    WaitUntil([&] { return HasSnapshot(BytesOf(paused)); });
    WaitUntil([] { return CountIn("files/snapshots") <= 2; });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, DamagedTableIsReplacedByTheLastValidOne) {
    WriteTable(cThree);
    CHost host;
    const std::string damaged = BytesOf(cThree).substr(0, 60);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile(cTable, damaged);
    }
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("the table is restored, with 3 task(s)")) << host.Output();
    EXPECT_EQ(host.CountInOutput("kept \"third\" from the last valid table"), 1U) << host.Output();
    EXPECT_EQ(CountIn("files", ".damaged-"), 1U);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable(), cThree);
}

TEST(HostGuard, TableThatADirectClientEmptiesIsRestored) {
    WriteTable(cThree);
    CHost host;
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile(cTable, BytesOf({}));
    }
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("the table has lost \"first\", \"second\", \"third\""))
        << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

// A direct client is killed in its save while the guard cannot restore the table, as in a tick. The
// load of the next one finds no task and saves that, and then it creates its own.
TEST(HostGuard, DamageThatADirectClientHasSavedOverIsRepaired) {
    WriteTable(cThree);
    CHost host;
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile(cTable, BytesOf(cThree).substr(0, 60));
        EXPECT_TRUE(host.WaitForOutput("It is restored as soon as the store mutex is free"));
        WriteTable({});
        WriteTable({Row("direct")});
    }
    WaitForTable({Row("direct"), cThree[0], cThree[1], cThree[2]});
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// Two direct clients whose loads let them in under each other: one creates a task, and the other,
// which has read the table before, overwrites that by its own.
TEST(HostGuard, TaskThatAnotherOnesSaveHasOverwrittenIsRestored) {
    WriteTable(cThree);
    CHost host;
    TRows rows = {cThree[0], cThree[1], Row("fourth")};
    SaveTable(rows);
    rows.push_back(cThree[2]);
    WaitForTable(rows);
    EXPECT_TRUE(host.WaitForOutput("the table has lost \"third\"")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

// A direct client's load sets the mutex free, so the guard may check the table in the middle of a
// save.
TEST(HostGuard, SaveThatHasOnlyBegunIsNoDamage) {
    WriteTable(cThree);
    CHost host;
    TRows four = cThree;
    four.push_back(Row("fourth"));
    {
        std::ofstream save(cTable, std::ios::binary | std::ios::trunc);
        save << BytesOf(four).substr(0, 60) << std::flush;
        // Whoever else closes the file makes the guard check the table.
        for (int look = 0; look < 10; ++look) {
            std::ofstream(cTable, std::ios::app).flush();
            std::this_thread::sleep_for(50ms);
        }
        save << BytesOf(four).substr(60);
    }
    WaitUntil([&] { return HasSnapshot(BytesOf(four)); });
    EXPECT_EQ(ReadTable(), four);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
    EXPECT_EQ(CountIn("files", ".damaged-"), 0U);
}

TEST(HostGuard, RemovalsAndImportsAreNotUndone) {
    WriteTable(cThree);
    CHost host;
    EXPECT_EQ(RunTool({"remove", "first", "third"}).status, 0);
    EXPECT_EQ(NamesInTable(), "second");
    EXPECT_EQ(RunTool({"remove", "second"}).status, 0);
    EXPECT_EQ(RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})").status, 0);
    EXPECT_EQ(RunTool({"create", "new", "--at", "in 1h", "--", PROGRAMS "/record-launch"}).status,
              0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "new");
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

RUN_AGAIN(RemoveOneAfterTheOther) {
    const CAddinLibrary library;
    for (const std::string& name : arguments)
        library.DestroyTask(name.c_str());
    _exit(0);
}

// By a client that calls the exported functions directly, before the host checks the table.
TEST(HostGuard, RemovalsInARowAreNotUndone) {
    TRows rows = cThree;
    rows.push_back(Row("fourth"));
    rows.push_back(Row("fifth"));
    WriteTable(rows);
    CHost host;
    Suspend(host);
    CProgram client(
        ThisProgramAs("RemoveOneAfterTheOther", {"first", "second", "third", "fourth"}));
    EXPECT_EQ(client.Wait(), 0) << client.Output();
    const std::size_t snapshots = CountIn("files/snapshots");
    host.Kill(SIGCONT);
    WaitUntil([&] { return CountIn("files/snapshots") > snapshots; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "fifth");
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

TEST(HostGuard, TableThatIsMovedAwayIsRestored) {
    WriteTable(cThree);
    CHost host;
    fs::rename(cTable, "elsewhere");
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("the table is restored, with 3 task(s)")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, TruncatedHeartbeatIsWrittenAgain) {
    CHost host;
    WriteFile("files/started/alive", "");
    WaitUntil([&] {
        host.Kill(SIGUSR1);
        return fs::file_size("files/started/alive") == 64;
    });
    EXPECT_EQ(host.Stop(), 0);
}

// As after a loss of power.
TEST(HostGuard, TableOfZerosIsRestoredAndRepaired) {
    WriteTable(cThree);
    const std::string zeros(BytesOf(cThree).size(), '\0');
    {
        CHost host;
        WriteFile(cTable, zeros);
        WaitForTable(cThree);
        EXPECT_EQ(host.Stop(), 0);
    }
    WriteFile(cTable, zeros);
    CHost host;
    EXPECT_EQ(ReadFile(cTable), BytesOf(cThree));
    EXPECT_EQ(host.CountInOutput("the table is repaired, with 3 task(s)"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, ReplacedTableIsNotRestored) {
    WriteTable(cThree);
    CHost host;
    EXPECT_EQ(RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})").status, 0);
    EXPECT_EQ(RunTool({"create", "new", "--at", "in 1h", "--", PROGRAMS "/record-launch"}).status,
              0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "new");
}

// The add-in empties its list when it cannot write, and reports that.
TEST(HostGuard, TickThatCannotSaveLosesNoTaskAndNoLaunch) {
    TRows rows = cThree;
    rows.push_back({"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0});
    rows[0].parameters = std::string(10'000, 'p');
    WriteTable(rows);
    CHost host;
    // No file of the host may grow beyond a few blocks, as on a full disk.
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = RLIM_INFINITY};
    rlimit before{};
    ASSERT_EQ(prlimit(host.Id(), RLIMIT_FSIZE, &limit, &before), 0);
    rows[3].next = std::time(nullptr);
    SaveTable(rows);
    WakeChanged();
    EXPECT_TRUE(host.WaitForOutput("the add-in reports TasksDeleted = 1")) << host.Output();
    ASSERT_EQ(prlimit(host.Id(), RLIMIT_FSIZE, &before, nullptr), 0);
    WaitUntil([] {
        try {
            return vxsched::ReadTable(".", 10s).Find("due")->last != vxsched::TTime();
        } catch (const vxsched::CError&) {
            return false;  // the guard has to overwrite the table once more
        }
    });
    const TRows after = ReadTable();
    ASSERT_EQ(after.size(), 4U);
    EXPECT_EQ(after[3].next, rows[3].next + 24 * 3600);
    EXPECT_EQ(after[0], rows[0]);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("log") && !ReadFile("log").empty(); });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n") << "it was launched once";
}

// The table is larger than what a pipe holds: a save into it would never end.
TEST(HostGuard, TickDoesNotSaveIntoAPipe) {
    TRows rows = {{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}, Row("large")};
    rows[1].parameters = std::string(200'000, 'p');
    WriteTable(rows);
    CHost host(HostThatPauses());
    const TRows due = StartTheOnlyTask();
    fs::create_hard_link(cTable, "former");
    ASSERT_EQ(mkfifo("pipe", 0644), 0);
    fs::rename("pipe", cTable);
    EXPECT_TRUE(
        host.WaitForOutput("cannot check the table: cannot read ./files/scheduler.dat: it "
                           "is not a regular file"))
        << host.Output();
    WaitUntil(WorkerIsIdle);
    EXPECT_TRUE(fs::is_fifo(cTable));
    fs::rename("former", cTable);
    WaitUntil([&] { return vxsched::ReadTable(".", 10s).Find("due")->last != vxsched::TTime(); });
    const TRows after = ReadTable();
    EXPECT_EQ(after.at(0).next, due.at(0).next + 24 * 3600);
    EXPECT_EQ(after.at(1), rows[1]);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n") << "it was launched once";
}

TEST(HostGuard, WithoutInotifyTheTableIsPolled) {
    WriteTable(cThree);
    for (const auto& [name, value] : WithInterposedSystem())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("NO_INOTIFY", "1", 1);
    CHost host;
    EXPECT_EQ(host.CountInOutput("cannot watch the directory \"files\": Too many open files"), 1U)
        << host.Output();
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(RunTool({"remove", "first"}).status, 0);
    WaitUntil([] { return HasSnapshot(BytesOf({Row("second"), Row("third")})); });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, DirectoryThatIsRemovedAndCreatedAgainIsWatched) {
    WriteTable(cThree);
    CHost host;
    fs::rename("files", "gone");
    WriteTable(cThree);
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, DirectoryThatIsRemovedIsReportedAndFilledWhenItIsCreatedAgain) {
    WriteTable(cThree);
    CHost host;
    // Removed in place, the host would put the table back before the directory is empty.
    fs::rename("files", "gone");
    fs::remove_all("gone");
    EXPECT_TRUE(host.WaitForOutput("the directory \"files\" is gone")) << host.Output();
    fs::create_directory("files");
    WaitUntil([] { return fs::exists(cTable); });
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("the table is restored, with 3 task(s)")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("is gone"), 1U) << host.Output();
}

TEST(HostGuard, DirectoryThatIsRemovedDoesNotKeepAHostFromStopping) {
    WriteTable(cThree);
    CHost host;
    fs::rename("files", "gone");
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

TEST(HostGuard, DirectoryOfLaunchRecordsIsCreatedAgainForALaunch) {
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host(HostThatPauses());
    fs::remove_all("files/started");
    StartTheOnlyTask();
    EXPECT_EQ(CountIn("files/started", "due@"), 1U) << host.Output();
    WaitUntil([] { return CountIn("files/started", "due@") == 0; });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, TableWhoseDiskIsGoneForAWhileIsLeftAlone) {
    fs::create_directory("disk");
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    fs::rename(cTable, "disk/table");
    fs::create_symlink("../disk/table", cTable);
    CHost host;
    TRows rows = ReadTable();
    rows[0].next = std::time(nullptr);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile(cTable, BytesOf(rows));
        fs::rename("disk", "elsewhere");
        fs::create_directory("disk");
    }
    EXPECT_TRUE(host.WaitForOutput("scheduler.dat is unavailable")) << host.Output();
    WakeChanged();
    WaitUntil(WorkerIsIdle);
    EXPECT_TRUE(fs::is_symlink(cTable));
    EXPECT_TRUE(fs::is_empty("disk")) << "no new table replaces it";
    fs::remove("disk");
    fs::rename("elsewhere", "disk");
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    // A table that is a link is rewritten in place.
    WaitUntil([&] {
        const vxsched::CStoreMutexLock lock(10s);
        return ReadTable()[0].next > rows[0].next;
    });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n");
}

TEST(HostGuard, TargetOfALinkIsChecked) {
    fs::create_directory("real");
    WriteTable(cThree);
    fs::rename(cTable, "real/table");
    fs::create_symlink("../real/table", cTable);
    CHost host;
    WriteFile("real/table", BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    EXPECT_TRUE(fs::is_symlink(cTable));
    EXPECT_EQ(host.CountInOutput("cannot watch"), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, FailedLaunchIsNoReasonToRestoreATable) {
    WriteTable({{"due", cFar, 0, 24, "/no/such/program", "log", 0}});
    CHost host;
    TRows rows = ReadTable();
    rows[0].next = std::time(nullptr);
    SaveTable(rows);
    WakeChanged();
    EXPECT_TRUE(host.WaitForOutput("cannot start")) << host.Output();
    EXPECT_EQ(CountIn("files/started", "due@"), 0U);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

// The next tick would read the whole table before it launches.
TEST(HostGuard, SaveOfTheWorkerIsNotAnnounced) {
    WriteTable({{"job", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CEvent taskChanged(vxsched::cTaskChangedEventName, true);
    CHost host;
    const TRows before = StartTheOnlyTask();
    WaitUntil([&] {
        return ReadTable()[0].next != before[0].next && CountIn("files/started", "@") == 0;
    });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(taskChanged.Wait(0), 0);
}

// As a direct client leaves it that is killed between its save and the announcement.
TEST(HostGuard, ChangeThatNobodyHasAnnouncedReachesTheWorker) {
    WriteTable({});
    CHost host;
    SaveTable({{"late", std::time(nullptr) + 1, 0, 0, PROGRAMS "/append-text", "log", 0}});
    WaitUntil([] { return fs::exists("log"); });
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}
