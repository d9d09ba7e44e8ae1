// The client library's changes: their effect on the table, on program links, and on the owner of
// files.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>
#include "store/CWriterLock.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ClientError.h"
#include "ClientStore.h"
#include "Process.h"
#include "ProgramLink.h"
#include "Recorder.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;
namespace fs = std::filesystem;

TEST_F(ClientStore, CreateAddsATaskAsItWasGiven) {
    const TTime due = In(1h);
    const TTaskEntry made = store.Create(Task("backup", due, 24), false);
    EXPECT_EQ(made.name, "backup");
    EXPECT_EQ(::ReadTable(), (TRows{{"backup", Seconds(due), 0, 24, cRecorder, "a parameter", 0}}));
}

TEST_F(ClientStore, CreateOfANameThatIsThereIsRefused) {
    store.Create(Task("backup"), false);
    ExpectKept([&] {
        const std::string message =
            ErrorOf(EError::cRefused, [&] { store.Create(Task("backup", In(2h)), false); });
        EXPECT_NE(message.find("already"), std::string::npos);
    });
}

TEST_F(ClientStore, ReplaceKeepsTheLastLaunchAndThePlace) {
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

// CreateTask would take a due time that is not in the future for a missed one.
TEST_F(ClientStore, ReplaceByOneThatIsDueNowDoesNotRemoveIt) {
    store.Create(Task("a"), false);
    store.Create(Task("a", Now(), 0), true);
    ASSERT_EQ(::ReadTable().size(), 1U);
    EXPECT_EQ(::ReadTable()[0].period, 0U);
}

// As where a second began after the caller had read the clock.
TEST_F(ClientStore, TaskWhoseDueTimeHasJustPassedIsDueNow) {
    const TTime due = In(-2s);
    for (const std::uint32_t period : {24U, 0U}) {
        store.Create(Task("a", due, period), false);
        EXPECT_EQ(::ReadTable()[0].next, Seconds(due));
        fs::remove(cTable);
    }
}

TEST_F(ClientStore, RepeatingTaskWithAPastDueTimeGoesToItsGrid) {
    const TTime due = In(-90min);
    store.Create(Task("a", due, 1), false);
    EXPECT_EQ(::ReadTable()[0].next, Seconds(due + 2h));
}

TEST_F(ClientStore, RemoveTakesAllOrNothing) {
    for (const char* const name : {"a", "b", "c"})
        store.Create(Task(name), false);
    ExpectKept([&] { ErrorOf(EError::cNotFound, [&] { store.Remove({"a", "unknown", "c"}); }); });
    store.Remove({"a", "c"});
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(ClientStore, ChangeOfNoTasksChangesNothing) {
    std::vector<std::string> warnings;
    const CStore warned({.onWarning = [&](const std::string& text) { warnings.push_back(text); }});
    warned.Create(Task("a"), false);
    ExpectKept([&] {
        warned.Remove({});
        warned.Pause({});
        warned.Resume({});
    });
    EXPECT_TRUE(warnings.empty());
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
        const std::string message = ErrorOf(EError::cRefused, [&] { store.Resume({"once"}); });
        EXPECT_NE(message.find("new due time"), std::string::npos) << message;
    });
    store.Resume({"once"}, {"past-due"});
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

// The task had that due time when the edit began.
TEST_F(ClientStore, EditSetsADueTimeThatAnotherClientChangesMeanwhile) {
    const TRow row{"a", Seconds(In(1h)), 77, 24, cRecorder, "a parameter", 0};
    TRow others = row;
    others.next = Seconds(In(3h));
    WriteTable({row});
    std::optional<CWriterLock> writerLock(std::in_place, ".", 0ms);
    std::thread edit([&] { store.Edit("a", {.due = TTime(std::chrono::seconds(row.next))}); });
    WaitUntil([] { return HasChild(getpid(), "vxsched-change"); });
    WriteTable({others});
    writerLock.reset();
    edit.join();
    EXPECT_EQ(::ReadTable()[0].next, row.next);
}

TEST_F(ClientStore, EditChangesOnlyTheGivenFields) {
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
    expect(wanted, {.due = TTime(std::chrono::seconds(wanted.next))});
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
    store.Edit("once", {.due = In(1h), .parameter = "new"});
    EXPECT_EQ(::ReadTable()[1].parameters, "new");
    EXPECT_EQ(::ReadTable()[1].paused, 1U);
}

TEST_F(ClientStore, LongStringsGoThrough) {
    TNewTask task = Task("a");
    task.name = std::string(1'000'000, 'n');
    task.parameter = std::string(131'071, 'p');
    store.Create(task, false);
    EXPECT_EQ(::ReadTable()[0].parameters, task.parameter);
    store.Remove({task.name});
    EXPECT_EQ(::ReadTable(), TRows());
}

TEST_F(ClientStore, ProgramThatALaunchWouldAlterIsExecutedByTheRunner) {
    for (const std::string name : {"backup.sh", "free", "box", "x.exe", "many.dots.e"}) {
        const std::string program = fs::absolute(name).string();
        WriteFile(program, "#!/bin/sh\n[ \"$0\" = " + program + " ] && exit $1\n");
        chmod(program.c_str(), 0755);
        TNewTask task = Task("a");
        task.program = program;
        task.parameter = "7";
        const TTaskEntry made = store.Create(task, true);
        EXPECT_EQ(made.program, RUNNER_PROGRAM);
        EXPECT_EQ(made.parameter, "--task a -- " + program + " 7");
        EXPECT_EQ(WEXITSTATUS(store.Run("a", false, true).status.value()), 7);
        EXPECT_EQ(store.Edit("a", {.program = cRecorder, .parameter = "x"}).program, cRecorder);
        EXPECT_EQ(store.Edit("a", {.program = program, .parameter = "7"}).parameter,
                  made.parameter);
    }
    EXPECT_FALSE(fs::exists("files/programs"));
}

TEST_F(ClientStore, LinkOfAnEarlierVersionIsKeptUntilAnEdit) {
    const std::string link = MakeProgramLink("/usr/bin/free", "free-1");
    WriteTable({{"a", 4102444800, 0, 24, link, "x", 0}});
    store.Create(Task("b"), false);
    store.Pause({"a"});
    EXPECT_EQ(store.Edit("a", {.name = "c"}).program, link);
    const TTaskEntry edited = store.Edit("c", {.period = 48});
    EXPECT_EQ(edited.program, RUNNER_PROGRAM);
    EXPECT_EQ(edited.parameter, "--task c -- /usr/bin/free x");
    EXPECT_TRUE(fs::is_symlink(link)) << "what was launched through it may need it";
}

// Only the superuser can make files for other users. For any other user the directory is the user's
// own, and so are the files.
TEST_F(ClientStore, SuperuserMakesFilesForTheOwnerOfTheDirectory) {
    const uid_t user = geteuid() == 0 ? 65534 : geteuid();
    const gid_t group = geteuid() == 0 ? 65534 : getegid();
    ASSERT_EQ(chown(".", user, group), 0);
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

TEST_F(ClientStore, ParameterThatNoLaunchCanPassIsRefused) {
    TNewTask task = Task("a");
    task.parameter = std::string(131'072, 'x');
    ErrorOf(EError::cRefused, [&] { store.Create(task, false); });
    task.parameter.pop_back();
    store.Create(task, false);
    TEdit edit;
    edit.parameter = task.parameter + 'x';
    ErrorOf(EError::cRefused, [&] { store.Edit("a", edit); });
    // A table that came from elsewhere.
    std::vector<TTaskEntry> tasks = store.Read().tasks;
    tasks[0].parameter += 'x';
    store.ReplaceAll(tasks);
    ErrorOf(EError::cRefused, [&] { store.Run("a", false, false); });
    store.Edit("a", {.period = 6});
    EXPECT_EQ(store.Read().tasks[0].period, 6U) << "a field that the edit leaves alone";
}

// The error of a task with that program, in a store of another user's; "" if it has none.
static std::string ErrorFor(const CStore& store, const fs::path& program) {
    const std::vector<TValidationError> errors =
        store.Check({"a", Now() + 1h, 24, fs::absolute(program).string(), ""}, {});
    return errors.empty() ? "" : std::string(errors.front().Name());
}

// Whether the user of the test is the superuser or owns all of the files, it is the owner of the
// store who launches the program.
TEST_F(ClientStore, ProgramIsCheckedWithThePermissionsOfTheStoresOwner) {
    ASSERT_TRUE(DropGainedCapabilities());
    const bool isSuperuser = geteuid() == 0;
    const uid_t owner = isSuperuser ? 65534 : geteuid();
    const gid_t group = isSuperuser ? 65534 : getegid();
    const char* const unless = isSuperuser ? "not-executable" : "";
    ASSERT_EQ(chown(".", owner, group), 0);
    ASSERT_EQ(chown("files", owner, group), 0);
    chmod(".", 0755);
    fs::create_directory("hidden");
    for (const char* const program : {"own-tool", "group-tool", "hidden/tool"})
        WriteFile(program, "");
    chmod("own-tool", 0700);
    chmod("group-tool", 0070);
    chmod("hidden/tool", 0755);
    chmod("hidden", 0700);
    EXPECT_EQ(ErrorFor(store, "own-tool"), unless);
    EXPECT_EQ(ErrorFor(store, "hidden/tool"), unless);
    EXPECT_EQ(ErrorFor(store, "group-tool"), "not-executable");
    ASSERT_EQ(chown("own-tool", owner, group), 0);
    ASSERT_EQ(chown("hidden", owner, group), 0);
    EXPECT_EQ(ErrorFor(store, "own-tool"), "");
    EXPECT_EQ(ErrorFor(store, "hidden/tool"), "");
    if (isSuperuser) {
        ASSERT_EQ(chown("group-tool", 0, group), 0);
        EXPECT_EQ(ErrorFor(store, "group-tool"), "");
        // Executable for its group and the superuser, but not for its owner.
        ASSERT_EQ(chown("group-tool", owner, group), 0);
        EXPECT_EQ(ErrorFor(store, "group-tool"), "not-executable");
    }
    EXPECT_EQ(ErrorFor(store, "no-tool"), "missing-program");
    WriteFile("hidden/still accessible", "");
    EXPECT_EQ(ReadFile("hidden/still accessible"), "");
}

TEST_F(ClientStore, ReplaceAllWritesTheTableAndKeepsABackup) {
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
