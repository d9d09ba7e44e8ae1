// A host, and what users other than its own have prepared for it.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <utility>
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
using testing::Not;

static constexpr int cNoDirectoryStatus = 3;
static constexpr int cNoStoreStatus = 7;

// A third user, who is neither the superuser nor the owner of the store.
static constexpr uid_t cThirdUser = 65533;

static void Become(uid_t user) {
    ASSERT_EQ(setgid(user), 0);
    ASSERT_EQ(setuid(user), 0);
}

static void BecomeForeignUser() {
    Become(cForeignUser);
}

// Makes a set as another user; like all sets, it stays.
static void MakeForeignSet(key_t key, int count, int mode, uid_t maker = cForeignUser) {
    CForkedChild user([&] {
        Become(maker);
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
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0U;
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

// Before there is anything but the directory, the check and the host judge alike.
TEST(HostOfTheSuperuser, RefusesADirectoryOfAnotherUserWithoutFiles) {
    REQUIRE_SUPERUSER();
    ASSERT_EQ(chown(".", cForeignUser, cForeignUser), 0);
    ExpectRefused(cNoDirectoryStatus, "belongs to user 65534");
    ASSERT_EQ(chown(".", 0, 0), 0);
    ASSERT_EQ(chmod(".", 0777), 0);
    ExpectRefused(cNoDirectoryStatus, "may be written by others");
    EXPECT_FALSE(fs::exists("files"));
}

TEST(HostOfTheSuperuser, FollowsNoLinkOfAnotherUserToADirectory) {
    REQUIRE_SUPERUSER();
    fs::create_directory("store");
    fs::create_directory_symlink("store", "link");
    const auto expect = [](int status) {
        for (const char* const directory : {"link", "link/", "link/.", "link/./", "link/../link"}) {
            CProgram check({HOST_PROGRAM, "--directory", directory, "--check"});
            EXPECT_EQ(check.Wait(), status) << directory << check.Output();
        }
    };
    expect(0);
    ASSERT_EQ(lchown("link", cForeignUser, cForeignUser), 0);
    expect(cNoDirectoryStatus);
    for (const char* const directory : {"link", "link/", "link/."}) {
        CProgram host({HOST_PROGRAM, "--directory", directory});
        EXPECT_EQ(host.Wait(), cNoDirectoryStatus) << directory;
        EXPECT_THAT(host.Output(), HasSubstr("link is a symbolic link of user 65534"));
    }
    EXPECT_TRUE(fs::is_empty("store"));
}

// ---- What is below files/ -----------------------------------------------------------------------

static const std::vector<std::string> cDirectoriesOfFiles = {
    "files/owed", "files/programs", "files/settled", "files/snapshots", "files/started"};

static void MakeDirectoriesOfFiles() {
    WriteTable({});
    for (const std::string& directory : cDirectoriesOfFiles) {
        fs::create_directory(directory);
        ASSERT_EQ(chmod(directory.c_str(), 0700), 0);
        WriteFile(directory + "/file", "");
        ASSERT_EQ(chmod((directory + "/file").c_str(), 0600), 0);
    }
}

static void ExpectAccepted() {
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

// Refused until the command of the message was run.
static void ExpectRefusedAndRepaired(const std::string& message) {
    const std::string files = fs::canonical("files");
    const std::string command = "chown -R root " + files + " && chmod -R go-w " + files;
    ExpectRefused(cNoDirectoryStatus, message);
    ExpectRefused(cNoDirectoryStatus, "then run " + command + '\n');
    CProgram shell({"/bin/sh", "-c", command});
    ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    ExpectAccepted();
}

// What a member of a group to which the store was open has left there.
TEST(HostOfTheSuperuser, RefusesWhatAnotherUserOwnsBelowFiles) {
    REQUIRE_SUPERUSER();
    MakeDirectoriesOfFiles();
    ExpectAccepted();
    std::vector<std::string> paths = {"files/scheduler.dat.before"};
    WriteFile(paths[0], "");
    for (const std::string& directory : cDirectoriesOfFiles)
        paths.insert(paths.end(), {directory, directory + "/file"});
    for (const std::string& path : paths) {
        ASSERT_EQ(chown(path.c_str(), cForeignUser, cForeignUser), 0);
        ExpectRefusedAndRepaired(path + " belongs to user ");
    }
    fs::remove_all("files/owed");
    fs::create_directory_symlink(fs::absolute("files/started"), "files/owed");
    ASSERT_EQ(lchown("files/owed", cForeignUser, cForeignUser), 0);
    ExpectRefusedAndRepaired("files/owed belongs to user ");
}

TEST(HostOfTheSuperuser, RefusesWhatOthersMayWriteBelowFiles) {
    REQUIRE_SUPERUSER();
    MakeDirectoriesOfFiles();
    ASSERT_EQ(chmod(".", 0755), 0);
    ASSERT_EQ(chmod("files", 0755), 0);
    for (const std::string& directory : cDirectoriesOfFiles) {
        for (const unsigned int mode : {0720U, 0702U}) {
            ASSERT_EQ(chmod(directory.c_str(), mode), 0);
            ExpectRefusedAndRepaired(directory + " may be written by ");
        }
        ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
        ASSERT_EQ(chmod((directory + "/file").c_str(), 0660), 0);
        ExpectRefusedAndRepaired(directory + "/file may be written by ");
    }
    ASSERT_EQ(chmod("files/owed/file", 0660), 0);
    ASSERT_EQ(chmod("files/owed", 0700), 0);
    ExpectAccepted();
    fs::rename("files/owed", "owed");
    fs::create_directory_symlink(fs::absolute("owed"), "files/owed");
    ExpectAccepted();
    ASSERT_EQ(chmod("owed", 0777), 0);
    ExpectRefused(cNoDirectoryStatus, "files/owed may be written by ");
}

// The program in a file that a former member has left in files/owed is not launched.
TEST(HostOfTheSuperuser, LaunchesNothingThatAnotherUserOwes) {
    REQUIRE_SUPERUSER();
    WriteTable({{"a", 1'000'000'000, 0, 0, PROGRAMS "/append-text", "launched", 0}});
    fs::create_directory("files/owed");
    fs::rename(cTable, "files/owed/a@1000000000");
    WriteTable({});
    ASSERT_EQ(chown("files/owed/a@1000000000", cForeignUser, cForeignUser), 0);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), cNoDirectoryStatus) << host.Output();
    EXPECT_FALSE(fs::exists("launched"));
}

// An ordinary user's store is judged by the same rule.
TEST(HostOfAnOrdinaryUser, RefusesWhatOthersOwnOrMayWriteBelowFiles) {
    REQUIRE_SUPERUSER();
    MakeDirectoriesOfFiles();
    for (const auto& entry : fs::recursive_directory_iterator("."))
        ASSERT_EQ(lchown(entry.path().c_str(), cForeignUser, cForeignUser), 0);
    ASSERT_EQ(chown(".", cForeignUser, cForeignUser), 0);
    const auto expect = [](int status, const std::string& message) {
        CForkedChild owner([&] {
            BecomeForeignUser();
            for (const char* const option : {"--check", "--run-once"}) {
                CProgram host(HostWith({option}));
                EXPECT_EQ(host.Wait(), status) << host.Output();
                EXPECT_THAT(host.Output(), HasSubstr(message));
            }
            return testing::Test::HasFailure() ? 1 : 42;
        });
        EXPECT_EQ(owner.Wait(), 42);
    };
    expect(0, "");
    ASSERT_EQ(chown("files/owed", 60001, 60001), 0);
    ASSERT_EQ(chmod("files/owed", 0777), 0);
    expect(cNoDirectoryStatus, "files/owed belongs to user 60001");
    ASSERT_EQ(chown("files/owed", cForeignUser, cForeignUser), 0);
    expect(cNoDirectoryStatus, "files/owed may be written by ");
    ASSERT_EQ(chmod("files/owed", 0700), 0);
    ASSERT_EQ(chmod("files", 0777), 0);
    expect(cNoDirectoryStatus, "files may be written by ");
    ASSERT_EQ(chmod("files", 0700), 0);
    ASSERT_EQ(chown("files", 60001, 60001), 0);
    expect(cNoDirectoryStatus, "files belongs to user 60001");
    ASSERT_EQ(chown("files", cForeignUser, cForeignUser), 0);
    WriteFile("files/started/file", "");
    ASSERT_EQ(chown("files/started/file", 0, 0), 0) << "the superuser may do anything anyhow";
    expect(0, "");
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

static std::string ReasonForASetOf(uid_t user, key_t key) {
    return " is a semaphore set of user " + std::to_string(user) +
           ", who could keep the tasks from being launched. Find out what made it, then remove it: "
           "ipcrm -s " +
           std::to_string(semget(key, 0, 0));
}

// Runs a command, and expects it to fail and report a reason.
static void ExpectReported(const std::string& reason, const std::vector<std::string>& command) {
    const TToolRun run = RunTool(command);
    EXPECT_NE(run.status, 0) << command.back();
    EXPECT_THAT(run.output + run.error, HasSubstr(reason)) << command.back();
}

static const std::vector<std::string> cCreate = {"create", "new", "--at",
                                                 "in 1h",  "--",  "/bin/true"};

TEST(HostSemaphores, OfAnotherUserAreReportedByCommandsToo) {
    REQUIRE_SUPERUSER();
    WriteTable(cThree);
    GiveStoreTo(cForeignUser);
    for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey}) {
        MakeForeignSet(key, key == cStoreKey ? 1 : 3, 0600, cThirdUser);
        const std::string reason = ReasonForASetOf(cThirdUser, key);
        CForkedChild owner([&] {
            BecomeForeignUser();
            ExpectRefused(cNoStoreStatus, reason);
            ExpectReported(reason, {"status"});
            // Without a host nobody is woken by the stop event.
            if (key != cStopKey)
                ExpectReported(reason, cCreate);
            if (key == cStoreKey) {
                ExpectReported(reason, {"list"});
                ExpectReported(reason, {"repair"});
                ExpectReported(reason, {"pause", "a"});
            }
            return testing::Test::HasFailure() ? 1 : 42;
        });
        EXPECT_EQ(owner.Wait(), 42);
        ASSERT_EQ(semctl(semget(key, 0, 0), 0, IPC_RMID), 0);
    }
}

TEST(HostSemaphores, OfAnotherUserThatAreHeldAreReportedByCommandsToo) {
    REQUIRE_SUPERUSER();
    WriteTable(cThree);
    MakeForeignSet(cStoreKey, 1, 0666);
    semctl(semget(cStoreKey, 0, 0), 0, SETVAL, 1);
    CForkedChild holder([] {
        BecomeForeignUser();
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
        semop(semget(cStoreKey, 0, 0), &take, 1);
        pause();
        return 0;
    });
    WaitUntil([] { return StoreSemaphoreValue() == 0; });
    const std::string reason = ReasonForASetOf(cForeignUser, cStoreKey);
    ExpectReported(reason, {"--lock-timeout", "0", "list"});
    ExpectReported(reason, {"--lock-timeout", "0", "pause", "a"});
    ExpectReported(reason, {"--lock-timeout", "0", "status"});
    holder.Kill(SIGKILL);
}

TEST(HostSemaphores, ThatAreTooFewForAnEventAreReportedByCommandsToo) {
    WriteTable({});
    for (const key_t key : {cTaskChangedKey, cStopKey}) {
        const int set = semget(key, 1, IPC_CREAT | 0600);
        const std::string reason =
            " has 1 semaphore(s) instead of 3: no host can use it. Find out what made it, then "
            "remove it: ipcrm -s " +
            std::to_string(set);
        ExpectRefused(cNoStoreStatus, reason);
        ExpectReported(reason, {"status"});
        if (key == cTaskChangedKey)
            ExpectReported(reason, cCreate);
        ASSERT_EQ(semctl(set, 0, IPC_RMID), 0);
    }
}

// The superuser's command makes it before there is a host, and gives it to the store's owner.
TEST(HostSemaphores, OfTheOwnerAreAccepted) {
    REQUIRE_SUPERUSER();
    WriteTable({{"a", 4'000'000'000, 0, 24, "/bin/true", "", 0}});
    GiveStoreTo(cForeignUser);
    EXPECT_EQ(RunTool({"pause", "a"}).status, 0);
    struct semid_ds status {};
    ASSERT_NE(semctl(semget(cStoreKey, 0, 0), 0, IPC_STAT, &status), -1);
    EXPECT_EQ(status.sem_perm.uid, cForeignUser);
    CForkedChild owner([] {
        BecomeForeignUser();
        CHost host;
        EXPECT_EQ(host.Stop(), 0) << host.Output();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(owner.Wait(), 42);
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
    CProgram host(HostWith({"--log", "log"}));
    WaitUntil([] { return LogHolds("log", " as process ") && WorkerIsIdle(); });
    EXPECT_TRUE(LogHolds("log", "any user may enter or read"));
    EXPECT_TRUE(LogHolds("log", "run chmod go-rwx " + fs::current_path().string()));
    EXPECT_EQ(RunTool({"create", "a", "--", "/bin/echo", "text"}).status, 0);
    WaitUntil([] { return fs::exists("files/history.jsonl"); });
    EXPECT_EQ(RunTool({"create", "b", "--at", "in 1h", "--", "/bin/true"}).status, 0);
    EXPECT_EQ(RunTool({"pause", "b"}).status, 0);
    WaitUntil([] { return CountIn("files/snapshots") > 1; });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(ModeOf("."), 0755U) << "it is the operator's";
    for (const auto& entry : fs::recursive_directory_iterator(".")) {
        const std::string path = entry.path().string();
        if (path != "./files/scheduler.dat" && !entry.is_symlink()) {
            EXPECT_EQ(ModeOf(path) & 0077U, 0U) << path;
        }
    }
}

// Runs a program in a shell with that umask, since the test's own files are not to have it.
static std::vector<std::string> WithUmask(const std::string& mask,
                                          const std::vector<std::string>& command) {
    std::vector<std::string> whole = {"/bin/sh", "-c", "umask " + mask + "; exec \"$@\"", "sh"};
    whole.insert(whole.end(), command.begin(), command.end());
    return whole;
}

// Who may enter the directory may lock it; who may write in it may exchange `files/`.
TEST(HostDirectory, ThatLetsOthersInIsReported) {
    WriteTable({});
    const std::string here = fs::current_path();
    const auto warning = [](mode_t directory, mode_t files) {
        EXPECT_EQ(chmod(".", directory), 0);
        EXPECT_EQ(chmod("files", files), 0);
        CProgram host(HostWith({"--check"}));
        host.Wait();
        EXPECT_EQ(ModeOf("."), directory) << "it is the operator's";
        EXPECT_EQ(ModeOf("files"), files);
        return host.Output();
    };
    EXPECT_THAT(warning(0700, 0700), Not(HasSubstr("may enter")));
    EXPECT_THAT(warning(0700, 0755), Not(HasSubstr("may enter"))) << "nobody comes to `files`";
    EXPECT_THAT(warning(0755, 0700), HasSubstr("run chmod go-rwx " + here + '\n'));
    EXPECT_THAT(warning(0705, 0700), HasSubstr("run chmod o-rwx " + here + '\n'));
    for (const mode_t mode : {0710U, 0740U, 0750U, 0770U, 02770U}) {
        const std::string output = warning(mode, 0700);
        EXPECT_THAT(output, HasSubstr("warning: the group ")) << mode;
        EXPECT_THAT(output, HasSubstr("run chmod g-rwx " + here)) << mode;
    }
    EXPECT_THAT(warning(0770, 02770), HasSubstr("run chmod g-rwx " + here));
    EXPECT_THAT(warning(02770, 0770), HasSubstr("run chmod g-rwx " + here));
    EXPECT_THAT(warning(02770, 02770), HasSubstr("run chmod g-rwx " + here)) << "the table";
    ASSERT_EQ(chmod(cTable, 0664), 0);
    EXPECT_THAT(warning(02770, 02770), Not(HasSubstr("may enter")));
    EXPECT_THAT(warning(02775, 02770), HasSubstr("run chmod o-rwx " + here + '\n'));
}

TEST(HostDirectory, ThatMayNotBeEnteredIsReportedWithItsUsers) {
    REQUIRE_SUPERUSER();
    fs::create_directories("parent/store/files");
    const std::string store = fs::absolute("parent/store");
    ASSERT_EQ(chmod(".", 0755), 0);
    for (const char* const closed : {"parent/store", "parent/store/files", "parent"}) {
        ASSERT_EQ(chmod(closed, 0700), 0);
        CForkedChild user([&] {
            BecomeForeignUser();
            for (const char* const option : {"--check", "--run-once"}) {
                CProgram host({HOST_PROGRAM, "--directory", "parent/store", option});
                EXPECT_EQ(host.Wait(), cNoDirectoryStatus) << closed;
                EXPECT_THAT(host.Output(), HasSubstr("Permission denied"));
                EXPECT_THAT(host.Output(), Not(HasSubstr("Create it")));
                if (closed != std::string("parent")) {
                    EXPECT_THAT(host.Output(),
                                HasSubstr("; the directory " + store + " is for user root alone."));
                }
            }
            return testing::Test::HasFailure() ? 1 : 42;
        });
        EXPECT_EQ(user.Wait(), 42);
        ASSERT_EQ(chmod(closed, 0755), 0);
    }
}

// A umask that takes from the owner would keep the host from its own files.
TEST(HostFiles, AreTheOwnersWhateverTheUmask) {
    CProgram host(WithUmask("0777", HostWith({"--log", "log"})));
    WaitUntil([] { return LogHolds("log", " as process ") && WorkerIsIdle(); });
    for (const char* const directory : {"files", "files/started"})
        EXPECT_EQ(ModeOf(directory), 0700U) << directory;
    for (const char* const file : {"log", "files/vxschedd.lock", "files/started/alive"})
        EXPECT_EQ(ModeOf(file), 0600U) << file;
    CProgram tool(
        WithUmask("0777", {TOOL_PROGRAM, "create", "b", "--at", "in 1h", "--", "/usr/bin/free"}));
    EXPECT_EQ(tool.Wait(), 0) << tool.Output();
    EXPECT_EQ(ModeOf(cTable), 0644U);
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}

// A launched program's files are as its owner expects: nobody else may write them, and a umask that
// keeps others from more is kept.
TEST(HostFiles, OfProgramsAreForTheOwnerToWrite) {
    const std::vector<std::pair<std::string, unsigned int>> modes = {
        {"022", 0644}, {"0", 0644}, {"0777", 0644}, {"0277", 0644}, {"027", 0640}, {"077", 0600}};
    for (const auto& [mask, mode] : modes) {
        CHost host(WithUmask(mask, HostWith({})));
        const std::string file = "with-" + mask;
        EXPECT_EQ(RunTool({"create", "a", "--", PROGRAMS "/append-text", file}).status, 0);
        WaitUntil([&] { return fs::exists(file); });
        EXPECT_EQ(ModeOf(file), mode) << mask;
        EXPECT_EQ(host.Stop(), 0);
    }
}

// As those of programs that a host launches.
TEST(HostFiles, OfProgramsThatRunWithoutAHostAreForTheOwnerToWrite) {
    const std::vector<std::pair<std::string, unsigned int>> modes = {
        {"0", 0644}, {"0277", 0644}, {"027", 0640}};
    fs::create_directory("files");
    for (const auto& [mask, mode] : modes) {
        const std::string file = "with-" + mask;
        WriteTable({{"a", 4'000'000'000, 0, 24, PROGRAMS "/append-text", file, 0}});
        // Forced, since other tests may run this program as well.
        CProgram run(WithUmask(mask, {TOOL_PROGRAM, "run", "a", "--force", "--wait"}));
        EXPECT_EQ(run.Wait(), 0) << run.Output();
        EXPECT_EQ(ModeOf(file), mode) << mask;
    }
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
    EXPECT_THAT(status.output, Not(HasSubstr(std::to_string(impostor.Id()))));
    impostor.Kill(SIGKILL);
}

// What is expected of `status` while a process that is no host holds the host's lock.
static void ExpectNoHost() {
    const TToolRun status = RunTool({"status"});
    EXPECT_THAT(status.output, HasSubstr("Scheduler  none runs in "));
    EXPECT_EQ(status.status, 6);
}

static void HoldTheLock() {
    const int lock = open("files/vxschedd.lock", O_RDONLY);
    if (flock(lock, LOCK_EX | LOCK_NB) != 0)
        return;
    WriteFile("locked", "");
    pause();
}

// Another user runs it, and it works with the permissions of the superuser, who may use every store.
TEST(HostImpostor, ThatIsASetUserIdProgramIsNotTakenForTheHost) {
    REQUIRE_SUPERUSER();
    WriteTable(cThree);
    WriteFile("files/vxschedd.lock", "");
    GiveStoreTo(cForeignUser);
    CForkedChild impostor([] {
        if (setresuid(cThirdUser, 0, 0) == 0)
            HoldTheLock();
        return 1;
    });
    WaitUntil([] { return fs::exists("locked"); });
    CForkedChild owner([] {
        BecomeForeignUser();  // who may not inspect it
        ExpectNoHost();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(owner.Wait(), 42);
    impostor.Kill(SIGKILL);
}

TEST(HostImpostor, ThatIsAnotherProgramOfTheOwnerIsNotTakenForTheHost) {
    ASSERT_TRUE(DropGainedCapabilities());
    WriteTable(cThree);
    WriteFile("files/vxschedd.lock", "");
    CForkedChild impostor([] {
        HoldTheLock();
        return 1;
    });
    WaitUntil([] { return fs::exists("locked"); });
    ExpectNoHost();
    impostor.Kill(SIGKILL);
}
