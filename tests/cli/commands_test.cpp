// Runs the command vxsched: history, repair, check, status, completion, the choice of the
// directory, and missing permissions.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "Cli.h"
#include "ForeignStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

// ---- History ----------------------------------------------------------------------------------

// As when its disk is not mounted: the table is there, and out of reach.
TEST_F(Cli, TableBehindALinkToNothingIsUnavailable) {
    const auto refuse = [](const std::vector<std::string>& command) {
        const TToolRun run = RunTool(command);
        EXPECT_NE(run.status, 0) << command[0];
        EXPECT_THAT(run.output + run.error, HasSubstr("unavailable")) << command[0];
    };
    WriteFile("import", R"({"version": 1, "tasks": []})");
    const std::vector<std::vector<std::string>> commands = {
        {"list"},   {"status"}, {"check"},      {"create", "a", "--at", "in 1h", "--", cRecorder},
        {"export"}, {"repair"}, {"pause", "a"}, {"import", "--replace", "import"}};
    fs::create_symlink(fs::absolute("disk-table"), cTable);
    for (const std::vector<std::string>& command : commands)
        refuse(command);
    EXPECT_TRUE(fs::is_symlink(cTable));
    EXPECT_FALSE(fs::exists("disk-table"));
    fs::remove_all("files");
    fs::create_symlink(fs::absolute("disk-files"), "files");
    refuse({"list"});
    refuse({"status"});
    fs::remove("files");
}

TEST_F(Cli, HistoryIsEmptyWithoutAHistoryFile) {
    EXPECT_THAT(Output({"history"}), HasSubstr("\n0 records\n"));
    EXPECT_THAT(Output({"history", "--json"}), HasSubstr("\"runs\": []"));
}

TEST_F(Cli, HistorySkipsAndReportsLinesThatAreNotRecords) {
    WriteShowcase();
    std::string lines = ReadFile(cHistory);
    const std::string other = R"({"version":2,"outcome":"exited","name":"backup"})";
    WriteFile(cHistory, "{\"version\":1,\"outc\n" + other + "\n[]\n\n" + lines +
                            R"({"version":1,"outcome":"incompl)");
    const TToolRun run = RunTool({"history"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, HasSubstr("\n7 records\n"));
    for (const char* number : {"1", "2", "3", "4"})
        EXPECT_THAT(run.error, HasSubstr(std::string("vxsched: line ") + number +
                                         " of ./files/history.jsonl is not a record of a run"));
    EXPECT_THAT(run.error, testing::Not(HasSubstr("line 12")));
    EXPECT_EQ(RunTool({"show", "backup"}).error, "") << "show does not report invalid lines";
}

TEST_F(Cli, HistoryFindsNamesThatAreNotUnicodeAsTheyWereRecorded) {
    WriteFile(cHistory, Run("caf\xef\xbf\xbd", R"("outcome":"exited","due":null,"status":0)"));
    EXPECT_THAT(Output({"history", "caf\xe9"}), HasSubstr("\n1 record\n"));
}

TEST_F(Cli, HistoryThatMayNotBeReadIsStatusFour) {
    fs::create_directory(cHistory);
    ExpectRefused(4, "cannot read ./files/history.jsonl", {"history"});
    fs::remove(cHistory);
    ASSERT_EQ(mkfifo(cHistory, 0644), 0);
    ExpectRefused(4, "cannot read ./files/history.jsonl: it is not a file", {"history"});
}

// ---- Repair, checks and completion ------------------------------------------------------------

// The next write would drop the tasks that are not counted.
TEST_F(Cli, TableWithMoreTasksThanItsCountIsDamagedForEveryone) {
    std::string bytes = BytesOf({Later("first"), Later("second"), Later("third")});
    bytes[0] = 1;
    WriteFile(cTable, bytes);
    ExpectRefused(5, "its count is 1 tasks, but more tasks follow", {"pause", "first"});
    EXPECT_EQ(RunTool({"check"}).status, 5);
    EXPECT_THAT(Output({"repair"}), HasSubstr("wrote a table with 3 tasks"));
    EXPECT_EQ(NamesInTable(), "first second third");
}

// Each command that uses the table, but for a repair and a check of a given file. "first" is a task.
static const std::vector<std::vector<std::string>> cTableCommands = {
    {"list"},
    {"show", "first"},
    {"next"},
    {"check"},
    {"export"},
    {"create", "a", "--at", "in 1h", "--", cRecorder},
    {"create", "first", "--replace", "--even-if-due", "--", cRecorder},
    {"edit", "first", "--every", "6h"},
    {"remove", "first"},
    {"pause", "first"},
    {"resume", "first"},
    {"period", "first", "6h"},
    {"run", "first", "--force"},
    {"import", "--replace", "import"},
    {"repair", "--dry-run"}};

TEST_F(Cli, DamagedFileSurvivesEveryCommandUntilRepair) {
    const std::string damaged =
        BytesOf({Later("first"), Later("second")}).substr(0, BytesOf({Later("first")}).size() + 20);
    WriteFile(cTable, damaged);
    WriteFile("import", R"({"version": 1, "tasks": []})");
    std::vector<std::vector<std::string>> commands = cTableCommands;
    commands.push_back({"status"});
    for (const std::vector<std::string>& command : commands) {
        const TToolRun run = RunTool(command);
        EXPECT_EQ(run.status, command.front() == "repair" ? 0 : 5) << command.front() << run.error;
        EXPECT_EQ(ReadFile(cTable), damaged) << command.front();
        if (!run.error.empty()) {
            EXPECT_THAT(run.error, testing::StartsWith("vxsched: " + fs::absolute(cTable).string() +
                                                       ": the table is damaged"))
                << command.front();
            EXPECT_THAT(run.error, testing::EndsWith("; run vxsched check for details, "
                                                     "vxsched repair to repair it\n"))
                << command.front();
        }
    }
    EXPECT_THAT(RunTool({"list"}).error, HasSubstr("; run vxsched check"));
    const std::string output = Output({"repair"});
    EXPECT_THAT(output, HasSubstr("damaged at offset"));
    EXPECT_THAT(output, HasSubstr("kept \"first\" from the damaged table"));
    EXPECT_EQ(NamesInTable(), "first");
    const std::string quarantined = output.substr(output.find("files/scheduler.dat.damaged"));
    EXPECT_EQ(ReadFile(quarantined.substr(0, quarantined.find('\n'))), damaged);
}

TEST_F(Cli, CheckReportsDamageOnceAndWithTheFile) {
    const std::string intact = BytesOf({Later("first"), Later("second")});
    const std::string damaged = intact.substr(0, intact.size() - 20);
    const std::string problem = "the table is damaged at offset ";
    WriteFile("other", damaged);
    TToolRun run = RunTool({"check", "other"});
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.output, testing::StartsWith("other: " + problem));
    EXPECT_THAT(run.output, testing::Not(HasSubstr("repair"))) << "it repairs no other file";
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1);
    EXPECT_EQ(run.error, "");
    WriteFile(cTable, damaged);
    run = RunTool({"check"});
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.output,
                testing::StartsWith(fs::absolute("files/scheduler.dat: ").string() + problem));
    EXPECT_THAT(run.output, testing::EndsWith("; run vxsched repair\n"));
    EXPECT_EQ(std::count(run.output.begin(), run.output.end(), '\n'), 1);
}

static void ExpectCommandsToRefuseTheTable(const std::string& reason) {
    WriteFile("import", R"({"version": 1, "tasks": []})");
    std::vector<std::vector<std::string>> commands = cTableCommands;
    commands.insert(commands.end(), {{"check", cTable}, {"repair"}});
    for (const std::vector<std::string>& command : commands) {
        const TToolRun run = RunTool(command);
        EXPECT_EQ(run.status, 1) << command.front();
        EXPECT_THAT(run.error, HasSubstr("files/scheduler.dat: " + reason)) << command.front();
        EXPECT_EQ(run.output, "") << command.front();
    }
    EXPECT_THAT(RunTool({"status"}).output, HasSubstr("files/scheduler.dat: " + reason));
    EXPECT_FALSE(fs::exists("files/scheduler.dat.before"));
}

// A command that waited for the other end would keep the store mutex.
TEST_F(Cli, PipeInPlaceOfTheTableIsRefusedByEveryCommand) {
    ASSERT_EQ(mkfifo(cTable, 0644), 0);
    ExpectCommandsToRefuseTheTable(
        "it is not a regular file; move it away, and copy a backup there if there is one");
    EXPECT_TRUE(fs::is_fifo(cTable));
}

TEST_F(Cli, DeviceInPlaceOfTheTableIsRefusedByEveryCommand) {
    fs::create_symlink("/dev/zero", cTable);
    ExpectCommandsToRefuseTheTable(
        "it is not a regular file; move it away, and copy a backup there if there is one");
}

TEST_F(Cli, DirectoryInPlaceOfTheTableIsRefusedByEveryCommand) {
    fs::create_directory(cTable);
    ExpectCommandsToRefuseTheTable("Is a directory");
}

TEST_F(Cli, RepairOfATableThatIsBeingSavedIsRefused) {
    std::ofstream save(cTable, std::ios::binary);
    save << BytesOf({Later("first")}).substr(0, 40) << std::flush;
    ExpectRefused(1, "the table changed during the repair", {"repair"});
    save.close();
    EXPECT_EQ(RunTool({"repair"}).status, 0);
}

TEST_F(Cli, RepairTakesLostTasksFromTheBackup) {
    for (const char* const name : {"a", "b", "c"})
        Output({"create", name, "--at", "in 1h", "--", cRecorder});
    Output({"pause", "a"});
    const std::string intact = ReadFile(cTable);
    WriteFile(cTable, intact.substr(0, intact.size() / 2));
    const std::string output = Output({"repair"});
    EXPECT_THAT(output, HasSubstr("kept \"c\" from files/scheduler.dat.before\n"));
    EXPECT_EQ(ReadFile(cTable), intact);
}

TEST_F(Cli, RepairReportsTheSnapshotByItsPathBelowTheDirectory) {
    const std::string intact = BytesOf({Later("a"), Later("b")});
    fs::create_directory("files/snapshots");
    WriteFile("files/snapshots/scheduler.dat.001700000000-000000", intact);
    WriteFile(cTable, intact.substr(0, BytesOf({Later("a")}).size() + 20));
    EXPECT_THAT(Output({"repair"}),
                HasSubstr("kept \"b\" from "
                          "files/snapshots/scheduler.dat.001700000000-000000\n"));
    EXPECT_EQ(NamesInTable(), "a b");
}

// It is not restored, since it may have been removed on purpose.
TEST_F(Cli, MissingTableWithABackupOfTasksIsReported) {
    WriteTable({Later("a"), Later("b")});
    fs::create_directory("files/snapshots");
    fs::rename(cTable, "files/snapshots/scheduler.dat.001700000000-000000");
    const std::string message =
        "the table is missing, but its latest backup, "
        "./files/snapshots/scheduler.dat.001700000000-000000, has 2 task(s): \"a\", \"b\". If they "
        "were not removed on purpose, stop vxschedd, copy that file over ./files/scheduler.dat, "
        "and "
        "start vxschedd again.";
    EXPECT_EQ(Output({"repair"}), message + '\n');
    EXPECT_EQ(Output({"check"}),
              "missing: " + message + "\n0 tasks, valid except for the findings above\n");
    EXPECT_THAT(RunTool({"status"}).output, HasSubstr("Table      " + message + '\n'));
    EXPECT_FALSE(fs::exists(cTable));
}

TEST_F(Cli, MissingTableWithoutABackupOfTasksIsValid) {
    EXPECT_EQ(Output({"repair"}), "the table is valid; nothing to repair\n");
    EXPECT_EQ(Output({"check"}), "0 tasks, valid\n");
    WriteFile("files/scheduler.dat.before", BytesOf({}));
    EXPECT_EQ(Output({"repair"}), "the table is valid; nothing to repair\n");
}

TEST_F(Cli, StatusReportsThatThereIsNoTableYet) {
    EXPECT_THAT(RunTool({"status"}).output,
                HasSubstr("Table      not there yet; the first task makes it\n"));
    EXPECT_THAT(RunTool({"status", "--json"}).output, HasSubstr("\"tasks\": 0,"));
    WriteTable({});
    EXPECT_THAT(RunTool({"status"}).output, HasSubstr("Table      0 tasks in "));
}

TEST_F(Cli, ChangeOfAHarmfulTableReportsTheFileAndOneRemedy) {
    WriteTable({{"endless", 5, 0, 268435456, cRecorder, "", 1}});
    const TToolRun run = RunTool({"pause", "endless"});
    EXPECT_EQ(run.status, 5);
    EXPECT_THAT(run.error, testing::StartsWith("vxsched: " + fs::absolute(cTable).string() + ": "));
    EXPECT_THAT(run.error, HasSubstr("repair the table first"));
    EXPECT_THAT(run.error, testing::Not(HasSubstr("to repair it")));
}

TEST_F(Cli, CheckReportsProblemsAndTheirOffsets) {
    WriteTable({{"script", std::time(nullptr) + cDay, 0, 24, "/opt/no.sh", "", 0}});
    const TToolRun unsafe = RunTool({"check"});
    EXPECT_EQ(unsafe.status, 0);
    EXPECT_THAT(unsafe.output, HasSubstr("aborting-extension: task \"script\""));
    WriteTable({{"endless", 5, 0, 268435456, cRecorder, "", 1}});
    const TToolRun harmful = RunTool({"check"});
    EXPECT_EQ(harmful.status, 5);
    EXPECT_THAT(harmful.output, HasSubstr("endless: offset 8:"));
    EXPECT_THAT(harmful.output, testing::EndsWith("harmful to load; run vxsched repair\n"));
    EXPECT_THAT(RunTool({"check", cTable}).output, testing::EndsWith("harmful to load\n"))
        << "vxsched repair would not repair a file that is named";
    Output({"repair"});
    EXPECT_EQ(RunTool({"check"}).status, 0);
    WriteFile("other", "abc");
    const TToolRun other = RunTool({"check", "other"});
    EXPECT_EQ(other.status, 5);
    EXPECT_EQ(other.output,
              "other: the table is damaged at offset 0: the file ends in the number of tasks\n");
    ExpectRefused(1, ": there is no such file", {"check", "no such file"});
}

// The names of tasks may contain shell syntax.
TEST_F(Cli, CompletionOffersNamesAndRunsNothing) {
    TRow row = Later("$(touch ran)");
    WriteTable({row, Later("back up"), Later("backup")});
    WriteFile("script", Output({"completion", "bash"}) + R"script(
vxsched() { )script" TOOL_PROGRAM R"script( "$@"; }
COMP_WORDS=(vxsched show ""); COMP_CWORD=2; _vxsched; printf '%s
' "${COMPREPLY[@]}"
COMP_WORDS=(vxsched show ba); _vxsched; printf '%s
' "${COMPREPLY[@]}"
COMP_WORDS=(vxsched re); COMP_CWORD=1; _vxsched; printf '%s
' "${COMPREPLY[@]}"
)script");
    CProgram bash({"/bin/bash", "script"});
    bash.WaitForOutput("never printed");
    EXPECT_EQ(bash.Wait(), 0);
    EXPECT_EQ(bash.Output(), R"(\$\(touch\ ran\)
back\ up
backup
back\ up
backup
remove
resume
repair
)");
    EXPECT_FALSE(fs::exists("ran"));
}

// ---- Directory and permissions ----------------------------------------------------------------

TEST_F(Cli, DirectoryComesFromTheOptionOrTheEnvironment) {
    WriteTable({Later("here")});
    const std::string here = fs::current_path();
    fs::create_directory("elsewhere");
    fs::current_path("elsewhere");
    EXPECT_EQ(Output({"--directory", here, "list", "--names"}), "here\n");
    EXPECT_EQ(Output({"list", "--names", "--directory", ".."}), "here\n");
    EXPECT_EQ(RunTool({"list", "--names"}, {{"VXSCHED_DIRECTORY", here}}).output, "here\n");
    const TToolRun empty = RunTool({"list"});
    EXPECT_EQ(empty.status, 0);
    EXPECT_THAT(empty.error, HasSubstr("no host has run in " + here + "/elsewhere;"));
    ExpectRefused(1, "there is no directory " + here + "/elsewhere/nowhere; set --directory",
                  {"--directory", "nowhere", "list"});
    ExpectRefused(1, "there is no directory " + here + "/elsewhere/files: ",
                  {"create", "a", "--at", "in 1h", "--", cRecorder});
    fs::current_path(here);
}

// A "." does not show that it is another directory than was meant.
TEST_F(Cli, AbsoluteDirectoryIsReported) {
    WriteTable({Later("a")});
    const std::string here = fs::current_path();
    ExpectRefused(6, "no scheduling process runs in " + here + "; start vxschedd there\n",
                  {"wake"});
    for (const char* const directory : {".", "files/..", "./."}) {
        const std::string shown = directory == std::string("files/..") ? here + "/files/.." : here;
        const std::string output = RunTool({"--directory", directory, "status"}).output;
        EXPECT_THAT(output, HasSubstr("Scheduler  none runs in " + shown + "; start vxschedd "));
        EXPECT_THAT(output, HasSubstr("\nFile       " + shown + "/files/scheduler.dat\n"));
    }
    EXPECT_THAT(Output({"show", "a"}), HasSubstr("no scheduling process runs in " + here + ";"));
}

TEST_F(Cli, ReadingCommandsNeverLoadTheAddIn) {
    WriteTable({{"due", 5, 0, 0, cRecorder, "", 0}, {"late", 5, 0, 24, cRecorder, "", 0}});
    const std::string before = ReadFile(cTable);
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"list"},
                                               {"list", "--json"},
                                               {"list", "--names"},
                                               {"show", "due"},
                                               {"next"},
                                               {"status"},
                                               {"check"},
                                               {"export"},
                                               {"repair"}}) {
        const TToolRun run = RunTool(command);
        EXPECT_TRUE(run.status == 0 || command.front() == "status") << run.error;
        EXPECT_EQ(ReadFile(cTable), before) << command.front();
        EXPECT_EQ(CountSemaphoreSets(), 0) << command.front();
    }
}

TEST_F(Cli, NoAccessIsStatusFour) {
    WriteTable({Later("a")});
    fs::permissions(cTable, fs::perms::none);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        const TToolRun run = RunTool({"list"});
        EXPECT_EQ(run.status, 4);
        EXPECT_THAT(run.error, HasSubstr("files/scheduler.dat: Permission denied"));
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}

// The lock that shows the scheduling process is in files/.
TEST_F(Cli, WithoutAccessToTheFilesTheSchedulingProcessIsUnknown) {
    REQUIRE_SUPERUSER();
    WriteTable({Later("a")});
    ASSERT_EQ(chmod("files", 0700), 0);
    ASSERT_EQ(chmod(".", 0777), 0);
    CForkedChild child([] {
        if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        const std::string reason =
            "cannot determine whether a scheduling process runs: cannot enter ./files: Permission "
            "denied; run this as the owner of the store";
        const TToolRun run = RunTool({"status"});
        EXPECT_EQ(run.status, 4);
        EXPECT_THAT(run.output, HasSubstr("Scheduler  " + reason + '\n'));
        const TToolRun json = RunTool({"status", "--json"});
        EXPECT_THAT(json.output, HasSubstr("\"scheduling_process_error\": \"" + reason));
        const TToolRun wake = RunTool({"wake"});
        EXPECT_EQ(wake.status, 4);
        EXPECT_THAT(wake.error, HasSubstr(reason));
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}

// The directory, what is in it, or what it is in may not be entered.
TEST_F(Cli, WithoutAccessToTheDirectoryItsUsersAreReported) {
    REQUIRE_SUPERUSER();
    std::filesystem::create_directories("parent/store/files");
    const std::string store = fs::absolute("parent/store");
    ASSERT_EQ(chmod(".", 0777), 0);
    for (const char* const closed : {"parent/store", "parent/store/files", "parent"}) {
        ASSERT_EQ(chmod(closed, 0700), 0);
        CForkedChild child([&] {
            if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
                return 1;
            const bool isKnown = std::string(closed) != "parent";
            const std::string users =
                isKnown ? "; the directory " + store + " is for user root alone" : "";
            for (const char* const command : {"status", "list", "wake", "check", "history"}) {
                const TToolRun run = RunTool({"--directory", "parent/store", command});
                EXPECT_EQ(run.status, 4) << command << closed;
                EXPECT_THAT(run.output + run.error, HasSubstr("Permission denied"));
                EXPECT_THAT(run.output + run.error, HasSubstr(users)) << command << closed;
                EXPECT_THAT(run.output + run.error, testing::Not(HasSubstr("no directory")));
                EXPECT_THAT(run.output + run.error, testing::Not(HasSubstr("none;")));
            }
            return testing::Test::HasFailure() ? 2 : 42;
        });
        EXPECT_EQ(child.Wait(), 42);
        ASSERT_EQ(chmod(closed, 0755), 0);
    }
}

// What keeps the table from being read is in the JSON as well.
TEST_F(Cli, StatusAsJsonHasWhyTheTableCannotBeRead) {
    EXPECT_THAT(RunTool({"status", "--json"}).output, HasSubstr("\"table_error\": null"));
    std::filesystem::create_directory("files");
    std::filesystem::create_directory(cTable);
    const TToolRun run = RunTool({"status", "--json"});
    EXPECT_THAT(run.output, HasSubstr("\"table_error\": \"cannot read ./files/scheduler.dat: Is a "
                                      "directory\""));
    EXPECT_EQ(run.status, 1);
}

TEST_F(Cli, StatusShowsTheSchedulingProcessAndTheMutex) {
    CHost host;
    WaitUntil([&] {
        const TToolRun run = RunTool({"status"});
        EXPECT_EQ(run.status, 0) << run.error;
        return run.output.find("Last tick  2") != std::string::npos;
    });
    // Its own read of the table counts as the mutex's last use.
    WaitUntil([&] {
        const std::string output = Output({"status"});
        EXPECT_THAT(output, HasSubstr("\nLast tick  "));
        return output.find(
                   "Last tick  not known, since another process has used the mutex after "
                   "it\n") != std::string::npos;
    });
    EXPECT_THAT(Output({"status"}), HasSubstr("process " + std::to_string(host.Id())));
    EXPECT_THAT(Output({"status"}), HasSubstr("Mutex      free"));
    EXPECT_EQ(Output({"wake"}), "woke the scheduling process\n");
    sembuf raise{.sem_num = 0, .sem_op = 1, .sem_flg = 0};
    WaitUntil(WorkerIsIdle);
    semop(semget(cStoreKey, 1, 0), &raise, 1);
    EXPECT_THAT(Output({"status"}), HasSubstr("its value is 2"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(Cli, ShowReportsWhyATaskIsNotRunning) {
    WriteTable({{"missing", std::time(nullptr) + cDay, 0, 24, "/no/such", "", 0},
                {"paused", std::time(nullptr) + cDay, 0, 24, cRecorder, "", 1},
                Later("alone"),
                {"overdue", 5, 0, 24, cRecorder, "", 0}});
    EXPECT_THAT(Output({"show", "missing"}), HasSubstr("there is no program"));
    EXPECT_THAT(Output({"show", "paused"}), HasSubstr("it is paused"));
    EXPECT_THAT(Output({"show", "alone"}), HasSubstr("no scheduling process"));
    EXPECT_THAT(Output({"show", "overdue"}), HasSubstr("State        overdue"));
    CHost host;
    EXPECT_THAT(Output({"show", "alone"}), HasSubstr("it is not due until"));
    EXPECT_EQ(host.Stop(), 0);
}

// Opening it would wait for its other end.
TEST_F(Cli, PipeInPlaceOfTheHostsLockFileKeepsNobodyWaiting) {
    WriteTable({});
    ASSERT_EQ(mkfifo("files/vxschedd.lock", 0600), 0);
    const TToolRun status = RunTool({"status"});
    EXPECT_EQ(status.status, 6) << status.error;
    EXPECT_THAT(status.output, HasSubstr("Scheduler  none"));
}

TEST_F(Cli, ShowOfARemovedTaskPointsToItsHistory) {
    WriteShowcase();
    ExpectRefused(3, "no task \"gone by now\"; it did not run: see vxsched history 'gone by now'\n",
                  {"show", "gone by now"});
    WriteFile(cHistory, Run("once", R"("outcome":"exited","due":null,"status":0)"));
    ExpectRefused(3, "no task \"once\"; it has run: see vxsched history once\n", {"show", "once"});
    fs::remove(cHistory);
    fs::create_directory(cHistory);
    ExpectRefused(3, "no task \"once\"; see vxsched list\n", {"show", "once"});
}

TEST_F(Cli, SchedulingProcessOfAnotherNamespaceIsReported) {
    CHost host;
    CForkedChild child([] {
        if (unshare(CLONE_NEWIPC) != 0)
            return 1;
        EXPECT_THAT(RunTool({"status"}).output, HasSubstr("another IPC namespace"));
        EXPECT_EQ(RunTool({"wake"}).status, 6);
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(host.Stop(), 0);
}
