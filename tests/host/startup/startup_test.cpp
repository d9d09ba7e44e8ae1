// How a real host begins: keeping clients out while it loads, refusing what it cannot run with,
// warning of traps; and the two ways to run that end by themselves, --check and --run-once.

#include <CEvent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include "host/startup/AddInFile.h"
#include "host/startup/NamespaceChecks.h"
#include "store/CStoreMutexLock.h"

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>

#include "AddinLibrary.h"
#include "HostProgram.h"
#include "StoreSemaphore.h"

using namespace std::chrono_literals;

union TSemaphoreArgument {
    int val;
    struct semid_ds* buf;
};

static constexpr char cStopEvent[] = "libVantrixScheduler.so";

// The store mutex as a client of a store without a host has it.
static int MakeStoreMutex() {
    const int id = semget(cStoreKey, 1, IPC_CREAT | 0660);
    TSemaphoreArgument free{.val = 1};
    EXPECT_EQ(semctl(id, 0, SETVAL, free), 0);
    return id;
}

static void TakeAllAccess(int id) {
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    argument.buf = &status;
    ASSERT_EQ(semctl(id, 0, IPC_STAT, argument), 0);
    status.sem_perm.mode = 0;
    ASSERT_EQ(semctl(id, 0, IPC_SET, argument), 0);
}

// ---- Clients that are changing the table
// ----------------------------------------------------------------------------

TEST(HostStart, WaitsForAChangeInProgressAndReleasesTheMutexOnce) {
    const int mutex = MakeStoreMutex();
    const std::int64_t past = std::time(nullptr) - 100;
    const TRows table = {{"task", past, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    auto client = std::make_unique<vxsched::CStoreMutexLock>(1h);
    CProgram host(HostWith({}));
    WaitUntil([&] { return semctl(mutex, 0, GETNCNT) == 1; });
    EXPECT_EQ(ReadTable(), table) << "not moved on by a load";
    // Other clients that want to load meanwhile are kept out by the lock on the directory.
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(flock(files, LOCK_EX | LOCK_NB), -1);
    client.reset();
    EXPECT_TRUE(host.WaitForOutput(" as process ")) << host.Output();
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(flock(files, LOCK_EX | LOCK_NB), 0);
    close(files);
    EXPECT_GT(ReadTable().at(0).next, past);
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}

TEST(HostStart, WaitsForTheLockOnTheDirectory) {
    const std::int64_t past = std::time(nullptr) - 100;
    const TRows table = {{"task", past, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(files, LOCK_EX), 0);
    CProgram host(HostWith({}));
    WaitUntil([&] {
        const std::string directory = "/proc/" + std::to_string(host.Id()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            std::error_code gone;
            if (std::filesystem::read_symlink(entry.path(), gone).filename() == "files")
                return true;
        }
        return false;
    });
    EXPECT_EQ(ReadTable(), table);
    close(files);
    EXPECT_TRUE(host.WaitForOutput(" as process ")) << host.Output();
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}

TEST(HostStart, GoesOverAHolderThatIsTakenForHungAndTells) {
    MakeStoreMutex();
    std::filesystem::create_directory("files");
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(files, LOCK_EX), 0);
    vxsched::CStoreMutexLock hung(1h);
    CHost host(HostWith({"--patience", "0"}));
    EXPECT_EQ(host.CountInOutput("a client has kept the lock on the directory \"files\" for 0 ms"),
              1U)
        << host.Output();
    EXPECT_EQ(host.CountInOutput("going on without the store mutex: the store mutex is held, last "
                                 "by process " +
                                 std::to_string(getpid())),
              1U)
        << host.Output();
    hung.Forget();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
    close(files);
}

static std::string PutAsideFile() {
    for (const auto& entry : std::filesystem::directory_iterator("files")) {
        if (entry.path().filename().string().starts_with("scheduler.dat.damaged-"))
            return entry.path();
    }
    return "";
}

// ---- What it cannot run with
// --------------------------------------------------------------------------------------------

TEST(HostStart, TableThatALoadWouldNotComeBackFromIsMended) {
    const TRows table = {{"endless", 1000, 0, 0x10000000, "/bin/program", "", 0},
                         {"sound", 4'000'000'000, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    const std::string before = ReadFile(cTable);
    CHost host;
    EXPECT_EQ(host.CountInOutput("altered \"endless\": its period of 268435456 hours"), 1U)
        << host.Output();
    EXPECT_EQ(ReadTable().at(0).period, 1193046U);
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    EXPECT_EQ(ReadTable().at(1), table[1]);
    EXPECT_EQ(ReadFile(PutAsideFile()), before);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStart, OddTableIsLoadedAndTold) {
    WriteTable({{"task", 4'000'000'000, 0, 1, "/bin/program", "", 7}});
    CHost host;
    EXPECT_EQ(host.CountInOutput("the pause flag of task 1 is 7"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

RUN_AGAIN(HostWithoutCapabilities) {
    if (!DropCapabilities())
        return 99;
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", arguments.empty() ? nullptr : "--check",
          static_cast<char*>(nullptr));
    return 98;
}

static void ExpectRefused(int status, const std::string& message) {
    CProgram host(ThisProgramAs("HostWithoutCapabilities"));
    EXPECT_EQ(host.Wait(), status);
    EXPECT_NE(host.Output().find(message), std::string::npos) << host.Output();
    CProgram check(ThisProgramAs("HostWithoutCapabilities", {"check"}));
    EXPECT_EQ(check.Wait(), status) << check.Output();
}

TEST(HostStart, TableThatMayNotBeReadOrWrittenIsRefused) {
    WriteTable({{"task", 4'000'000'000, 0, 1, "/bin/program", "", 0}});
    ASSERT_EQ(chmod(cTable, 0), 0);
    ExpectRefused(3, "files/scheduler.dat: Permission denied. Run vxschedd as a user who may");
    ASSERT_EQ(chmod(cTable, 0444), 0);
    ExpectRefused(3, "files/scheduler.dat: Permission denied. Run vxschedd as a user who may");
}

TEST(HostStart, PipeInThePlaceOfTheTableIsRefused) {
    std::filesystem::create_directory("files");
    ASSERT_EQ(mkfifo(cTable, 0644), 0);
    CProgram host({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_NE(host.Output().find("files/scheduler.dat: it is no file"), std::string::npos)
        << host.Output();
}

TEST(HostStart, LinkToNoTableIsToldWithWhereItLeads) {
    std::filesystem::create_directory("files");
    std::filesystem::create_symlink("/no/disk/scheduler.dat", cTable);
    const char* const message =
        "files/scheduler.dat is a link to /no/disk/scheduler.dat, which is not "
        "there";
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    EXPECT_NE(check.Output().find(message), std::string::npos) << check.Output();
    CHost host;
    EXPECT_EQ(host.CountInOutput(message), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStart, LinkToATableIsAsGoodAsIt) {
    WriteTable({{"task", 4'000'000'000, 0, 1, "/bin/program", "", 0}});
    std::filesystem::rename(cTable, "elsewhere");
    std::filesystem::create_symlink("../elsewhere", cTable);
    CHost host;
    EXPECT_EQ(host.CountInOutput("is a link to"), 0U) << host.Output();
    EXPECT_EQ(NamesInTable(), "task");
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStart, TableLargerThanAnyIsRefused) {
    WriteTable({});
    std::filesystem::resize_file(cTable, 1ULL << 42);
    CProgram host({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_NE(host.Output().find("files/scheduler.dat: it has 4398046511104 bytes"),
              std::string::npos)
        << host.Output();
}

TEST(HostStart, MutexThatMayNotBeUsedIsRefused) {
    TakeAllAccess(MakeStoreMutex());
    ExpectRefused(7, "the store mutex: Permission denied; run as the user");
}

TEST(HostStart, EventThatMayNotBeUsedIsRefused) {
    const CEvent event(cStopEvent, false);
    TakeAllAccess(TheOnlySet());
    CProgram host(ThisProgramAs("HostWithoutCapabilities"));
    EXPECT_EQ(host.Wait(), 7);
    EXPECT_NE(host.Output().find("cannot open the event \"libVantrixScheduler.so\": Permission "
                                 "denied. Run vxschedd as the user who owns the semaphores"),
              std::string::npos)
        << host.Output();
}

// ---- Whether a file is an add-in
// --------------------------------------------------------------------------------------------

TEST(AddInFile, IsToldByItsBytesWithoutALoad) {
    EXPECT_EQ(WhyNotAnAddIn(ADDIN_LIBRARY), "");
    EXPECT_EQ(WhyNotAnAddIn(SUPPORT_LIBRARY), "it has no CreateAddIn");
    EXPECT_EQ(WhyNotAnAddIn("/no/such/file"), "cannot read it: No such file or directory");
    WriteFile("text", "no library");
    EXPECT_EQ(WhyNotAnAddIn("text"), "it is not a shared library for x86-64");
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(AddInFile, EntryPointThatIsMissingIsNamed) {
    std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t position = 0; (position = bytes.find("DestroyAddIn", position)) != bytes.npos;)
        bytes[position] = 'd';
    WriteFile("without", bytes);
    EXPECT_EQ(WhyNotAnAddIn("without"), "it has no DestroyAddIn");
    CProgram host(HostWith({"--addin", "./without"}));
    EXPECT_EQ(host.Wait(), 5);
    EXPECT_NE(host.Output().find("without is not an add-in: it has no DestroyAddIn. Name another "
                                 "library with --addin."),
              std::string::npos)
        << host.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0) << "it was not loaded";
}

TEST(AddInFile, CutShortAnywhereIsNone) {
    const std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t size = 0; size < bytes.size(); size += size < 128 ? 1 : bytes.size() / 50) {
        WriteFile("short", bytes.substr(0, size));
        EXPECT_NE(WhyNotAnAddIn("short"), "") << size;
    }
}

// ---- Traps around the IPC namespace
// -----------------------------------------------------------------------------------------

TEST(HostStart, RemovedLockFileLetsNoSecondHostIn) {
    CHost first;
    std::filesystem::remove("files/vxschedd.lock");
    CProgram second(HostWith({}));
    EXPECT_EQ(second.Wait(), 4) << second.Output();
    EXPECT_EQ(first.Stop(), 0);
}

TEST(HostStart, AnotherSchedulingProcessInTheNamespaceIsWarnedOf) {
    std::filesystem::create_directory("other");
    CHost first({HOST_PROGRAM, "--directory", "other"});
    EXPECT_EQ(first.CountInOutput("IPC namespace: the two share"), 0U) << first.Output();
    CHost second;
    EXPECT_EQ(second.CountInOutput("another scheduling process runs in this IPC namespace"), 1U)
        << second.Output();
    // It would take the signal by which the second one is stopped.
    EXPECT_EQ(first.Stop(SIGKILL), 1000 + SIGKILL);
    EXPECT_EQ(second.Stop(), 0);
}

TEST(HostStart, ClientInTheNamespaceIsToldApartFromAHost) {
    std::filesystem::create_directory("files");
    const CAddinLibrary client;
    CHost host;
    EXPECT_EQ(host.CountInOutput("another scheduling process"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("the add-in is loaded 1 time(s) elsewhere"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStart, AloneInTheNamespaceItWarnsOfNobody) {
    CHost host;
    EXPECT_EQ(host.CountInOutput("another scheduling process"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("the add-in is loaded"), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

class RemovalOfSemaphores : public testing::Test {
protected:
    RemovalOfSemaphores() { std::filesystem::create_directories("root/run/systemd/system"); }
    static void Configure(const std::string& file, const std::string& text) {
        const std::filesystem::path path = std::filesystem::path("root") / file;
        std::filesystem::create_directories(path.parent_path());
        WriteFile(path.string(), text);
    }
    static bool IsWarnedOf(uid_t user) { return !WarningOfRemoval(user, "root").empty(); }
    static constexpr uid_t cOrdinary = 54321;
};

TEST_F(RemovalOfSemaphores, ThreatensOrdinaryUsersUnderSystemd) {
    EXPECT_NE(WarningOfRemoval(cOrdinary, "root").find("loginctl enable-linger 54321"),
              std::string::npos);
    EXPECT_TRUE(IsWarnedOf(1000));
    EXPECT_FALSE(IsWarnedOf(999));
    EXPECT_FALSE(IsWarnedOf(0));
    EXPECT_FALSE(IsWarnedOf(65534));
    std::filesystem::remove_all("root/run");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
}

TEST_F(RemovalOfSemaphores, IsNoThreatToUsersThatLinger) {
    Configure("var/lib/systemd/linger/54321", "");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
}

TEST_F(RemovalOfSemaphores, IsSwitchedOffByTheLastSettingOfLogind) {
    Configure("etc/systemd/logind.conf", "[Login]\n#RemoveIPC=yes\nRemoveIPC = no\n");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
    Configure("usr/lib/systemd/logind.conf.d/50-one.conf", "[Login]\nRemoveIPC=yes\n");
    EXPECT_TRUE(IsWarnedOf(cOrdinary));
    Configure("etc/systemd/logind.conf.d/50-one.conf", "[Login]\nRemoveIPC=off\n");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
    Configure("run/systemd/logind.conf.d/60-two.conf", "[Login]\nRemoveIPC=1\n");
    EXPECT_TRUE(IsWarnedOf(cOrdinary));
}

TEST(PrivateNamespace, IsToldByComparisonWithThatOfProcessOne) {
    for (const char* process : {"proc/self/ns", "proc/1/ns"})
        std::filesystem::create_directories(process);
    std::filesystem::create_symlink("ipc:[1]", "proc/self/ns/ipc");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "") << "cannot be told";
    std::filesystem::create_symlink("ipc:[1]", "proc/1/ns/ipc");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "");
    std::filesystem::remove("proc/1/ns/ipc");
    std::filesystem::create_symlink("ipc:[2]", "proc/1/ns/ipc");
    EXPECT_NE(NoticeOfPrivateNamespace("proc").find("PrivateIPC="), std::string::npos);
}

// ---- --check
// ------------------------------------------------------------------------------------------------------

TEST(HostCheck, SoundSetUpIsWellAndNothingIsMadeOrLoaded) {
    std::filesystem::create_directory("work");
    CProgram host({HOST_PROGRAM, "--directory", "work", "--check", "--output", "work/out", "--log",
                   "work/log"});
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("well: work can be worked in\n"), std::string::npos)
        << host.Output();
    EXPECT_TRUE(host.Output().ends_with("well: a host could run\n")) << host.Output();
    EXPECT_TRUE(std::filesystem::is_empty("work"));
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(HostCheck, SoundTableIsLeftAsItIsAndRiskyTasksAreToldOf) {
    const TRows table = {{"past", 1000, 0, 1, "/bin/true/", "", 0},
                         {"script", 4'000'000'000, 0, 1, "/opt/script.sh", "", 0}};
    WriteTable(table);
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("warning: task \"script\": the extension \".sh\""),
              std::string::npos)
        << host.Output();
    EXPECT_NE(host.Output().find("well: the table can be read and holds 2 task(s)"),
              std::string::npos)
        << host.Output();
    EXPECT_EQ(ReadTable(), table);
}

static void ExpectToldByCheckAndMended(const std::vector<std::string>& messages) {
    const std::string before = ReadFile(cTable);
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    for (const std::string& message : messages)
        EXPECT_NE(check.Output().find("warning: " + message), std::string::npos) << check.Output();
    EXPECT_TRUE(check.Output().ends_with("well: a host could run\n")) << check.Output();
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_EQ(PutAsideFile(), "");
    CHost host;
    EXPECT_NE(ReadFile(cTable), before);
    EXPECT_EQ(host.Stop(), 0);
    std::filesystem::remove(PutAsideFile());
}

TEST(HostCheck, TellsWhatAStartWouldMendAndHow) {
    const TRow sound = {"sound", 4'000'000'000, 0, 1, "/bin/program", "", 0};
    WriteTable({sound});
    const std::string copy = ReadFile(cTable);
    std::filesystem::create_directory("files/snapshots");
    WriteFile("files/snapshots/scheduler.dat.001700000000-000000", copy);
    WriteFile(cTable, "damaged");
    ExpectToldByCheckAndMended({"a start would mend the table, with 1 task(s)",
                                "the table is damaged at offset 0",
                                "kept \"sound\" from scheduler.dat.001700000000-000000"});
    WriteTable({{"endless", 1000, 0, 0x10000000, "/bin/program", "", 0}, sound});
    ExpectToldByCheckAndMended(
        {"a start would mend the table, with 2 task(s)", "altered \"endless\""});
}

TEST(HostCheck, HolderThatIsTakenForHungIsToldOf) {
    MakeStoreMutex();
    vxsched::CStoreMutexLock hung(1h);
    CProgram check(HostWith({"--check", "--patience", "0"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_NE(check.Output().find("warning: the store mutex is held, last by process "),
              std::string::npos)
        << check.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

TEST(HostCheck, RunningHostIsNotDisturbed) {
    CHost host;
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostCheck, EachFaultHasTheStatusOfTheStart) {
    std::filesystem::create_directory("files");
    std::filesystem::create_directory(cTable);
    WriteFile("text", "no library");
    const auto check = [](const std::vector<std::string>& options, const char* message) {
        std::vector<std::string> all{"--check"};
        all.insert(all.end(), options.begin(), options.end());
        CProgram host(HostWith(all));
        const int status = host.Wait();
        EXPECT_NE(host.Output().find(message), std::string::npos) << host.Output();
        EXPECT_EQ(host.Output().find("a host could run"), std::string::npos) << host.Output();
        return status;
    };
    EXPECT_EQ(check({}, "error: cannot read ./files/scheduler.dat: Is a directory"), 6);
    CProgram start(HostWith({}));
    EXPECT_EQ(start.Wait(), 6) << start.Output();
    std::filesystem::remove(cTable);
    EXPECT_EQ(check({"--addin", "./text"}, "text is not an add-in: it is not a shared library"), 5);
    EXPECT_EQ(check({"--output", "no folder/out"}, "no folder/out: No such file or directory"), 3);
    EXPECT_EQ(check({"--log", "no folder/log"}, "no folder/log: No such file or directory"), 1);
    CProgram nowhere({HOST_PROGRAM, "--directory", "nowhere", "--check"});
    EXPECT_EQ(nowhere.Wait(), 3);
    EXPECT_NE(nowhere.Output().find("error: cannot work in nowhere: No such file or directory."),
              std::string::npos)
        << nowhere.Output();
}

// ---- --run-once
// ---------------------------------------------------------------------------------------------------

// A task for each second around the start: the load passes over those before it, the tick runs what
// is due then, the others wait.
TEST(HostRunOnce, RunsWhatIsDueWaitsForItAndEnds) {
    const std::int64_t now = std::time(nullptr);
    TRows table;
    for (std::int64_t second = now - 2; second <= now + 20; ++second)
        table.push_back(
            {std::to_string(second), second, 0, 1, PROGRAMS "/end-with", "status 7", 0});
    WriteTable(table);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), 0);
    std::set<std::string> missed;
    std::set<std::string> ran;
    std::ifstream history("files/history.jsonl");
    for (std::string line; std::getline(history, line);) {
        const auto record = nlohmann::json::parse(line);
        if (record.at("outcome") == "missed")
            missed.insert(record.at("name"));
        else if (record.at("outcome") == "exited" && record.at("status") == 7)
            ran.insert(record.at("name"));
    }
    EXPECT_GE(missed.size(), 2U) << host.Output();
    ASSERT_GE(ran.size(), 1U) << host.Output();
    for (const TRow& row : ReadTable()) {
        const bool isMissed = missed.contains(row.name);
        EXPECT_FALSE(isMissed && ran.contains(row.name)) << row.name;
        EXPECT_EQ(ran.contains(row.name), row.last != 0) << row.name;
        EXPECT_EQ(isMissed || ran.contains(row.name), row.next > now + 1000) << row.name;
    }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(HostRunOnce, WithNothingDueItEndsAtOnce) {
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(host.Output().ends_with("vxschedd: stopped\n")) << host.Output();
}

TEST(HostRunOnce, AndCheckExcludeEachOther) {
    CProgram host(HostWith({"--run-once", "--check"}));
    EXPECT_EQ(host.Wait(), 2) << host.Output();
}
