#include "KillPoints.h"

#include <CEvent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Store.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <system_error>

#include "base/CDescriptor.h"
#include "client/LibraryDirectory.h"
#include "runs/COutputReader.h"
#include "runs/HistoryReader.h"
#include "store/Backups.h"
#include "store/CStoreMutexLock.h"
#include "store/Layout.h"

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"
#include "TracedProgram.h"
#include "WedgedMutex.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// The client library is linked statically here, and none of its calls needs the directory.
std::string vxsched::LibraryDirectory() {
    return "";
}

namespace {

constexpr char cProgram[] = PROGRAMS "/append-text";
constexpr char cPrintingProgram[] = PROGRAMS "/append-and-print";
constexpr char cRefusal[] = "no processes";  // while it is there, launches of a host are refused

// What a scenario consists of. The functions run in the test's process.
struct TScenario {
    std::string name;
    CTracedProgram::EVictim victim = CTracedProgram::cProgram;
    std::vector<std::string> command;
    // Makes the store in which the command is run, in a directory without one.
    std::function<void()> prepare;
    // Lets the traced program, which is not counted before, do what is to be cut short, until that
    // is done or the program is killed. Empty: the command ends by itself, and all of it counts.
    std::function<void(CTracedProgram&)> act = {};
    // What has to hold after the kill, or after the end if the command was not killed.
    std::function<void(const CTracedProgram&, int status)> check;
    // It sets a wedged mutex free, for which it has to inspect every process that it sees.
    bool mustInspect = false;
};

std::vector<std::string> Tool(const std::vector<std::string>& arguments) {
    std::vector<std::string> command = {TOOL_PROGRAM, "--lock-timeout", "30"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

// ---- The store ----------------------------------------------------------------------------------

void RemoveAllSets() {
    for (int id = TheOnlySet(); id != -1; id = TheOnlySet())
        semctl(id, 0, IPC_RMID);
}

void RemoveStore() {
    for (const char* const path :
         {"files", "daily.log", "once.log", "missed.log", "job.log", cRefusal})
        fs::remove_all(path);
    RemoveAllSets();
}

std::size_t CountInHistory(const std::string& part) {
    const std::string history = ReadFile("files/history.jsonl");
    std::size_t count = 0;
    for (std::size_t at = 0; (at = history.find(part, at)) != std::string::npos; ++at)
        ++count;
    return count;
}

void ExpectNoUnfinishedFiles() {
    for (const char* const directory : {"files", "files/owed", "files/snapshots"}) {
        EXPECT_EQ(CountIn(directory, ".save-"), 0U) << directory;
        EXPECT_EQ(CountIn(directory, ".new-"), 0U) << directory;
    }
}

// Whether the host has done what it does after a tick: removed the launch records of what the table
// shows.
bool IsSettled() {
    return WorkerIsIdle() && CountIn("files/started", "@") == 0 && StoreSemaphoreValue() == 1;
}

// Replaces the table under a host.
void ReplaceAll(const TRows& rows) {
    std::vector<vxsched::TTaskEntry> tasks;
    for (const TRow& row : rows)
        tasks.push_back({row.name, vxsched::TTime(std::chrono::seconds(row.next)),
                         vxsched::TTime(std::chrono::seconds(row.last)), row.period, row.program,
                         row.parameters, row.paused != 0});
    vxsched::CStore({.lockTimeout = 30s}).ReplaceAll(tasks);
    WaitUntil(IsSettled);
}

// ---- Commands and their change processes ----------------------------------------------------------

TRows TableOfCommands() {
    TRows rows = {Row("first"), Row("second"), Row("paused")};
    rows[2].paused = 1;
    rows.push_back({"job", cFar, 0, 24, cProgram, "job.log", 0});
    return rows;
}

// A run sets the last launch, whose time is another in each run.
TRows WithoutLaunchTimes(TRows rows) {
    for (TRow& row : rows)
        row.last = row.last != 0 ? 1 : 0;
    return rows;
}

// The tables before the command and after it; the latter from a run without a kill.
struct TTables {
    TRows before;
    TRows after;
    bool hasAfter = false;
};

// Starts a host that launches what is due and ends. Returns its output.
std::string RunHostOnce() {
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    return host.Output();
}

void ExpectAnotherCommandWorks(const std::string& task) {
    TToolRun run;
    // A command that a busy machine does not run for seconds seems to be stopped to its change
    // process.
    do {
        run = RunTool({"--lock-timeout", "30", "pause", task});
    } while (run.error.find("the client was stopped") != std::string::npos);
    EXPECT_EQ(run.status, 0) << run.error;
}

// The table is as before or as afterwards, and what the command has reported, if it was not killed,
// is what the table shows.
void CheckTable(TTables& tables, const CTracedProgram& traced, int status) {
    const TRows rows = WithoutLaunchTimes(ReadTable());
    if (!tables.hasAfter) {
        ASSERT_EQ(status, 0) << traced.Output();
        tables.after = rows;
        tables.hasAfter = true;
    }
    EXPECT_TRUE(rows == tables.before || rows == tables.after)
        << testing::PrintToString(rows) << traced.Output();
    // A program was launched, which is what was asked for, although the table does not show it.
    const bool hasRun = traced.Output().find("started job") != std::string::npos;
    if (status == 0) {
        EXPECT_TRUE(rows == tables.after || hasRun)
            << testing::PrintToString(rows) << traced.Output();
    } else if (status == 1) {
        EXPECT_EQ(rows, tables.before) << traced.Output();
    } else {
        EXPECT_TRUE(status == 9 || status == 1000 + SIGKILL) << status << traced.Output();
    }
}

// The job runs at most once, and has run if the table or the command say so.
void CheckRun(const CTracedProgram& traced, int status) {
    WaitUntil([] { return CountIn("files/running", "") == 0; });
    const std::size_t runs = CountLines("job.log");
    EXPECT_LE(runs, 1U);
    const TRows rows = ReadTable();
    const bool isInTable =
        std::any_of(rows.begin(), rows.end(), [](const TRow& row) { return row.last != 0; });
    const bool isReported = traced.Output().find("started job") != std::string::npos;
    EXPECT_TRUE(runs == 1 || (!isInTable && !isReported)) << traced.Output();
    EXPECT_TRUE(runs == 0 || status != 1) << traced.Output();
}

// Open, as a scheduling process has it.
std::unique_ptr<CEvent> gTaskChanged;

// A worker reads no table whose change is not announced, and would overwrite it.
void CheckAnnouncement(const TTables& tables, const CTracedProgram& traced) {
    if (WithoutLaunchTimes(ReadTable()) == tables.before)
        return;
    EXPECT_NE(gTaskChanged->Wait(0), 0) << traced.At() << '\n' << traced.Output();
}

void CheckAfterCommand(TTables& tables, const CTracedProgram& traced, int status) {
    CheckTable(tables, traced, status);
    CheckAnnouncement(tables, traced);
    CheckRun(traced, status);
    ExpectAnotherCommandWorks("second");
    const TRows expected = ReadTable();
    const std::string output = RunHostOnce();
    EXPECT_EQ(ReadTable(), expected) << output;
    EXPECT_EQ(output.find("repaired"), std::string::npos) << output;
    ExpectNoUnfinishedFiles();
}

void PrepareForCommand() {
    gTaskChanged.reset();
    RemoveStore();
    WriteTable(TableOfCommands());
    gTaskChanged = std::make_unique<CEvent>(vxsched::cTaskChangedEventName, true);
}

TScenario CommandScenario(const std::string& name, CTracedProgram::EVictim victim,
                          const std::vector<std::string>& arguments) {
    const auto tables = std::make_shared<TTables>();
    tables->before = TableOfCommands();
    return {.name = name,
            .victim = victim,
            .command = Tool(arguments),
            .prepare = PrepareForCommand,
            .check = [tables](const CTracedProgram& traced, int status) {
                CheckAfterCommand(*tables, traced, status);
            }};
}

// Next to a host, which is the same one for all calls.
TScenario NextToAHost(const std::string& name, CTracedProgram::EVictim victim,
                      const std::vector<std::string>& arguments) {
    const auto host = std::make_shared<std::unique_ptr<CHost>>();
    const auto tables = std::make_shared<TTables>();
    tables->before = TableOfCommands();
    return {.name = name + "NextToAHost",
            .victim = victim,
            .command = Tool(arguments),
            .prepare =
                [host] {
                    fs::remove("job.log");
                    if (*host != nullptr)
                        return ReplaceAll(TableOfCommands());
                    PrepareForCommand();
                    *host = std::make_unique<CHost>();
                },
            .check =
                [tables](const CTracedProgram& traced, int status) {
                    WaitUntil(IsSettled);
                    CheckTable(*tables, traced, status);
                    CheckRun(traced, status);
                    ExpectAnotherCommandWorks("second");
                }};
}

// The table is damaged, and a repair takes what it can read of it and the remaining tasks from the
// backup.
void PrepareForRepair() {
    RemoveStore();
    const std::string bytes = BytesOf(TableOfCommands());
    WriteTable({});
    WriteFile("files/scheduler.dat.before", bytes);
    WriteFile(cTable, bytes.substr(0, bytes.size() - 60));
}

TScenario RepairScenario() {
    return {.name = "Repair",
            .command = Tool({"repair"}),
            .prepare = PrepareForRepair,
            .check = [](const CTracedProgram& traced, int status) {
                const std::string good = BytesOf(TableOfCommands());
                const std::string bytes = ReadFile(cTable);
                EXPECT_TRUE(bytes == good || bytes == good.substr(0, good.size() - 60));
                EXPECT_TRUE(bytes == good || status != 0) << traced.Output();
                const TToolRun repair = RunTool({"repair"});
                EXPECT_EQ(repair.status, 0) << repair.error;
                EXPECT_EQ(ReadFile(cTable), good) << repair.output;
                ExpectAnotherCommandWorks("first");
                ExpectNoUnfinishedFiles();
            }};
}

// The table of a running host is damaged, and another process keeps it open, so that the guard does
// not restore it before the command is over.
TScenario RepairNextToAHost() {
    const auto host = std::make_shared<std::unique_ptr<CHost>>();
    const auto reader = std::make_shared<CDescriptor>();
    return {.name = "RepairNextToAHost",
            .command = Tool({"repair"}),
            .prepare =
                [host, reader] {
                    if (*host == nullptr) {
                        PrepareForCommand();
                        *host = std::make_unique<CHost>();
                    } else {
                        ReplaceAll(TableOfCommands());
                    }
                    // A repair that is over would remove those of the killed ones, and make a call
                    // more for each.
                    for (const vxsched::TBackupFile& file : vxsched::ListBackups(".")) {
                        if (file.kind == vxsched::TBackupFile::cQuarantined)
                            fs::remove(file.path);
                    }
                    *reader = CDescriptor(open(cTable, O_RDONLY | O_CLOEXEC));
                    const std::string bytes = ReadFile(cTable);
                    WriteFile(cTable, bytes.substr(0, bytes.size() - 60));
                },
            .check =
                [reader](const CTracedProgram& traced, int status) {
                    const std::string good = BytesOf(TableOfCommands());
                    EXPECT_TRUE(ReadFile(cTable) == good || status != 0) << traced.Output();
                    *reader = CDescriptor();
                    WaitUntil([&] { return ReadFile(cTable) == good && IsSettled(); });
                    ExpectAnotherCommandWorks("first");
                }};
}

// The mutex is held by nobody and cannot be taken; the command sets it free.
TScenario OnAWedgedMutex(const std::string& name, CTracedProgram::EVictim victim,
                         const std::vector<std::string>& arguments) {
    TScenario scenario = CommandScenario(name + "OnAWedgedMutex", victim, arguments);
    scenario.prepare = [] {
        PrepareForCommand();
        Wedge();
    };
    scenario.mustInspect = true;
    return scenario;
}

// ---- The host -----------------------------------------------------------------------------------

// What a killed host has left, in the directory "killed", which was up at `since`.
struct TFormerHost {
    std::int64_t since = 0;
};

TFormerHost LeaveFormerHost() {
    TFormerHost former;
    WriteTable({Row("far")});
    CHost host;
    former.since = std::time(nullptr);
    host.Kill(SIGKILL);
    host.Wait();
    fs::remove_all("killed");
    fs::remove("files/control");  // a socket cannot be copied
    fs::rename("files", "killed");
    return former;
}

// Two tasks that the former host left due, two that no host was there for, and one that is not due.
TRows TableOfHost(std::int64_t due) {
    return {{"daily", due, 0, 24, cPrintingProgram, "daily.log", 0},
            {"once", due, 0, 0, cPrintingProgram, "once.log", 0},
            {"missed", due - 1'000'000, 0, 24, cPrintingProgram, "missed.log", 0},
            {"missed once", due - 1'000'000, 0, 0, cPrintingProgram, "missed.log", 0},
            Row("far")};
}

// The record of the one run that a task had for a due time. An attempt whose runner was killed before
// the program began is followed by another.
TRunRecord OnlyRun(const std::string& task, std::int64_t due) {
    std::vector<TRunRecord> runs = vxsched::ReadHistory(".", task).runs;
    std::erase_if(runs, [&](const TRunRecord& run) {
        return run.due != std::chrono::sys_seconds(std::chrono::seconds(due)) ||
               run.error == "its runner was killed before the program began";
    });
    EXPECT_EQ(runs.size(), 1U) << task << ReadFile("files/history.jsonl");
    return runs.empty() ? TRunRecord() : runs.front();
}

// The task's program has run to its end, and that is recorded with its output.
void ExpectWholeRun(const std::string& task, const TRunRecord& run) {
    EXPECT_EQ(run.outcome, TRunRecord::cExited) << task;
    EXPECT_EQ(run.number, 0) << task;
    EXPECT_EQ(CountLines(task + ".log"), 1U);
    EXPECT_EQ(vxsched::COutputReader(run.output).Next(), task + ".log\n");
}

// After the next host, which launches what the killed one has not launched.
void CheckLaunches(std::int64_t due, bool hasMissed, const CTracedProgram& traced) {
    const std::string killed = ReadFile(cTable);
    const std::string output = traced.Output() + "\nthe next host:\n" + RunHostOnce();
    SCOPED_TRACE(output);
    for (const char* const task : {"daily", "once"})
        ExpectWholeRun(task, OnlyRun(task, due));
    EXPECT_EQ(CountIn("files/running"), 0U);
    EXPECT_EQ(CountLines("daily.log"), 1U);
    EXPECT_EQ(CountLines("once.log"), 1U);
    EXPECT_EQ(CountLines("missed.log"), 0U);
    TRows rows = ReadTable();
    EXPECT_EQ(NamesInTable(), hasMissed ? "daily missed far" : "daily far");
    EXPECT_EQ(rows.at(0).next, due + 24L * 3600);
    EXPECT_EQ(rows.back(), Row("far"));
    if (hasMissed) {
        EXPECT_GE(CountInHistory("\"name\":\"missed\""), 1U);
        EXPECT_GE(CountInHistory("\"name\":\"missed once\""), 1U);
    }
    ExpectAnotherCommandWorks("far");
    ExpectNoUnfinishedFiles();
}

void PrepareForStartup(TFormerHost& former, bool isDamaged) {
    if (former.since == 0)
        former = LeaveFormerHost();
    RemoveStore();
    fs::copy("killed", "files", fs::copy_options::recursive);
    const std::string bytes = BytesOf(TableOfHost(former.since - 5));
    fs::remove_all("files/snapshots");
    WriteFile("files/scheduler.dat.before", bytes);
    WriteFile(cTable, isDamaged ? bytes.substr(0, 100) : bytes);
}

TScenario StartupScenario(const std::string& name, bool isDamaged) {
    const auto former = std::make_shared<TFormerHost>();
    return {.name = name,
            .command = HostWith({"--run-once"}),
            .prepare = [former, isDamaged] { PrepareForStartup(*former, isDamaged); },
            .check = [former](const CTracedProgram& traced,
                              int /*status*/) { CheckLaunches(former->since - 5, true, traced); }};
}

// After the kill of a runner whose host goes on, and the next host. What became of the program is
// open; no other run is concerned.
void CheckAfterRunner(std::int64_t due, const CTracedProgram& traced) {
    const std::string output = traced.Output() + "\nthe next host:\n" + RunHostOnce();
    SCOPED_TRACE(output);
    int died = 0;
    for (const char* const task : {"daily", "once"}) {
        const TRunRecord run = OnlyRun(task, due);
        if (run.outcome != TRunRecord::cRunnerDied) {
            ExpectWholeRun(task, run);
            continue;
        }
        ++died;
        EXPECT_LE(CountLines(std::string(task) + ".log"), 1U);
    }
    EXPECT_LE(died, traced.IsKilled() ? 1 : 0);
    EXPECT_EQ(CountIn("files/running"), 0U);
    EXPECT_EQ(NamesInTable(), "daily missed far");
    EXPECT_EQ(ReadTable().at(0).next, due + 24L * 3600);
    ExpectAnotherCommandWorks("far");
    ExpectNoUnfinishedFiles();
}

// Has the first task of a table execute the same as a job that uses all that a runner has for one.
void MakeJob(const std::string& table) {
    TRows rows = ReadTable();
    rows.at(0).parameters =
        "--task daily --env A=1 --umask 022 --timeout 1h --success 0,3 --overlap queue --retry 1 "
        "--backoff 0s --on-failure true --on-success true --on-recovery true -- " +
        rows.at(0).program + ' ' + rows.at(0).parameters;
    rows.at(0).program = RUNNER_PROGRAM;
    WriteFile(table, BytesOf(rows));
}

// The runner of the first program that a host launches.
TScenario RunnerScenario(const std::string& name, bool isOfJob) {
    const auto former = std::make_shared<TFormerHost>();
    return {.name = name,
            .victim = CTracedProgram::cItsChild,
            .command = HostWith({"--run-once"}),
            .prepare =
                [former, isOfJob] {
                    PrepareForStartup(*former, false);
                    if (isOfJob)
                        MakeJob(cTable);
                },
            .check =
                [former](const CTracedProgram& traced, int status) {
                    EXPECT_EQ(status, 0) << traced.Output();
                    CheckAfterRunner(former->since - 5, traced);
                }};
}

// A host that is idle after its startup.
void WaitForHost(const CTracedProgram& traced) {
    WaitUntil([&] { return traced.Output().find(" as process ") != std::string::npos; });
    WaitUntil(WorkerIsIdle);
}

TRows TableOfRunningHost(std::int64_t due) {
    TRows rows = TableOfHost(due);
    rows.erase(rows.begin() + 2, rows.begin() + 4);
    return rows;
}

void PrepareForTick() {
    RemoveStore();
    WriteTable(TableOfRunningHost(cFar));
}

// Returns the due time. The host then wakes its worker, which reads a table that is announced.
std::int64_t MakeTasksDue(bool isAnnounced) {
    const std::int64_t due = std::time(nullptr) - 1;
    const vxsched::CStoreMutexLock lock(30s);
    WriteFile("files/due", BytesOf(TableOfRunningHost(due)));
    fs::rename("files/due", cTable);
    if (isAnnounced)
        vxsched::AnnounceChange();
    return due;
}

// Has the host tick while its tasks are due, and ends it once `isDone` holds.
void TickUntil(CTracedProgram& host, std::int64_t& due, const std::function<bool()>& isDone) {
    WaitForHost(host);
    host.Count();
    due = MakeTasksDue(true);
    WaitUntil([&] { return host.IsKilled() || isDone(); });
    kill(host.Id(), SIGKILL);
}

TScenario TickScenario() {
    const auto due = std::make_shared<std::int64_t>();
    return {.name = "Tick",
            .command = HostWith({}),
            .prepare = PrepareForTick,
            .act =
                [due](CTracedProgram& host) {
                    TickUntil(host, *due, [] {
                        return fs::exists("daily.log") && fs::exists("once.log") && IsSettled();
                    });
                },
            .check = [due](const CTracedProgram& traced,
                           int /*status*/) { CheckLaunches(*due, false, traced); }};
}

// After a run that the host was asked for, and the next host. The program was launched at most once,
// and each launch is in the history. What the command has reported is so.
void CheckServedRun(int commandStatus, const std::string& reported, const CTracedProgram& traced) {
    const std::string output =
        traced.Output() + "\nthe command:\n" + reported + "\nthe next host:\n" + RunHostOnce();
    SCOPED_TRACE(output);
    EXPECT_TRUE(commandStatus == 0 || commandStatus == 1 || commandStatus == 9) << commandStatus;
    WaitUntil([] { return CountIn("files/running", "") == 0; });
    const std::size_t runs = CountLines("job.log");
    EXPECT_LE(runs, 1U);
    EXPECT_TRUE(runs == 1 || commandStatus != 0);
    EXPECT_TRUE(runs == 0 || commandStatus != 1);
    const TRows rows = ReadTable();
    EXPECT_TRUE(runs == 1 || rows.at(3).last == 0);
    EXPECT_TRUE(commandStatus != 0 || rows.at(3).last != 0);
    EXPECT_EQ(WithoutLaunchTimes({rows.at(0), rows.at(1), rows.at(2)}),
              (TRows{TableOfCommands()[0], TableOfCommands()[1], TableOfCommands()[2]}));
    const std::vector<TRunRecord> records = vxsched::ReadHistory(".", "job").runs;
    ASSERT_EQ(records.size(), runs);
    for (const TRunRecord& record : records) {
        EXPECT_EQ(record.outcome, TRunRecord::cExited);
        EXPECT_EQ(record.trigger, cManual);
        EXPECT_EQ(record.number, 0);
    }
    EXPECT_EQ(RunTool({"status"}).error, "");
    ExpectAnotherCommandWorks("second");
    ExpectNoUnfinishedFiles();
}

// The host serves a `run`, whose command is not killed and does not wait for ever.
TScenario ServedRunScenario() {
    const auto commandStatus = std::make_shared<int>();
    const auto reported = std::make_shared<std::string>();
    return {.name = "ServedRun",
            .command = HostWith({}),
            .prepare = PrepareForCommand,
            .act =
                [=](CTracedProgram& host) {
                    WaitForHost(host);
                    host.Count();
                    // Tests that run at the same time launch this program, too.
                    CProgram command(Tool({"run", "job", "--force"}));
                    *commandStatus = command.Wait();
                    *reported = command.Output();
                    WaitUntil([&] { return host.IsKilled() || IsSettled(); });
                    kill(host.Id(), SIGKILL);
                },
            .check = [=](const CTracedProgram& traced,
                         int /*status*/) { CheckServedRun(*commandStatus, *reported, traced); }};
}

// The host's guard restores a table of which a direct client has left a part.
TScenario GuardScenario() {
    const auto good = std::make_shared<TRows>(TableOfRunningHost(cFar));
    return {.name = "Guard",
            .command = HostWith({}),
            .prepare = PrepareForTick,
            .act =
                [good](CTracedProgram& host) {
                    WaitForHost(host);
                    host.Count();
                    WriteFile(cTable, BytesOf(*good).substr(0, 100));
                    WaitUntil([&] {
                        return host.IsKilled() ||
                               (ReadFile(cTable) == BytesOf(*good) && IsSettled());
                    });
                    kill(host.Id(), SIGKILL);
                },
            .check =
                [good](const CTracedProgram& traced, int /*status*/) {
                    const std::string output = traced.Output() + "\nnext:\n" + RunHostOnce();
                    EXPECT_EQ(ReadTable(), *good) << output;
                    ExpectAnotherCommandWorks("far");
                    ExpectNoUnfinishedFiles();
                }};
}

// A host that is stopped while tasks are due, of which it was not notified.
TScenario StopScenario() {
    const auto due = std::make_shared<std::int64_t>();
    return {.name = "Stop",
            .command = HostWith({}),
            .prepare = PrepareForTick,
            .act =
                [due](CTracedProgram& host) {
                    WaitForHost(host);
                    *due = MakeTasksDue(false);
                    host.Count();
                    kill(host.Id(), SIGTERM);
                },
            .check =
                [due](const CTracedProgram& traced, int status) {
                    EXPECT_TRUE(status == 0 || status == 1000 + SIGKILL) << status;
                    CheckLaunches(*due, false, traced);
                }};
}

// The system refuses the launches of a tick, which the host then owes.
TScenario RefusedTickScenario() {
    const auto due = std::make_shared<std::int64_t>();
    return {.name = "RefusedTick",
            .command = HostWith({}),
            .prepare = PrepareForTick,
            .act =
                [due](CTracedProgram& host) {
                    WriteFile(cRefusal, "");
                    TickUntil(host, *due,
                              [] { return CountIn("files/owed", "@") == 2 && IsSettled(); });
                },
            .check =
                [due](const CTracedProgram& traced, int /*status*/) {
                    fs::remove(cRefusal);
                    CheckLaunches(*due, false, traced);
                    EXPECT_EQ(CountIn("files/owed"), 0U);
                }};
}

// Leaves a store in which the host owes the launches of both tasks. Returns their due time.
std::int64_t LeaveOwedLaunches() {
    PrepareForTick();
    CHost host;
    WriteFile(cRefusal, "");
    const std::int64_t due = MakeTasksDue(true);
    WaitUntil([] { return CountIn("files/owed", "@") == 2 && IsSettled(); });
    host.Kill(SIGKILL);
    host.Wait();
    fs::remove(cRefusal);
    fs::remove_all("owing");
    fs::remove("files/control");  // a socket cannot be copied
    fs::rename("files", "owing");
    return due;
}

void PrepareOwedLaunches(std::int64_t& due) {
    if (due == 0)
        due = LeaveOwedLaunches();
    RemoveStore();
    fs::copy("owing", "files", fs::copy_options::recursive);
}

// The next host makes them.
TScenario OwedLaunchesScenario() {
    const auto due = std::make_shared<std::int64_t>();
    return {.name = "OwedLaunches",
            .command = HostWith({"--run-once"}),
            .prepare = [due] { PrepareOwedLaunches(*due); },
            .check =
                [due](const CTracedProgram& traced, int /*status*/) {
                    CheckLaunches(*due, false, traced);
                    EXPECT_EQ(CountIn("files/owed"), 0U);
                }};
}

// The launch of one is cancelled, since its task is paused; that of the task that runs once is made.
TScenario CancelledLaunchScenario() {
    const auto due = std::make_shared<std::int64_t>();
    return {.name = "CancelledLaunch",
            .command = HostWith({"--run-once"}),
            .prepare =
                [due] {
                    PrepareOwedLaunches(*due);
                    TRows rows = ReadTable();
                    rows.at(0).paused = 1;
                    WriteTable(rows);
                },
            .check =
                [](const CTracedProgram& traced, int /*status*/) {
                    const std::string output = traced.Output() + "\nnext:\n" + RunHostOnce();
                    SCOPED_TRACE(output);
                    EXPECT_EQ(CountLines("daily.log"), 0U);
                    EXPECT_EQ(CountLines("once.log"), 1U);
                    EXPECT_GE(CountInHistory("\"error\":\"the task was paused\""), 1U);
                    EXPECT_EQ(NamesInTable(), "daily far");
                    EXPECT_EQ(CountIn("files/owed"), 0U);
                    ExpectAnotherCommandWorks("far");
                    ExpectNoUnfinishedFiles();
                }};
}

// The guard sets a wedged mutex free.
TScenario WedgedMutexScenario() {
    return {.name = "HostOnAWedgedMutex",
            .command = HostWith({}),
            .prepare = PrepareForTick,
            .act =
                [](CTracedProgram& host) {
                    WaitForHost(host);
                    Wedge();
                    host.Count();
                    WriteTable(ReadTable());
                    WaitUntil([&] { return host.IsKilled() || StoreSemaphoreValue() == 1; });
                    kill(host.Id(), SIGKILL);
                },
            .check =
                [](const CTracedProgram& traced, int /*status*/) {
                    const std::string output = traced.Output() + "\nnext:\n" + RunHostOnce();
                    EXPECT_EQ(NamesInTable(), "daily once far") << output;
                    ExpectAnotherCommandWorks("far");
                    ExpectNoUnfinishedFiles();
                },
            .mustInspect = true};
}

// A check of the set-up changes nothing.
TScenario SetUpCheckScenario() {
    TScenario scenario = StartupScenario("SetUpCheck", false);
    scenario.command = HostWith({"--check"});
    return scenario;
}

// ---- All of them ----------------------------------------------------------------------------------

const std::vector<std::string> cCreate = {"create", "new", "--at",   "2090-01-01 00:00", "--every",
                                          "1d",     "--",  cProgram, "job.log"};

const std::vector<std::string> cRename = {"edit", "first", "--name", "renamed", "--every", "2d"};

// Tests that run at the same time launch this program, too, and "running already" counts them.
const std::vector<std::string> cRun = {"run", "job", "--force"};

std::vector<TScenario> Scenarios() {
    const auto command = CTracedProgram::cProgram;
    const auto change = CTracedProgram::cItsChild;
    return {
        CommandScenario("Create", command, cCreate),
        CommandScenario("Pause", command, {"pause", "first"}),
        CommandScenario("Remove", command, {"remove", "first"}),
        CommandScenario("Run", command, cRun),
        CommandScenario("Import", command, {"import", "--replace"}),
        CommandScenario("Edit", command, {"edit", "first", "--every", "2d"}),
        CommandScenario("Resume", command, {"resume", "paused"}),
        CommandScenario("Period", command, {"period", "first", "2d"}),
        CommandScenario("Rename", command, cRename),
        CommandScenario("Apply", command, {"apply", "tasks.toml"}),
        RepairScenario(),
        CommandScenario("ChangeOfApply", change, {"apply", "tasks.toml"}),
        CommandScenario("ChangeOfCreate", change, cCreate),
        CommandScenario("ChangeOfRemove", change, {"remove", "first"}),
        CommandScenario("ChangeOfEdit", change, {"edit", "first", "--every", "2d"}),
        CommandScenario("ChangeOfEditOfAPausedTask", change, {"edit", "paused", "--every", "2d"}),
        CommandScenario("ChangeOfRename", change, cRename),
        CommandScenario("ChangeOfRemoveOfSeveral", change, {"remove", "first", "paused"}),
        CommandScenario("ChangeOfRun", change, cRun),
        CommandScenario("ChangeOfPause", change, {"pause", "first"}),
        CommandScenario("ChangeOfResume", change, {"resume", "paused"}),
        CommandScenario("ChangeOfPeriod", change, {"period", "first", "2d"}),
        NextToAHost("Create", command, cCreate),
        NextToAHost("Remove", command, {"remove", "first"}),
        NextToAHost("Run", command, cRun),
        NextToAHost("ChangeOfCreate", change, cCreate),
        NextToAHost("ChangeOfRun", change, cRun),
        NextToAHost("Pause", command, {"pause", "first"}),
        NextToAHost("Import", command, {"import", "--replace"}),
        NextToAHost("ChangeOfPause", change, {"pause", "first"}),
        NextToAHost("ChangeOfEdit", change, {"edit", "first", "--every", "2d"}),
        NextToAHost("Rename", command, cRename),
        NextToAHost("ChangeOfRename", change, cRename),
        RepairNextToAHost(),
        OnAWedgedMutex("Pause", command, {"pause", "first"}),
        OnAWedgedMutex("ChangeOfPause", change, {"pause", "first"}),
        OnAWedgedMutex("Repair", command, {"repair"}),
        StartupScenario("Startup", false),
        StartupScenario("StartupOnADamagedTable", true),
        RunnerScenario("Runner", false),
        RunnerScenario("RunnerOfAJob", true),
        TickScenario(),
        ServedRunScenario(),
        GuardScenario(),
        StopScenario(),
        SetUpCheckScenario(),
        RefusedTickScenario(),
        OwedLaunchesScenario(),
        CancelledLaunchScenario(),
        WedgedMutexScenario(),
    };
}

// The standard input of the import, and the file of the apply.
void WriteInput() {
    WriteFile("tasks.toml",
              "[tasks.new]\nshell = 'true'\nat = 2090-01-01\n"
              "[tasks.second]\nshell = 'true'\nevery = '1d'\n");
    TRow row = Row("second");
    row.parameters = "imported";
    WriteTable({row});
    const TToolRun exported = RunTool({"export"});
    EXPECT_EQ(exported.status, 0) << exported.error;
    WriteFile("input", exported.output);
}

// Runs the scenario and kills at that call; 0: never. Returns the number of calls that were made,
// and sets whether it was killed.
long RunPoint(const TScenario& scenario, long call, bool& isKilled) {
    scenario.prepare();
    CTracedProgram traced(scenario.command, {.victim = scenario.victim,
                                             .killAt = call,
                                             .countsAtOnce = !scenario.act,
                                             .input = "input",
                                             .output = "traced.out"});
    if (scenario.act)
        scenario.act(traced);
    const int status = traced.Wait();
    isKilled = traced.IsKilled();
    SCOPED_TRACE(scenario.name + ": " + (isKilled ? "killed at " + traced.At() : "not killed"));
    scenario.check(traced, status);
    return traced.Calls();
}

long NumberFrom(const char* variable, long otherwise) {
    const char* const given = std::getenv(variable);
    return given != nullptr ? std::atol(given) : otherwise;
}

void TryPointsOf(const TScenario& scenario, std::size_t most) {
    bool isKilled = false;
    const long calls = RunPoint(scenario, 0, isKilled);
    const auto stride = most == 0 ? 1L : std::max(1L, calls / static_cast<long>(most));
    const long seed = NumberFrom("KILL_POINTS_SEED", std::random_device()() % 1'000'000);
    std::printf("%s: %ld calls, KILL_POINTS_SEED=%ld\n", scenario.name.c_str(), calls, seed);
    std::fflush(stdout);
    const long only = NumberFrom("KILL_POINT", 0);
    long tried = 0;
    // The threads and processes of a run meet in another order in each run, so that a later run may
    // make more calls.
    for (long call = only != 0 ? only : 1 + seed % stride;
         !testing::Test::HasFailure() && (call <= calls || isKilled); call += stride) {
        RunPoint(scenario, call, isKilled);
        tried += isKilled ? 1 : 0;
        if (only != 0)
            break;
    }
    std::printf("%s: killed at %ld of %ld calls\n", scenario.name.c_str(), tried, calls);
    std::fflush(stdout);
}

}  // namespace

static std::vector<std::string> NamesOf(bool areOnAWedgedMutex) {
    std::vector<std::string> names;
    for (const TScenario& scenario : Scenarios()) {
        if (scenario.name.ends_with("OnAWedgedMutex") == areOnAWedgedMutex)
            names.push_back(scenario.name);
    }
    return names;
}

std::vector<std::string> KillScenarios() {
    return NamesOf(false);
}

std::vector<std::string> KillScenariosOnAWedgedMutex() {
    return NamesOf(true);
}

void TryKillPoints(const std::string& name, std::size_t most) {
    WriteInput();
    for (const auto& [variable, value] : WithInterposedSystem())
        setenv(variable.c_str(), value.c_str(), 1);
    setenv("REFUSE_LAUNCHES", fs::absolute(cRefusal).c_str(), 1);
    const std::vector<TScenario> scenarios = Scenarios();
    const auto scenario = std::find_if(scenarios.begin(), scenarios.end(),
                                       [&](const TScenario& it) { return it.name == name; });
    if (scenario->mustInspect)
        Inspectable([&] { TryPointsOf(*scenario, most); });
    else
        TryPointsOf(*scenario, most);
}
