// When a real host launches tasks, without anybody who wakes it. The worker's waits of a minute have
// no end here, so that only the host's wake at a due time ends them.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <vxsched/SchedulingProcess.h>
#include "store/CStoreMutexLock.h"

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace {

constexpr std::uint32_t cHours = 24;
constexpr std::int64_t cPeriod = 86400;  // in seconds

// No wait of a minute ends in the programs of the test.
class PunctualLaunch : public testing::Test {
protected:
    PunctualLaunch() {
        for (const auto& [name, value] : WithInterposedSystem())
            setenv(name.c_str(), value.c_str(), 1);
        setenv("ENDLESS_MINUTES", "1", 1);
    }
};

std::int64_t Soon() {
    return std::time(nullptr) + 2;
}

TRow TaskDue(const std::string& name, std::int64_t due, std::uint32_t period) {
    return {name, due, 0, period, PROGRAMS "/append-text", "log", 0};
}

// Waits until that many programs were launched, and reads the table after the tick that launched the
// last one.
TRows TableAfter(std::size_t launches) {
    WaitUntil([&] { return CountLines("log") >= launches; });
    WaitUntil(WorkerIsIdle);
    const vxsched::CStoreMutexLock lock(std::chrono::seconds(30));
    return ReadTable();
}

}  // namespace

// The tick at the very second of the due time reschedules the task as well.
TEST_F(PunctualLaunch, TaskIsLaunchedAndRescheduledWhenItFallsDue) {
    const std::int64_t due = Soon();
    WriteTable({TaskDue("a task", due, cHours), Row("later")});
    const CHost host;
    const TRows rows = TableAfter(1);
    ASSERT_EQ(rows.size(), 2U);
    EXPECT_EQ(rows[0].next, due + cPeriod);
    EXPECT_GE(rows[0].last, due);
    EXPECT_EQ(rows[1], Row("later"));
    EXPECT_EQ(CountLines("log"), 1U);
}

TEST_F(PunctualLaunch, EachOfAThousandTasksIsLaunchedOnce) {
    const std::int64_t due = Soon();
    TRows rows;
    for (int number = 0; number < 1000; ++number)
        rows.push_back(TaskDue("task " + std::to_string(number), due, cHours));
    WriteTable(rows);
    const CHost host;
    for (const TRow& row : TableAfter(rows.size()))
        EXPECT_EQ(row.next, due + cPeriod) << row.name;
    EXPECT_EQ(CountLines("log"), rows.size());
}

// The tick skips the first task after it has removed one.
TEST_F(PunctualLaunch, TasksThatRunOnceAreAllLaunched) {
    const std::int64_t due = Soon();
    WriteTable({TaskDue("first", due, 0), TaskDue("second", due, 0), TaskDue("third", due, 0)});
    const CHost host;
    EXPECT_EQ(TableAfter(3), TRows());
    EXPECT_EQ(CountLines("log"), 3U);
}

// A launch that fails counts as one.
TEST_F(PunctualLaunch, FailedLaunchIsNotRepeated) {
    const std::int64_t due = Soon();
    TRow missing = TaskDue("missing", due, cHours);
    missing.program = "/no/such/program/at-all";
    WriteTable({missing, TaskDue("a task", due + 1, cHours)});
    CHost host;
    const TRows rows = TableAfter(1);
    EXPECT_EQ(rows.at(0).next, due + cPeriod);
    EXPECT_EQ(rows.at(1).next, due + 1 + cPeriod);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("cannot start"), 1U) << host.Output();
}

// The clock stands still at the due time, as for all ticks within that second.
TEST_F(PunctualLaunch, IsMadeOnceThoughTheDueSecondLasts) {
    const std::int64_t due = std::time(nullptr);
    TRow missing = TaskDue("missing", due, cHours);
    missing.program = "/no/such/program/at-all";
    WriteTable({TaskDue("a task", due, cHours), missing});
    setenv("FAKE_TIME", std::to_string(due).c_str(), 1);
    CHost host;
    const TRows rows = TableAfter(1);
    EXPECT_EQ(rows.at(0).next, due + cPeriod);
    EXPECT_EQ(rows.at(0).last, due);
    EXPECT_EQ(rows.at(1).next, due + cPeriod);
    EXPECT_EQ(rows.at(1).last, 0);
    WakeWorker();
    EXPECT_EQ(TableAfter(1), rows);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("started process"), 1U) << host.Output();
    EXPECT_EQ(host.CountInOutput("cannot start"), 1U) << host.Output();
}

RUN_AGAIN(CreateWithoutWaking) {
    const CAddinLibrary library;
    library.Create("new", std::stol(arguments.at(0)), 0, PROGRAMS "/append-text", "log");
    _exit(0);
}

TEST_F(PunctualLaunch, TaskThatADirectClientCreatesIsLaunchedWhenItFallsDue) {
    WriteTable({Row("later")});
    const CHost host;
    CProgram client(ThisProgramAs("CreateWithoutWaking", {std::to_string(Soon())}));
    EXPECT_EQ(client.Wait(), 0) << client.Output();
    EXPECT_EQ(TableAfter(1), TRows({Row("later")}));
}

TEST_F(PunctualLaunch, TaskOfARestoredTableIsLaunchedWhenItFallsDue) {
    const TRows rows = {TaskDue("a task", Soon(), cHours), Row("later")};
    WriteTable(rows);
    CHost host;
    WriteFile(cTable, BytesOf(rows).substr(0, 60));
    EXPECT_TRUE(host.WaitForOutput("the table is restored")) << host.Output();
    EXPECT_EQ(TableAfter(1).at(0).next, rows[0].next + cPeriod);
    EXPECT_EQ(CountLines("log"), 1U);
}

// The save that created it has lost the others, so the guard adds them.
TEST_F(PunctualLaunch, NewTaskOfARestoredTableIsLaunchedWhenItFallsDue) {
    WriteTable({Row("first"), Row("second")});
    CHost host;
    const TRow task = TaskDue("a task", Soon(), cHours);
    WriteTable({task});
    EXPECT_TRUE(host.WaitForOutput("the table is restored")) << host.Output();
    const TRows rows = TableAfter(1);
    ASSERT_EQ(rows.size(), 3U);
    EXPECT_EQ(rows[0].next, task.next + cPeriod);
    EXPECT_EQ(rows[1], Row("first"));
}

// The wakes follow one another: each after the table was read after the launch before.
TEST_F(PunctualLaunch, TasksOfSeveralSecondsAreLaunchedInTheirOrder) {
    const std::int64_t due = Soon();
    WriteTable({TaskDue("third", due + 2, cHours), TaskDue("second", due + 1, cHours),
                TaskDue("first", due, cHours)});
    CHost host;
    TableAfter(3);
    EXPECT_EQ(host.Stop(), 0);
    std::size_t last = 0;
    for (const std::string name : {"first", "second", "third"}) {
        const std::size_t place = host.Output().find("for task \"" + name + "\"");
        ASSERT_NE(place, std::string::npos) << host.Output();
        EXPECT_LT(last, place) << name;
        last = place;
    }
}

TEST_F(PunctualLaunch, PausedTaskIsNot) {
    const std::int64_t due = Soon();
    TRow paused = TaskDue("paused", due, cHours);
    paused.paused = 1;
    WriteTable({paused, TaskDue("a task", due + 1, cHours)});
    const CHost host;
    EXPECT_EQ(TableAfter(1).at(0), paused);
    EXPECT_EQ(CountLines("log"), 1U);
}

// As by a direct client that has read the table before the tick: the task is not launched again
// (SettledLaunches), and the tick that keeps it back reschedules it, so that no other follows.
TEST_F(PunctualLaunch, DueTimeThatIsSavedAgainCostsOneTick) {
    const TRows before = {TaskDue("a task", Soon(), cHours)};
    WriteTable(before);
    CHost host;
    const TRows rows = TableAfter(1);
    WaitUntil([] { return CountIn("files/started", "@") == 0; });
    {
        const vxsched::CStoreMutexLock lock(std::chrono::seconds(30));
        WriteTable(before);
        vxsched::AnnounceChange();
    }
    WaitUntil([&] { return ReadTable().at(0).next == rows.at(0).next; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(CountLines("log"), 1U) << host.Output();
    EXPECT_LE(host.CountInOutput("is due again for a time"), 1U) << host.Output();
}

// A process that slept would be stopped for good.
TEST_F(PunctualLaunch, NoLaunchSleeps) {
    WriteTable({TaskDue("a task", Soon(), cHours)});
    setenv("STOP_IN_SLEEP", "1", 1);
    const CHost host;
    TableAfter(1);
    // Tests that run at the same time launch this program, too, and "running already" counts them.
    const TToolRun run = RunTool({"run", "a task", "--force"});
    ASSERT_EQ(run.status, 0) << run.error;
    TableAfter(2);
}

// The new period counts from the due time that has just passed.
TEST_F(PunctualLaunch, PeriodThatIsSetInTheDueSecondMakesNoSecondLaunch) {
    const std::int64_t due = Soon();
    WriteTable({TaskDue("a task", due, 1)});
    CHost host;
    TableAfter(1);
    const TToolRun run = RunTool({"period", "a task", "2h"});
    EXPECT_EQ(run.status, 0) << run.error;
    WaitUntil([&] { return std::time(nullptr) > due; });
    EXPECT_EQ(TableAfter(1).at(0).next, due + 7200);
    EXPECT_EQ(CountLines("log"), 1U);
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// Makes a task of `hours` due at `due` and runs a command on it, which waits for the launch: the host
// is stopped, without the store mutex, until then.
static void ChangeDuringTheLaunch(const CHost& host, std::int64_t due, std::uint32_t hours,
                                  const std::vector<std::string>& command) {
    Suspend(host);
    WriteTable({TaskDue("a task", due, hours)});
    vxsched::AnnounceChange();
    CProgram change(command);
    // It sleeps between two reads of the table.
    const std::string call = "/proc/" + std::to_string(change.Id()) + "/syscall";
    const std::string sleep = std::to_string(SYS_clock_nanosleep) + ' ';
    WaitUntil([&] { return ReadFile(call).starts_with(sleep); });
    host.Kill(SIGCONT);
    EXPECT_EQ(change.Wait(), 0) << change.Output();
    WaitUntil([&] { return std::time(nullptr) > due; });
}

TEST_F(PunctualLaunch, EditThatNamesTheDueTimeOfTheTaskMakesNoSecondLaunch) {
    WriteTable({Row("a task")});
    CHost host;
    const std::int64_t due = std::time(nullptr);
    ChangeDuringTheLaunch(
        host, due, cHours,
        {TOOL_PROGRAM, "edit", "a task", "--at", '@' + std::to_string(due), "--every", "2d"});
    const TRow row = TableAfter(1).at(0);
    EXPECT_EQ(row.next, due + cPeriod);
    EXPECT_EQ(row.period, 2 * cHours);
    EXPECT_EQ(CountLines("log"), 1U);
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// The task that takes its place has had its launch for that time, too.
TEST_F(PunctualLaunch, ReplacementThatNamesTheDueTimeOfTheTaskMakesNoSecondLaunch) {
    WriteTable({Row("a task")});
    CHost host;
    const auto replace = [&](std::int64_t due, const char* every) {
        return std::vector<std::string>{TOOL_PROGRAM, "create",
                                        "a task",     "--replace",
                                        "--at",       '@' + std::to_string(due),
                                        "--every",    every,
                                        "--",         PROGRAMS "/append-text",
                                        "log"};
    };
    std::int64_t due = std::time(nullptr);
    ChangeDuringTheLaunch(host, due, cHours, replace(due, "2d"));
    TRow row = TableAfter(1).at(0);
    EXPECT_EQ(row.next, due + 2 * cPeriod);
    EXPECT_EQ(row.period, 2 * cHours);
    EXPECT_EQ(CountLines("log"), 1U);
    // Tasks that run once, and then are gone.
    due = std::time(nullptr);
    ChangeDuringTheLaunch(host, due, 0, replace(due, "2d"));
    row = TableAfter(1).at(0);
    EXPECT_EQ(row.next, due + 2 * cPeriod);
    EXPECT_EQ(CountLines("log"), 2U);
    due = std::time(nullptr);
    ChangeDuringTheLaunch(host, due, 0, replace(due, "once"));
    EXPECT_EQ(host.Stop(), 0) << host.Output();
    EXPECT_EQ(CountLines("log"), 3U);
    EXPECT_EQ(NamesInTable(), "");
}
