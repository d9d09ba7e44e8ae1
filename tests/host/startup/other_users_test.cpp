// A host, and what users other than its own have prepared for it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

static constexpr int cNoDirectoryStatus = 3;
static constexpr int cNoStoreStatus = 7;

static void BecomeForeignUser() {
    ASSERT_EQ(setgid(cForeignUser), 0);
    ASSERT_EQ(setuid(cForeignUser), 0);
}

// Makes a set as another user; like all sets, it stays.
static void MakeForeignSet(key_t key, int count, int mode) {
    CForkedChild user([&] {
        BecomeForeignUser();
        return semget(key, count, IPC_CREAT | IPC_EXCL | mode) == -1 ? 1 : 42;
    });
    ASSERT_EQ(user.Wait(), 42);
}

static int ModeOf(key_t key) {
    struct semid_ds status {};
    return semctl(semget(key, 0, 0), 0, IPC_STAT, &status) == -1 ? -1 : status.sem_perm.mode & 0777;
}

static unsigned int ModeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 0777U : 0U;
}

static void ExpectRefused(int status, const std::string& message) {
    for (const bool isCheck : {true, false}) {
        CProgram host(
            HostWith(isCheck ? std::vector<std::string>{"--check"} : std::vector<std::string>()));
        EXPECT_EQ(host.Wait(), status) << host.Output();
        EXPECT_THAT(host.Output(), HasSubstr(message));
    }
}

TEST(HostOfTheSuperuser, RefusesAStoreThatSomebodyElseMayChange) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    for (const char* const path : {".", "files", cTable}) {
        ASSERT_EQ(chown(path, cForeignUser, cForeignUser), 0);
        ExpectRefused(cNoDirectoryStatus, "belongs to user");
        ASSERT_EQ(chown(path, 0, 0), 0);
        const unsigned int mode = ModeOf(path);
        ASSERT_EQ(chmod(path, mode | 0020), 0);
        ExpectRefused(cNoDirectoryStatus, "may be written by others");
        ASSERT_EQ(chmod(path, mode), 0);
    }
    GiveStoreTo(cForeignUser);
    ExpectRefused(cNoDirectoryStatus, "belongs to user 65534");
    EXPECT_FALSE(fs::exists("files/vxschedd.lock"));
}

TEST(HostSemaphores, OfAnotherUserAreRefused) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey}) {
        for (const int mode : {0600, 0666}) {
            MakeForeignSet(key, key == cStoreKey ? 1 : 3, mode);
            const int set = semget(key, 0, 0);
            ExpectRefused(cNoStoreStatus, "is a semaphore set of user 65534");
            CProgram host(HostWith({"--check"}));
            host.Wait();
            EXPECT_THAT(host.Output(), HasSubstr("ipcrm -s " + std::to_string(set)));
            ASSERT_EQ(semctl(set, 0, IPC_RMID), 0);
        }
    }
}

TEST(HostSemaphores, ThatAnyUserMayAccessAreRefused) {
    WriteTable({});
    semget(cStoreKey, 1, IPC_CREAT | 0666);
    ExpectRefused(cNoStoreStatus, "any user may access");
}

TEST(HostSemaphores, ThatAreTooFewForAnEventAreRefused) {
    WriteTable({});
    for (const key_t key : {cTaskChangedKey, cStopKey}) {
        const int set = semget(key, 1, IPC_CREAT | 0600);
        ExpectRefused(cNoStoreStatus, "has 1 semaphore(s) instead of 3");
        ExpectRefused(cNoStoreStatus, "ipcrm -s " + std::to_string(set));
        ASSERT_EQ(semctl(set, 0, IPC_RMID), 0);
    }
}

// The superuser's sets are accepted, where the host may use them.
TEST(HostSemaphores, ThatTheHostMayNotUseAreRefused) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    GiveStoreTo(cForeignUser);
    ASSERT_EQ(chmod(".", 0700), 0);
    semget(cTaskChangedKey, 3, IPC_CREAT | 0600);
    CForkedChild owner([] {
        BecomeForeignUser();
        ExpectRefused(cNoStoreStatus, "is a semaphore set of user 0, which this user may not use");
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(owner.Wait(), 42);
}

// One that the superuser's commands made before there was a host, and gave to the store's owner.
TEST(HostSemaphores, OfTheOwnerAreAccepted) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    MakeStoreMutex();
    CHost host;
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostSemaphores, AreForTheOwnerAlone) {
    fs::create_directory("files");
    chmod("files", 0700);
    CHost host;
    for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey})
        EXPECT_EQ(ModeOf(key), 0600);
    semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID);
    WakeWorker();
    WaitUntil(
        [] { return StoreSemaphoreExists() && StoreSemaphoreValue() == 1 && WorkerIsIdle(); });
    EXPECT_EQ(ModeOf(cStoreKey), 0600) << "one that was made anew";
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostFiles, AreForTheOwnerAlone) {
    chmod(".", 0755);
    umask(0);
    CProgram host(HostWith({"--log", "log", "--output", "output"}));
    WaitUntil([] { return LogHolds("log", " as process ") && WorkerIsIdle(); });
    EXPECT_TRUE(LogHolds("log", "any user may enter or read"));
    EXPECT_EQ(RunTool({"create", "a", "--", "/bin/echo", "text"}).status, 0);
    WaitUntil([] { return fs::exists("files/history.jsonl"); });
    EXPECT_EQ(RunTool({"create", "b", "--at", "in 1h", "--", "/bin/true"}).status, 0);
    EXPECT_EQ(RunTool({"pause", "b"}).status, 0);
    WaitUntil([] { return CountIn("files/snapshots") > 1; });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
        const std::string path = entry.path().string();
        if (path != "./files/scheduler.dat" && !entry.is_symlink()) {
            EXPECT_EQ(ModeOf(path) & 0077U, 0U) << path;
        }
    }
}

// A launched program's files are as its owner expects.
TEST(HostFiles, LeaveProgramsTheUmask) {
    umask(022);
    CHost host;
    EXPECT_EQ(RunTool({"create", "a", "--", PROGRAMS "/append-text", "log"}).status, 0);
    WaitUntil([] { return fs::exists("log"); });
    EXPECT_EQ(ModeOf("log"), 0644U);
    EXPECT_EQ(host.Stop(), 0);
}

// Another user who may read the directory locks it, works in it, or both.
TEST(HostImpostor, IsNotTakenForTheHost) {
    REQUIRE_SUPERUSER();
    WriteTable(cThree);
    WriteFile("files/vxschedd.lock", "");
    ASSERT_EQ(chmod(".", 0755), 0);
    ASSERT_EQ(chmod("files/vxschedd.lock", 0644), 0);
    CForkedChild impostor([] {
        BecomeForeignUser();
        const int lock = open("files/vxschedd.lock", O_RDONLY);
        if (flock(lock, LOCK_EX | LOCK_NB) != 0)
            return 1;
        WriteFile("/dev/null", "");
        pause();
        return 0;
    });
    WaitUntil([] {
        const int lock = open("files/vxschedd.lock", O_RDONLY);
        const bool isFree = flock(lock, LOCK_EX | LOCK_NB) == 0;
        close(lock);
        return !isFree;
    });
    const TToolRun status = RunTool({"status"});
    EXPECT_THAT(status.output, testing::Not(HasSubstr(std::to_string(impostor.Id()))));
    impostor.Kill(SIGKILL);
}
