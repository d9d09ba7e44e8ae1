// The startup of a real host: keeping clients out while it loads, refusing what it cannot run with,
// warning of pitfalls.

#include <CEvent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

union TSemaphoreArgument {
    int val;
    struct semid_ds* buf;
};

static constexpr char cStopEvent[] = "libVantrixScheduler.so";

static void TakeAllAccess(int id) {
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    argument.buf = &status;
    ASSERT_EQ(semctl(id, 0, IPC_STAT, argument), 0);
    status.sem_perm.mode = 0;
    ASSERT_EQ(semctl(id, 0, IPC_SET, argument), 0);
}

// ---- The command line ---------------------------------------------------------------------------

TEST(HostStartup, NumbersThatAreNoneAreRefused) {
    for (const char* const option :
         {"--lock-timeout", "--launch-pause", "--snapshots", "--output-size", "--history-size"}) {
        for (const char* const number : {"nan", "inf", "-inf", "1e400", "-1", "1e", "9e99GiB",
                                         "99999999999999999999", "99999999999TiB"}) {
            CProgram host(HostWith({option, number, "--check"}));
            EXPECT_EQ(host.Wait(), 2) << option << ' ' << number << host.Output();
            EXPECT_NE(host.Output().find(option), std::string::npos) << host.Output();
        }
    }
}

// ---- Descriptors --------------------------------------------------------------------------------

// The command line of a host that inherits this limit on its descriptors.
static std::vector<std::string> HostWithLimit(const std::string& limit,
                                              const std::vector<std::string>& options) {
    std::vector<std::string> command = HostWith(options);
    command.insert(command.begin(),
                   {"/bin/sh", "-c", "ulimit " + limit + R"( && exec "$@")", "sh"});
    return command;
}

TEST(HostStartup, DescriptorsForItsRecordsAreReserved) {
    WriteTable({{"task", std::time(nullptr), 0, 0, PROGRAMS "/append-text", "launched", 0}});
    CProgram host(HostWithLimit("-S -n 10", {"--run-once"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(host.Output().find("Too many open files"), std::string::npos) << host.Output();
    EXPECT_EQ(Lines("files/history.jsonl").size(), 1U);
    EXPECT_EQ(ReadTable(), TRows());
}

TEST(HostStartup, TooFewDescriptorsAreRefused) {
    for (const char* const option : {"--run-once", "--check"}) {
        CProgram host(HostWithLimit("-n 20", {option}));
        EXPECT_EQ(host.Wait(), 1);
        EXPECT_NE(host.Output().find("the hard limit on open files is 20, and this process needs "),
                  std::string::npos)
            << host.Output();
    }
    EXPECT_FALSE(std::filesystem::exists("files"));
}

// ---- Clients that are changing the table ------------------------------------------------------

TEST(HostStartup, WaitsForAChangeInProgressAndReleasesTheMutexOnce) {
    const int mutex = MakeStoreMutex();
    const std::int64_t past = std::time(nullptr) - 100;
    const TRows table = {{"task", past, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    auto client = std::make_unique<vxsched::CStoreMutexLock>(1h);
    CProgram host(HostWith({}));
    WaitUntil([&] { return semctl(mutex, 0, GETNCNT) == 1; });
    EXPECT_EQ(ReadTable(), table) << "not rescheduled by a load";
    // Other clients that want to load meanwhile are kept out by the writer lock.
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_EQ(flock(files, LOCK_EX | LOCK_NB), -1);
    client.reset();
    EXPECT_TRUE(host.WaitForOutput(" as process ")) << host.Output();
    WaitUntil([] { return WorkerIsIdle() && StoreSemaphoreValue() == 1; });
    EXPECT_EQ(flock(files, LOCK_EX | LOCK_NB), 0);
    close(files);
    EXPECT_GT(ReadTable().at(0).next, past);
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}

TEST(HostStartup, WaitsForTheWriterLock) {
    const std::int64_t past = std::time(nullptr) - 100;
    const TRows table = {{"task", past, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(files, LOCK_EX), 0);
    CProgram host(HostWith({}));
    WaitUntil([&] {
        const std::string descriptors = "/proc/" + std::to_string(host.Id()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(descriptors)) {
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

TEST(HostStartup, IgnoresAHolderThatIsTakenForHungAndWarns) {
    MakeStoreMutex();
    std::filesystem::create_directory("files");
    const int files = open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(files, LOCK_EX), 0);
    vxsched::CStoreMutexLock hung(1h);
    CHost host(HostWith({"--lock-timeout", "0"}));
    EXPECT_EQ(host.CountInOutput("a client has held the writer lock for more than 0 ms"), 1U)
        << host.Output();
    EXPECT_EQ(
        host.CountInOutput("continuing without the store mutex: the store mutex is held, last "
                           "by process " +
                           std::to_string(getpid())),
        1U)
        << host.Output();
    hung.Forget();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
    close(files);
}

// ---- What it cannot run with ------------------------------------------------------------------

TEST(HostStartup, TableThatWouldHangALoadIsRepaired) {
    const TRows table = {{"endless", 1000, 0, 0x10000000, "/bin/program", "", 0},
                         {"valid", 4'000'000'000, 0, 1, "/bin/program", "", 0}};
    WriteTable(table);
    const std::string before = ReadFile(cTable);
    CHost host;
    EXPECT_EQ(host.CountInOutput("altered \"endless\": its period of 268435456 hours"), 1U)
        << host.Output();
    EXPECT_EQ(ReadTable().at(0).period, 1193046U);
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    EXPECT_EQ(ReadTable().at(1), table[1]);
    EXPECT_EQ(ReadFile(QuarantinedFile()), before);
    EXPECT_EQ(host.Stop(), 0);
}

// A direct client's load has set the mutex free that the host holds.
TEST(HostStartup, SaveThatHasOnlyBegunIsNoDamage) {
    WriteTable({Row("first"), Row("second")});
    const std::string bytes = ReadFile(cTable);
    std::ofstream save(cTable, std::ios::binary | std::ios::trunc);
    save << bytes.substr(0, 40) << std::flush;
    CProgram host({HOST_PROGRAM, "--directory", ".", "--run-once"});
    std::this_thread::sleep_for(500ms);
    save << bytes.substr(40);
    save.close();
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_EQ(host.Output().find("repaired"), std::string::npos) << host.Output();
    EXPECT_EQ(ReadFile(cTable), bytes);
}

TEST(HostStartup, UnusualTableIsLoadedAndReported) {
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

TEST(HostStartup, TableThatMayNotBeReadOrWrittenIsRefused) {
    WriteTable({{"task", 4'000'000'000, 0, 1, "/bin/program", "", 0}});
    ASSERT_EQ(chmod(cTable, 0), 0);
    ExpectRefused(3, "files/scheduler.dat: Permission denied. Run vxschedd as a user with");
    ASSERT_EQ(chmod(cTable, 0444), 0);
    ExpectRefused(3, "files/scheduler.dat: Permission denied. Run vxschedd as a user with");
}

TEST(HostStartup, PipeInThePlaceOfTheTableIsRefused) {
    std::filesystem::create_directory("files");
    ASSERT_EQ(mkfifo(cTable, 0644), 0);
    CProgram host({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_NE(host.Output().find("files/scheduler.dat: it is not a regular file"),
              std::string::npos)
        << host.Output();
}

TEST(HostStartup, LinkToNoTableIsRefusedWithItsTarget) {
    std::filesystem::create_directory("files");
    std::filesystem::create_symlink(std::filesystem::absolute("disk-table"), cTable);
    const std::string message = "scheduler.dat is unavailable: it is a link to " +
                                std::filesystem::absolute("disk-table").string() +
                                ", which does not exist";
    for (const char* const option : {"--check", "--run-once"}) {
        CProgram host(HostWith({option}));
        EXPECT_EQ(host.Wait(), 6);
        EXPECT_NE(host.Output().find(message), std::string::npos) << host.Output();
    }
    EXPECT_FALSE(std::filesystem::exists("disk-table"));
    EXPECT_TRUE(std::filesystem::is_symlink(cTable));
}

TEST(HostStartup, LinkToATableIsAsGoodAsIt) {
    WriteTable({{"task", 4'000'000'000, 0, 1, "/bin/program", "", 0}});
    std::filesystem::rename(cTable, "elsewhere");
    std::filesystem::create_symlink("../elsewhere", cTable);
    CHost host;
    EXPECT_EQ(host.CountInOutput("is a link to"), 0U) << host.Output();
    EXPECT_EQ(NamesInTable(), "task");
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStartup, TableLargerThanAnyIsRefused) {
    WriteTable({});
    std::filesystem::resize_file(cTable, 1ULL << 42);
    CProgram host({HOST_PROGRAM, "--directory", "."});
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_NE(host.Output().find("files/scheduler.dat: it has 4398046511104 bytes"),
              std::string::npos)
        << host.Output();
}

TEST(HostStartup, MutexThatMayNotBeUsedIsRefused) {
    TakeAllAccess(MakeStoreMutex());
    ExpectRefused(7, "the store mutex is a semaphore set of user " + std::to_string(geteuid()) +
                         ", which this user may not use");
}

TEST(HostStartup, EventThatMayNotBeUsedIsRefused) {
    const CEvent event(cStopEvent, false);
    TakeAllAccess(TheOnlySet());
    CProgram host(ThisProgramAs("HostWithoutCapabilities"));
    EXPECT_EQ(host.Wait(), 7);
    EXPECT_NE(host.Output().find("the worker's stop event is a semaphore set of user " +
                                 std::to_string(geteuid()) + ", which this user may not use"),
              std::string::npos)
        << host.Output();
}

// ---- Pitfalls of the IPC namespace ------------------------------------------------------------

TEST(HostStartup, RemovedLockFileLetsNoSecondHostIn) {
    CHost first;
    std::filesystem::remove("files/vxschedd.lock");
    CProgram second(HostWith({}));
    EXPECT_EQ(second.Wait(), 4) << second.Output();
    EXPECT_EQ(first.Stop(), 0);
}

TEST(HostStartup, AnotherSchedulingProcessInTheNamespaceIsWarnedOf) {
    std::filesystem::create_directory("other");
    CHost first({HOST_PROGRAM, "--directory", "other"});
    EXPECT_EQ(first.CountInOutput("IPC namespace: the two share"), 0U) << first.Output();
    CHost second;
    EXPECT_EQ(second.CountInOutput("another scheduling process runs in this IPC namespace"), 1U)
        << second.Output();
    // Stopped cleanly, it could consume the signal that stops the second one.
    EXPECT_EQ(first.Stop(SIGKILL), 1000 + SIGKILL);
    EXPECT_EQ(second.Stop(), 0);
}

TEST(HostStartup, ClientInTheNamespaceIsDistinguishedFromAHost) {
    std::filesystem::create_directory("files");
    const CAddinLibrary client;
    CHost host;
    EXPECT_EQ(host.CountInOutput("another scheduling process"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("the add-in is loaded 1 time(s) by other"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostStartup, AloneInTheNamespaceItWarnsOfNobody) {
    CHost host;
    EXPECT_EQ(host.CountInOutput("another scheduling process"), 0U) << host.Output();
    EXPECT_EQ(host.CountInOutput("the add-in is loaded"), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}
