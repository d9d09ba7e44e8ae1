// A host that loses nothing: damaged and emptied tables are restored while it runs, and what a killed
// one had in its hands is made up for.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Table.h>
#include "store/CStoreMutexLock.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <thread>

#include "AddinLibrary.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

static constexpr std::int64_t cFar = 4'000'000'000;

static TRow Row(const std::string& name) {
    return {name, cFar, 0, 24, "/bin/program", "a parameter", 0};
}

static const TRows cThree = {Row("first"), Row("second"), Row("third")};

static std::size_t CountIn(const std::string& directory, const std::string& text = "") {
    std::size_t count = 0;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored))
        count += entry.path().filename().string().find(text) != std::string::npos ? 1 : 0;
    return count;
}

static bool HasSnapshot(const std::string& bytes) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("files/snapshots", ignored)) {
        if (fs::exists(entry.path(), ignored) && ReadFile(entry.path()) == bytes)
            return true;
    }
    return false;
}

static void WaitForTable(const TRows& rows) {
    WaitUntil([&] { return ReadFile(cTable) == BytesOf(rows); });
}

// Tells the worker that the table was changed, and has it tick.
static void WakeChanged() {
    vxsched::AnnounceChange();
    vxsched::WakeSchedulingProcess();
}

// Makes the only task due under a running host, and waits for its start; the tick then pauses for two
// seconds. The table as it was made.
static TRows StartTheOnlyTask() {
    TRows rows = ReadTable();
    rows.at(0).next = std::time(nullptr);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteTable(rows);
    }
    WakeChanged();
    WaitUntil([] { return fs::exists("log"); });
    return rows;
}

// ---- While it runs ----------------------------------------------------------------------------

TEST(HostGuard, EveryGoodTableIsKept) {
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

TEST(HostGuard, DamagedTableIsReplacedByTheLastGoodOne) {
    WriteTable(cThree);
    CHost host;
    const std::string damaged = BytesOf(cThree).substr(0, 60);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteFile(cTable, damaged);
    }
    WaitForTable(cThree);
    EXPECT_TRUE(host.WaitForOutput("the table is restored, with 3 task(s)")) << host.Output();
    EXPECT_EQ(host.CountInOutput("kept \"third\" from the last good table"), 1U) << host.Output();
    EXPECT_EQ(CountIn("files", ".damaged-"), 1U);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable(), cThree);
}

TEST(HostGuard, TableThatACarelessClientEmptiesIsRestored) {
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

TEST(HostGuard, RemovalsAndImportsAreNotUndone) {
    WriteTable(cThree);
    CHost host;
    EXPECT_EQ(RunTool({"remove", "first", "third"}).status, 0);
    EXPECT_EQ(NamesInTable(), "second");
    EXPECT_EQ(RunTool({"remove", "second"}).status, 0);
    EXPECT_EQ(RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})").status, 0);
    EXPECT_EQ(RunTool({"create", "new", "--at", "in 1h", "--", PROGRAMS "/record-start"}).status,
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

// By a client of the bare functions, before the host has come to look.
TEST(HostGuard, RemovalsInARowAreNotUndone) {
    TRows rows = cThree;
    rows.push_back(Row("fourth"));
    rows.push_back(Row("fifth"));
    WriteTable(rows);
    CHost host;
    host.Kill(SIGSTOP);
    WaitUntil([] { return !WorkerIsIdle(); });
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

TEST(HostGuard, SignOfLifeThatIsCutShortIsWrittenAnew) {
    CHost host;
    WriteFile("files/started/alive", "");
    WaitUntil([&] {
        host.Kill(SIGUSR1);
        return fs::file_size("files/started/alive") == 2 * sizeof(std::int64_t);
    });
    EXPECT_EQ(host.Stop(), 0);
}

// As after a loss of power.
TEST(HostGuard, TableOfZerosIsRestoredAndMended) {
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
    EXPECT_EQ(host.CountInOutput("the table is mended, with 3 task(s)"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, ReplacedTableIsTakenForWhatItIs) {
    WriteTable(cThree);
    CHost host;
    EXPECT_EQ(RunTool({"import", "--replace"}, {}, R"({"version": 1, "tasks": []})").status, 0);
    EXPECT_EQ(RunTool({"create", "new", "--at", "in 1h", "--", PROGRAMS "/record-start"}).status,
              0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "new");
}

// The add-in empties its list when it cannot write, and says so.
TEST(HostGuard, TickThatCannotSaveLosesNoTaskAndNoStart) {
    TRows rows = cThree;
    rows.push_back({"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0});
    rows[0].parameters = std::string(10'000, 'p');
    WriteTable(rows);
    for (const auto& [name, value] : WithoutPauses())
        setenv(name.c_str(), value.c_str(), 1);
    CHost host;
    // No file of the host's may grow beyond a few blocks, as on a disk that is full.
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = RLIM_INFINITY};
    rlimit before{};
    ASSERT_EQ(prlimit(host.Id(), RLIMIT_FSIZE, &limit, &before), 0);
    rows[3].next = std::time(nullptr);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteTable(rows);
    }
    WakeChanged();
    EXPECT_TRUE(host.WaitForOutput("the add-in reports TasksDeleted = 1")) << host.Output();
    ASSERT_EQ(prlimit(host.Id(), RLIMIT_FSIZE, &before, nullptr), 0);
    WaitUntil([&] { return vxsched::ReadTable(".", 10s).Find("due")->last != vxsched::TTime(); });
    const TRows after = ReadTable();
    ASSERT_EQ(after.size(), 4U);
    EXPECT_EQ(after[3].next, rows[3].next + 24 * 3600);
    EXPECT_EQ(after[0], rows[0]);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("log") && !ReadFile("log").empty(); });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n") << "it was started once";
}

// ---- On a full disk ---------------------------------------------------------------------------

// Has `body` run in a process of its own, whose folder "files" is a file system of a few pages.
static void OnASmallDisk(const std::function<void()>& body) {
    CForkedChild child([&] {
        fs::create_directory("files");
        if (unshare(CLONE_NEWNS) != 0)
            return 2;
        mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
        if (mount("none", "files", "tmpfs", 0, "size=64k") != 0)
            return 3;
        body();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}

static void FillDisk() {
    const int file = open("files/filling", O_WRONLY | O_CREAT | O_APPEND, 0644);
    const std::string block(4096, 'f');
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
}

TEST(HostOnAFullDisk, StartsAndMovesMissedTasksOn) {
    OnASmallDisk([] {
        TRows rows = cThree;
        rows[1].next = 1000;
        WriteTable(rows);
        FillDisk();
        CHost host;
        EXPECT_EQ(host.CountInOutput("missed while no host ran: task \"second\""), 1U)
            << host.Output();
        EXPECT_EQ(NamesInTable(), "first second third");
        EXPECT_GT(ReadTable().at(1).next, std::time(nullptr));
        EXPECT_EQ(host.Stop(), 0);
    });
}

// Leaves room for that many pages.
static void FillDiskBut(std::size_t pages) {
    FillDisk();
    fs::resize_file("files/filling", fs::file_size("files/filling") - pages * 4096);
}

static TRows ManyPages() {
    TRows rows = cThree;
    rows[2].parameters = std::string(20'000, 'p');
    return rows;
}

// Two of the pages are for the lock and the sign of life.
TEST(HostOnAFullDisk, DamagedTableIsMendedWithoutRoomForACopy) {
    OnASmallDisk([] {
        const std::string damaged = BytesOf(ManyPages()).substr(0, 20'000);
        WriteTable({});
        WriteFile(cTable, damaged);
        FillDiskBut(3);
        CHost host;
        EXPECT_EQ(NamesInTable(), "first second");
        ASSERT_EQ(CountIn("files", ".damaged-"), 1U);
        for (const auto& entry : fs::directory_iterator("files")) {
            if (entry.path().string().find(".damaged-") != std::string::npos) {
                EXPECT_EQ(ReadFile(entry.path()), damaged);
            }
        }
        EXPECT_EQ(fs::hard_link_count(cTable), 1U);
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(HostOnAFullDisk, DamagedTableIsLeftAsItIsWithoutRoomForAnother) {
    OnASmallDisk([] {
        const std::string damaged = BytesOf(ManyPages()).substr(0, 20'000);
        WriteTable({});
        WriteFile(cTable, damaged);
        FillDisk();
        for (int round = 0; round < 2; ++round) {
            CProgram host(HostWith({}));
            EXPECT_EQ(host.Wait(), 6) << host.Output();
            EXPECT_EQ(ReadFile(cTable), damaged);
            EXPECT_EQ(fs::hard_link_count(cTable), 1U);
            EXPECT_EQ(CountIn("files", ".damaged-"), 0U);
        }
        fs::remove("files/filling");
        CHost host;
        EXPECT_EQ(NamesInTable(), "first second");
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(HostOnAFullDisk, TableThatCannotBeRestoredYetIsToldOfOnce) {
    OnASmallDisk([] {
        WriteTable(cThree);
        CHost host;
        FillDisk();
        host.Kill(SIGSTOP);
        WaitUntil([] { return !WorkerIsIdle(); });
        WriteFile(cTable, "");
        FillDisk();
        host.Kill(SIGCONT);
        EXPECT_TRUE(host.WaitForOutput("trying on")) << host.Output();
        std::this_thread::sleep_for(300ms);  // so that there are more tries
        fs::remove("files/filling");
        WaitForTable(cThree);
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("kept \"first\" from"), 1U) << host.Output();
    });
}

TEST(HostGuard, WithoutInotifyTheTableIsLookedAtAllTheSame) {
    WriteTable(cThree);
    for (const auto& [name, value] : WithoutPauses())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("PLAYED_NO_INOTIFY", "1", 1);
    CHost host;
    EXPECT_EQ(host.CountInOutput("cannot watch the folder \"files\": Too many open files"), 1U)
        << host.Output();
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(RunTool({"remove", "first"}).status, 0);
    WaitUntil([] { return HasSnapshot(BytesOf({Row("second"), Row("third")})); });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, FolderThatIsRemovedAndMadeAgainIsLookedAt) {
    WriteTable(cThree);
    CHost host;
    fs::rename("files", "gone");
    WriteTable(cThree);
    WriteFile(cTable, BytesOf(cThree).substr(0, 60));
    WaitForTable(cThree);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, FolderThatIsRemovedDoesNotKeepAHostFromStopping) {
    WriteTable(cThree);
    CHost host;
    fs::rename("files", "gone");
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

TEST(HostGuard, FolderOfMarksIsMadeAgainForAStart) {
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host;
    fs::remove_all("files/started");
    StartTheOnlyTask();
    EXPECT_EQ(CountIn("files/started", "due@"), 1U) << host.Output();
    WaitUntil([] { return CountIn("files/started", "due@") == 0; });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostGuard, TableBehindALinkIsLookedAt) {
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

TEST(HostGuard, FailedStartIsNoReasonToRestoreATable) {
    WriteTable({{"due", cFar, 0, 24, "/no/such/program", "log", 0}});
    CHost host;
    TRows rows = ReadTable();
    rows[0].next = std::time(nullptr);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteTable(rows);
    }
    WakeChanged();
    EXPECT_TRUE(host.WaitForOutput("cannot start")) << host.Output();
    EXPECT_EQ(CountIn("files/started", "due@"), 0U);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

TEST(HostAfterAKill, TaskThatEndedItInItsStartDoesNotEndTheNext) {
    for (const auto& [name, value] : WithoutPauses())
        setenv(name.c_str(), value.c_str(), 1);
    WriteTable({{"bad", cFar, 0, 24, "/bin/a.sh", "", 0},
                {"good", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host;
    TRows rows = ReadTable();
    rows[0].next = rows[1].next = std::time(nullptr);
    {
        const vxsched::CStoreMutexLock lock(10s);
        WriteTable(rows);
    }
    WakeChanged();
    EXPECT_EQ(host.Wait(), 1000 + SIGABRT);
    WaitUntil([&] { return std::time(nullptr) > rows[0].next; });
    CHost next;
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("log"); });
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(next.Stop(), 0);
}

// ---- After a kill -----------------------------------------------------------------------------

TEST(HostAfterAKill, StartWithoutItsSaveIsNotMadeAgain) {
    // It is killed in the middle of the tick: the start is made, not saved.
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host;
    const TRows rows = StartTheOnlyTask();
    host.Kill(SIGKILL);
    host.Wait();
    EXPECT_EQ(ReadTable(), rows) << "not saved";
    CHost next;
    EXPECT_EQ(ReadTable()[0].next, rows[0].next + 24 * 3600);
    EXPECT_NE(ReadTable()[0].last, 0);
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(ReadFile("log"), "log\n");
}

// Its last breath is not taken for a second host.
TEST(HostAfterAKill, TheNextHostMayBeStartedAtOnce) {
    for (int round = 0; round < 10; ++round) {
        CHost host;
        host.Kill(SIGKILL);
        CHost next;
        EXPECT_EQ(next.Stop(), 0) << next.Output();
    }
}

TEST(HostAfterAKill, WhatWasDueUnderTheFormerHostIsStarted) {
    WriteTable({Row("other")});
    {
        CHost host;
        host.Kill(SIGKILL);
        host.Wait();
    }
    const std::int64_t due = std::time(nullptr);
    WriteTable({{"due", due, 0, 24, PROGRAMS "/append-text", "log", 0},
                {"once", due, 0, 0, PROGRAMS "/append-text", "once", 0},
                {"missed", due - 1'000'000, 0, 24, PROGRAMS "/append-text", "missed", 0}});
    WaitUntil([&] { return std::time(nullptr) > due; });
    for (const auto& [name, value] : WithoutPauses())
        setenv(name.c_str(), value.c_str(), 1);
    CHost host;
    WaitUntil([] { return fs::exists("log"); });
    EXPECT_EQ(RunTool({"wake"}).status, 0);
    WaitUntil([] { return fs::exists("once"); });
    EXPECT_EQ(host.CountInOutput("was due at"), 2U) << host.Output();
    EXPECT_EQ(host.CountInOutput("missed while no host ran: task \"missed\""), 1U);
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(ReadTable().at(0).next, due + 24 * 3600) << "on its grid";
    EXPECT_FALSE(fs::exists("missed")) << "no host had it in its hands";
    EXPECT_EQ(ReadFile("log"), "log\n");
}

// ---- Beside an empty table --------------------------------------------------------------------

static constexpr char cEmptyTable[] = "the table is empty, whereas the last copy of it, ";

// As a library leaves a table that it finds damaged.
TEST(HostBesideAnEmptyTable, TellsTheTasksOfTheLastOneAndWhereTheyAre) {
    WriteTable(cThree);
    {
        CHost host;
        EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
        EXPECT_EQ(host.Stop(), 0);
    }
    WriteFile(cTable, std::string(8, '\0'));
    std::string copy;
    for (const auto& entry : fs::directory_iterator("files/snapshots"))
        copy = entry.path().string();
    const std::string message =
        cEmptyTable + std::string("./") + copy +
        ", has 3 task(s): \"first\", \"second\", \"third\". If they were not";
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    EXPECT_NE(check.Output().find("warning: " + message), std::string::npos) << check.Output();
    {
        CHost host;
        EXPECT_EQ(host.CountInOutput(message), 1U) << host.Output();
        EXPECT_EQ(ReadTable(), TRows()) << "it may be meant";
        EXPECT_EQ(host.Stop(), 0);
    }
    // What it says to do.
    fs::copy_file(copy, cTable, fs::copy_options::overwrite_existing);
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(ReadTable(), cThree);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostBesideAnEmptyTable, TellsItOnce) {
    WriteTable(cThree);
    EXPECT_EQ(CHost().Stop(), 0);
    WriteTable({});
    EXPECT_EQ(CHost().Stop(), 0);
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostBesideAnEmptyTable, MissesNoTaskThatRanAndIsGone) {
    WriteTable({{"once", 1000, 0, 0, "/bin/program", "", 0}});
    fs::create_directories("files/snapshots");
    fs::rename(cTable, "files/snapshots/scheduler.dat.000000000900-000000");
    WriteTable({});
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}
