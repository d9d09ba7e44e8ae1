// How a real host begins: keeping clients out while it loads, refusing what it cannot run with,
// warning of traps.

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
#include <memory>
#include <string>
#include <system_error>

#include "AddinLibrary.h"
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

// ---- Clients that are changing the table ------------------------------------------------------

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
        const std::string folder = "/proc/" + std::to_string(host.Id()) + "/fd";
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
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

// ---- What it cannot run with ------------------------------------------------------------------

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

// ---- Traps around the IPC namespace -----------------------------------------------------------

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
