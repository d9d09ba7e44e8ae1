// The client library's changes: each through the add-in in a process of its own, what is refused,
// what is kept when something goes wrong, and that nobody else is harmed.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Store.h>
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/ProgramLinks.h"
#include "store/TableFile.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "AddinLibrary.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

static const std::string cRecorder = PROGRAMS "/record-start";

// The line about the parameter, once the program has written that far.
static std::string RecordedArgument(const std::string& path) {
    WaitUntil([&] { return Lines(path).size() > 2; });
    return Lines(path)[2];
}

// What any other client does: its load sets the mutex free.
static void AddinLoad() {
    CForkedChild child([] {
        const CAddinLibrary library;
        _exit(0);
        return 0;
    });
    child.Wait();
}

class ClientStore : public testing::Test {
protected:
    ClientStore() { fs::create_directory("files"); }

    static TTime In(std::chrono::seconds time) { return Now() + time; }
    static std::int64_t Seconds(TTime time) { return time.time_since_epoch().count(); }

    static TNewTask Task(const std::string& name, TTime start = In(1h), std::uint32_t period = 24) {
        return {name, start, period, cRecorder, "a parameter"};
    }

    // The error's text, which must be of that kind.
    template <typename Call>
    static std::string ErrorOf(EError kind, const Call& call) {
        try {
            call();
        } catch (const CError& error) {
            EXPECT_EQ(static_cast<int>(error.Code()), static_cast<int>(kind)) << error.what();
            return error.what();
        }
        ADD_FAILURE() << "nothing was thrown";
        return {};
    }

    // A table that must be left as it is, byte for byte.
    static void ExpectKept(const std::function<void()>& change) {
        const std::string before = ReadFile(cTable);
        change();
        EXPECT_EQ(ReadFile(cTable), before);
    }

    const CStore store{{.lockTimeout = 60s}};
};

// ---- Each change ------------------------------------------------------------------------------

TEST_F(ClientStore, CreateAddsATaskAsItWasGiven) {
    const TTime start = In(1h);
    const TTaskEntry made = store.Create(Task("backup", start, 24), false);
    EXPECT_EQ(made.name, "backup");
    EXPECT_EQ(::ReadTable(),
              (TRows{{"backup", Seconds(start), 0, 24, cRecorder, "a parameter", 0}}));
}

TEST_F(ClientStore, CreateOfANameThatIsThereIsRefused) {
    store.Create(Task("backup"), false);
    ExpectKept([&] {
        const std::string text =
            ErrorOf(EError::cRefused, [&] { store.Create(Task("backup", In(2h)), false); });
        EXPECT_NE(text.find("already"), std::string::npos);
    });
}

TEST_F(ClientStore, ReplaceKeepsTheLastStartAndThePlace) {
    const std::int64_t later = Seconds(In(2h));
    WriteTable({{"a", later, 77, 1, cRecorder, "", 1}, {"b", later, 0, 1, cRecorder, "", 0}});
    store.Create(Task("a", In(3h), 6), true);
    const TRows rows = ::ReadTable();
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].name, "a");
    EXPECT_EQ(rows[0].last, 77);
    EXPECT_EQ(rows[0].paused, 0U);
    EXPECT_EQ(rows[0].period, 6U);
}

// The function's rule would take a start that is not in the future for a missed one.
TEST_F(ClientStore, ReplaceByOneThatIsDueNowDoesNotRemoveIt) {
    store.Create(Task("a"), false);
    store.Create(Task("a", Now(), 0), true);
    ASSERT_EQ(::ReadTable().size(), 1U);
    EXPECT_EQ(::ReadTable()[0].period, 0U);
}

TEST_F(ClientStore, RepeatingTaskThatIsDueNowStaysDueNow) {
    const TTime now = Now();
    store.Create(Task("a", now, 24), false);
    EXPECT_EQ(::ReadTable()[0].next, Seconds(now));
}

TEST_F(ClientStore, RepeatingTaskWithAPastStartGoesToItsGrid) {
    const TTime start = In(-90min);
    store.Create(Task("a", start, 1), false);
    EXPECT_EQ(::ReadTable()[0].next, Seconds(start + 2h));
}

TEST_F(ClientStore, RemoveTakesAllOrNothing) {
    for (const char* const name : {"a", "b", "c"})
        store.Create(Task(name), false);
    ExpectKept([&] { ErrorOf(EError::cNotFound, [&] { store.Remove({"a", "unknown", "c"}); }); });
    store.Remove({"a", "c"});
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(ClientStore, PauseAndResumeSwitchTheFlag) {
    store.Create(Task("a"), false);
    store.Pause({"a"});
    EXPECT_EQ(::ReadTable()[0].paused, 1U);
    store.Resume({"a"});
    EXPECT_EQ(::ReadTable()[0].paused, 0U);
    ExpectKept([&] {
        ErrorOf(EError::cNotFound, [&] { store.Pause({"unknown"}); });
        ErrorOf(EError::cNotFound, [&] { store.Resume({"unknown"}); });
    });
}

TEST_F(ClientStore, ResumeDoesNotRemoveATaskWhoseTimePassedUnlessForced) {
    WriteTable({{"once", Seconds(In(-1h)), 0, 0, cRecorder, "", 1}});
    ExpectKept([&] {
        const std::string text = ErrorOf(EError::cRefused, [&] { store.Resume({"once"}); });
        EXPECT_NE(text.find("new start"), std::string::npos) << text;
    });
    store.Resume({"once"}, {"past-start"});
    EXPECT_EQ(::ReadTable(), TRows());
}

TEST_F(ClientStore, SetPeriodCountsOnFromTheGrid) {
    const TTime next = In(1h);
    store.Create(Task("a", next, 24), false);
    const TTaskEntry made = store.SetPeriod("a", 6);
    EXPECT_EQ(made.period, 6U);
    EXPECT_EQ(made.next, next) << "18 hours before now, and then every 6";
    EXPECT_EQ(::ReadTable()[0].period, 6U);
    ErrorOf(EError::cNotFound, [&] { store.SetPeriod("unknown", 6); });
}

TEST_F(ClientStore, SetPeriodOfOnceKeepsTheTask) {
    const TTime next = In(1h);
    store.Create(Task("a", next, 24), false);
    store.SetPeriod("a", 0);
    EXPECT_EQ(::ReadTable(), (TRows{{"a", Seconds(next), 0, 0, cRecorder, "a parameter", 0}}));
}

TEST_F(ClientStore, EditChangesOnlyWhatIsNamed) {
    const std::int64_t next = Seconds(In(1h));
    const TRow row{"a", next, 77, 24, cRecorder, "a parameter", 1};
    WriteTable({row});
    const auto expect = [&](TRow wanted, const TEdit& edit) {
        WriteTable({row});
        store.Edit("a", edit);
        EXPECT_EQ(::ReadTable(), (TRows{wanted}));
    };
    TRow wanted = row;
    wanted.parameters = "another";
    expect(wanted, {.parameter = "another"});
    wanted = row;
    wanted.period = 6;
    expect(wanted, {.period = 6});
    wanted = row;
    wanted.next = Seconds(In(5h));
    expect(wanted, {.start = TTime(std::chrono::seconds(wanted.next))});
    wanted = row;
    wanted.program = PROGRAMS "/end-with";
    expect(wanted, {.program = PROGRAMS "/end-with"});
}

TEST_F(ClientStore, EditOfAPausedTaskWhoseTimePassedLeavesItPausedOnItsGrid) {
    const std::int64_t next = Seconds(In(-90min));
    WriteTable({{"a", next, 0, 1, cRecorder, "", 1}, {"once", next, 0, 0, cRecorder, "", 1}});
    store.Edit("a", {.parameter = "new"});
    EXPECT_EQ(::ReadTable()[0], (TRow{"a", next + 2 * 3600, 0, 1, cRecorder, "new", 1}));
    ExpectKept(
        [&] { ErrorOf(EError::cRefused, [&] { store.Edit("once", {.parameter = "new"}); }); });
    store.Edit("once", {.start = In(1h), .parameter = "new"});
    EXPECT_EQ(::ReadTable()[1].parameters, "new");
    EXPECT_EQ(::ReadTable()[1].paused, 1U);
}

TEST_F(ClientStore, RunStartsTheProgramOutsideTheSchedule) {
    const TTime next = In(1h);
    store.Create(Task("a", next), false);
    store.Pause({"a"});
    pid_t told = 0;
    const TRun run = store.Run("a", false, true, [&](pid_t process) { told = process; });
    EXPECT_GT(run.process, 0);
    EXPECT_EQ(told, run.process);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(RecordedArgument("a parameter"), "argument a parameter");
    const TRow row = ::ReadTable().at(0);
    EXPECT_EQ(row.next, Seconds(next));
    EXPECT_GE(row.last, Seconds(In(-10s)));
    EXPECT_EQ(row.paused, 1U);
}

TEST_F(ClientStore, RunReportsTheEnd) {
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "status 3"}, false);
    EXPECT_EQ(WEXITSTATUS(store.Run("a", false, true).status.value()), 3);
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "signal 9"}, true);
    EXPECT_EQ(WTERMSIG(store.Run("a", false, true).status.value()), SIGKILL);
}

TEST_F(ClientStore, RunOfWhatRunsAlreadyIsRefusedUnlessForced) {
    store.Create({"a", In(1h), 24, PROGRAMS "/wait-for-it", "end it"}, false);
    const TRun first = store.Run("a", false, false);
    const std::string text = ErrorOf(EError::cRefused, [&] { store.Run("a", false, false); });
    EXPECT_NE(text.find(std::to_string(first.process)), std::string::npos) << text;
    const TRun second = store.Run("a", true, false);
    EXPECT_NE(first.process, second.process);
    WriteFile("end it", "");
    WaitUntil([&] { return kill(first.process, 0) != 0 && kill(second.process, 0) != 0; });
}

TEST_F(ClientStore, RunOfAMissingProgramSaysSo) {
    WriteTable({{"a", Seconds(In(1h)), 0, 24, "/no/such/program", "", 0}});
    ExpectKept([&] {
        const std::string text = ErrorOf(EError::cRefused, [&] { store.Run("a", true, false); });
        EXPECT_NE(text.find("/no/such/program"), std::string::npos) << text;
        ErrorOf(EError::cNotFound, [&] { store.Run("b", true, false); });
    });
}

TEST_F(ClientStore, LongTextsGoThrough) {
    TNewTask task = Task("a");
    task.name = std::string(100'000, 'n');
    task.parameter = std::string(1'000'000, 'p');
    store.Create(task, false);
    EXPECT_EQ(::ReadTable()[0].parameters, task.parameter);
    store.Remove({task.name});
    EXPECT_EQ(::ReadTable(), TRows());
}

// ---- Validation -------------------------------------------------------------------------------

TEST_F(ClientStore, WhatSpeaksAgainstATaskIsRefusedAndNamed) {
    ErrorOf(EError::cRefused, [&] { store.Create(Task(""), false); });
    ErrorOf(EError::cRefused, [&] { store.Create(Task("a", In(-1s), 0), false); });
    ErrorOf(EError::cRefused, [&] { store.Create(Task("a", In(1h), 268435456), false); });
    TNewTask missing = Task("a");
    missing.program = "/no/such/program";
    const std::string text = ErrorOf(EError::cRefused, [&] { store.Create(missing, false); });
    EXPECT_NE(text.find("force \"missing-program\""), std::string::npos) << text;
    EXPECT_FALSE(fs::exists(cTable));
    store.Create(missing, false, {"missing-program"});
    EXPECT_EQ(NamesInTable(), "a");
}

TEST_F(ClientStore, ProgramThatAStartWouldAlterGetsALinkWhileItsTaskLives) {
    WriteFile("backup.sh", "#!/bin/sh\nexit 7\n");
    chmod("backup.sh", 0755);
    TNewTask task = Task("a");
    task.program = (fs::current_path() / "backup.sh").string();
    const TTaskEntry made = store.Create(task, false);
    EXPECT_NE(made.program, task.program);
    EXPECT_EQ(RealProgram(".", made.program), task.program);
    EXPECT_EQ(WEXITSTATUS(store.Run("a", false, true).status.value()), 7);
    EXPECT_TRUE(fs::is_symlink(made.program));
    store.Edit("a", {.program = cRecorder});
    EXPECT_FALSE(fs::is_symlink(made.program));
    store.Edit("a", {.program = task.program});
    store.Remove({"a"});
    EXPECT_TRUE(fs::is_empty("files/programs"));
}

// ---- What a load would harm -------------------------------------------------------------------

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
    EXPECT_FALSE(StoreSemaphoreExists()) << "nothing was loaded";
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

TEST_F(ClientStore, DueTasksWithoutASchedulingProcessNeedAWish) {
    const std::int64_t past = Seconds(In(-10h));
    const TRows rows = {{"once", past, 0, 0, cRecorder, "", 0},
                        {"often", past, 5, 3, cRecorder, "", 0}};
    WriteTable(rows);
    ExpectKept([&] {
        const std::string text =
            ErrorOf(EError::cNoScheduler, [&] { store.Create(Task("new"), false); });
        EXPECT_NE(text.find("\"once\""), std::string::npos) << text;
    });
    CStore({.evenIfDue = true}).Create(Task("new"), false);
    TRows after = ::ReadTable();
    ASSERT_EQ(after.size(), 3U);
    after.pop_back();
    EXPECT_EQ(after, rows) << "they stay due";
}

TEST_F(ClientStore, NoFolderAndNoDirectoryAreSaid) {
    fs::remove("files");
    EXPECT_NE(ErrorOf(EError::cFailed, [&] { store.Create(Task("a"), false); }).find("files"),
              std::string::npos);
    EXPECT_FALSE(fs::exists("files"));
    const CStore nowhere({.directory = "no such directory"});
    ErrorOf(EError::cFailed, [&] { nowhere.Create(Task("a"), false); });
    ErrorOf(EError::cFailed, [&] { nowhere.Read(); });
}

TEST_F(ClientStore, NoAddInIsSaidAndGivesTheMutexBack) {
    store.Create(Task("a"), false);
    const CStore without({.addIn = "./no-add-in.so"});
    ExpectKept([&] {
        const std::string text =
            ErrorOf(EError::cFailed, [&] { without.Create(Task("b"), false); });
        EXPECT_NE(text.find("no-add-in.so"), std::string::npos) << text;
    });
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// The directory may be named in several ways.
TEST_F(ClientStore, LinksAreKeptWhateverTheDirectoryIsCalled) {
    fs::create_directory_symlink(fs::current_path(), "another-name");
    const CStore other({.directory = "another-name"});
    TNewTask task = Task("a");
    task.program = "/usr/bin/free";
    const TTaskEntry made = other.Create(task, false);
    store.Create(Task("b"), false);
    EXPECT_TRUE(fs::is_symlink(made.program));
    EXPECT_EQ(RealProgram(".", made.program), "/usr/bin/free");
    other.Remove({"a"});
    EXPECT_FALSE(fs::is_symlink(made.program));
}

TEST_F(ClientStore, StartTooFarBackIsRefused) {
    const TNewTask task = Task("a", TTime(-9'000'000'000'000s), 1);
    ErrorOf(EError::cRefused, [&] { store.Create(task, false); });
    store.Create(Task("a"), false);
    ExpectKept([&] { ErrorOf(EError::cRefused, [&] { store.Edit("a", {.start = task.start}); }); });
}

TEST_F(ClientStore, PeriodOfATaskThatIsDueItselfIsNotChangedUnderIt) {
    WriteTable({{"due", Seconds(In(-1h)), 0, 24, cRecorder, "", 0}});
    const CStore wilful({.evenIfDue = true});
    ExpectKept([&] { ErrorOf(EError::cRefused, [&] { wilful.SetPeriod("due", 6); }); });
    wilful.Edit("due", {.period = 6});
    EXPECT_EQ(::ReadTable()[0].next, Seconds(In(-1h)));
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

// Only the superuser can make things for others; of anybody else the folder is his own, and so is what
// he makes.
TEST_F(ClientStore, NobodyMakesWhatTheOwnerOfTheFolderCouldNotUse) {
    const uid_t user = geteuid() == 0 ? 65534 : geteuid();
    const gid_t group = geteuid() == 0 ? 65534 : getegid();
    ASSERT_EQ(chown("files", user, group), 0);
    chmod(".", 0755);
    store.Create(Task("a"), false);
    struct stat status {};
    ASSERT_EQ(stat(cTable, &status), 0);
    EXPECT_EQ(status.st_uid, user);
    CForkedChild owner([&] {
        if (setgid(group) != 0 || setuid(user) != 0)
            return 1;
        store.Pause({"a"});
        return 42;
    });
    EXPECT_EQ(owner.Wait(), 42);
    EXPECT_EQ(::ReadTable()[0].paused, 1U);
}

TEST_F(ClientStore, EndOfARunIsKnownAlsoToWhoIgnoresChildren) {
    store.Create({"a", In(1h), 24, PROGRAMS "/end-with", "status 3"}, false);
    CForkedChild child([&] {
        std::signal(SIGCHLD, SIG_IGN);
        return WEXITSTATUS(store.Run("a", false, true).status.value());
    });
    EXPECT_EQ(child.Wait(), 3);
}

// ---- Beside others ----------------------------------------------------------------------------

TEST_F(ClientStore, ChangeLeavesTheMutexFreeAndTheSetThere) {
    store.Create(Task("a"), false);
    EXPECT_TRUE(StoreSemaphoreExists());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    store.Pause({"a"});
    store.Run("a", true, false);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(CountSemaphoreSets(), 3) << "the mutex and the two events that the next one opens";
}

TEST_F(ClientStore, HolderIsWaitedForAndNamedWhenItTakesTooLong) {
    store.Create(Task("a"), false);
    CForkedChild holder([] {
        const CStoreMutexLock lock(1s);
        WriteFile("held", "");
        pause();
        return 0;
    });
    WaitUntil([] { return fs::exists("held"); });
    const CStore hasty({.lockTimeout = 50ms});
    ExpectKept([&] {
        const std::string text = ErrorOf(EError::cBusy, [&] { hasty.Pause({"a"}); });
        EXPECT_NE(text.find(std::to_string(holder.Id())), std::string::npos) << text;
    });
    EXPECT_EQ(StoreSemaphoreValue(), 0) << "it was not cut off";
    holder.Kill(SIGKILL);
    holder.Wait();
    store.Pause({"a"});
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(ClientStore, OtherClientsAreWaitedFor) {
    store.Create(Task("a"), false);
    const CStore hasty({.lockTimeout = 50ms});
    const CWriterLock turn(".", 0ms);
    ErrorOf(EError::cBusy, [&] { hasty.Pause({"a"}); });
    EXPECT_EQ(::ReadTable()[0].paused, 0U);
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

TEST_F(ClientStore, ParallelTasksOfProgramsWithOneNameKeepTheirOwn) {
    for (int number = 0; number < 8; ++number) {
        fs::create_directory("d" + std::to_string(number));
        fs::create_symlink("/bin/ls", "d" + std::to_string(number) + "/p.sh");
    }
    std::vector<std::thread> clients;
    for (int number = 0; number < 8; ++number) {
        clients.emplace_back([number] {
            const CStore own({});
            TNewTask task = Task("t" + std::to_string(number));
            task.program = fs::absolute("d" + std::to_string(number) + "/p.sh").string();
            for (int round = 0; round < 4; ++round) {
                own.Create(task, true);
                if (round < 3)
                    own.Remove({task.name});
            }
        });
    }
    for (std::thread& client : clients)
        client.join();
    for (int number = 0; number < 8; ++number) {
        const TTable table = store.Read();
        const TTaskEntry* const task = table.Find("t" + std::to_string(number));
        ASSERT_NE(task, nullptr);
        EXPECT_EQ(RealProgram(".", task->program),
                  fs::absolute("d" + std::to_string(number) + "/p.sh"));
    }
}

TEST_F(ClientStore, TwoRunsAtOnceAreOne) {
    store.Create({"a", In(1h), 24, PROGRAMS "/wait-for-it", fs::absolute("end it")}, false);
    std::atomic<int> started{0};
    std::vector<std::thread> clients;
    for (int client = 0; client < 4; ++client) {
        clients.emplace_back([&] {
            try {
                CStore({}).Run("a", false, false);
                ++started;
            } catch (const CError& error) {
                EXPECT_EQ(error.Code(), EError::cRefused) << error.what();
            }
        });
    }
    for (std::thread& client : clients)
        client.join();
    EXPECT_EQ(started, 1);
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
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
    CHost host;
    store.Create({"slow", Now(), 24, PROGRAMS "/wait-for-it", "end it"}, false);
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    store.Create(Task("other"), false);  // while the tick holds the mutex for two seconds
    EXPECT_EQ(NamesInTable(), "slow other");
    EXPECT_NE(::ReadTable()[0].last, 0) << "what the tick has written is kept";
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "slow other");
    WriteFile("end it", "");
    WaitUntil([] { return fs::exists("end it.seen"); });
}

// The add-in does not announce a start outside the schedule.
TEST_F(ClientStore, LastStartOfARunOutlivesWhatTheSchedulerWrites) {
    CHost host;
    store.Create(Task("a"), false);
    store.Run("a", false, false);
    store.Create({"due", Now(), 24, cRecorder, "scheduled"}, false);
    EXPECT_EQ(RecordedArgument("scheduled"), "argument scheduled");
    WaitUntil([&] { return store.Read().Find("due")->last != TTime(); });
    EXPECT_NE(store.Read().Find("a")->last, TTime());
    EXPECT_EQ(host.Stop(), 0);
}

// ---- When something goes wrong ----------------------------------------------------------------

// A client whose files may not grow as far as the save needs. What it says goes to the file "error".
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
    EXPECT_NE(ReadFile("error").find("as it was before"), std::string::npos) << ReadFile("error");
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(std::distance(fs::directory_iterator("files"), fs::directory_iterator()), 2)
        << "the table and the copy from before";
}

TEST_F(ClientStore, WhatAKilledProcessLeftUnfinishedIsRemoved) {
    for (const char* const name : {".save-1", ".new-2", ".before.new-3"})
        WriteFile(std::string(cTable) + name, "half");
    WriteFile(std::string(cTable) + ".damaged-4", "kept");
    store.Create(Task("a"), false);
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".save-1"));
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".new-2"));
    EXPECT_FALSE(fs::exists(std::string(cTable) + ".before.new-3"));
    EXPECT_EQ(ReadFile(std::string(cTable) + ".damaged-4"), "kept");
}

// A table of two names cannot be replaced without taking them apart: it is rewritten in place.
TEST_F(ClientStore, TableFromBeforeIsPutBackWhenASaveInPlaceFails) {
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

TEST_F(ClientStore, ReplaceAllWritesTheTableAndKeepsTheOneFromBefore) {
    store.Create(Task("a"), false);
    const std::string before = ReadFile(cTable);
    chmod(cTable, 0640);
    const std::vector<TTaskEntry> tasks = {{"b", In(1h), In(-1h), 24, cRecorder, "p", true}};
    store.ReplaceAll(tasks);
    EXPECT_EQ(store.Read().tasks, tasks);
    EXPECT_EQ(ReadFile("files/scheduler.dat.before"), before);
    struct stat status {};
    ASSERT_EQ(stat(cTable, &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640U);
    EXPECT_THROW(store.ReplaceAll({}, [](const std::string&) { throw std::runtime_error("no"); }),
                 std::runtime_error);
    EXPECT_EQ(store.Read().tasks, tasks);
}

TEST_F(ClientStore, HostOfAnotherNamespaceIsNotWrittenOver) {
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

TEST_F(ClientStore, ReplacedTableIsTakenUpByTheSchedulingProcess) {
    CHost host;
    store.ReplaceAll({{"b", Now(), TTime(), 24, cRecorder, "replaced", false}});
    EXPECT_EQ(RecordedArgument("replaced"), "argument replaced");
    WaitUntil([&] { return store.Read().tasks.at(0).last != TTime(); });
    EXPECT_EQ(host.Stop(), 0);
}
