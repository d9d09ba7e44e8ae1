// A store that its owner has opened to a group, and one that is the owner's alone: what a member of
// the group may do, and another user.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Cli.h"
#include "GroupStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

static const std::vector<std::vector<std::string>> cCommands = {
    {"list"},     {"show", "a"},   {"next"},   {"history"},
    {"export"},   {"pause", "a"},  {"repair"}, {"remove", "a"},
    {"run", "a"}, {"import", "-"}, {"wake"},   {"create", "b", "--at", "in 1h", "--", cRecorder}};

static bool HasSnapshotOf(const std::string& task) {
    std::error_code none;
    for (const auto& entry : fs::directory_iterator("files/snapshots", none)) {
        // A temporary file becomes a snapshot by a new name.
        if (entry.path().filename().string().find(".new-") == std::string::npos &&
            ReadFile(entry.path()).find(task) != std::string::npos)
            return true;
    }
    return false;
}

class GroupStore : public Cli {
protected:
    void SetUp() override {
        REQUIRE_SUPERUSER();
        if (!EnterUserDatabase())
            GTEST_SKIP() << "CAP_SYS_ADMIN is missing: this test replaces /etc/passwd and "
                            "/etc/group for itself by mounts";
        WriteTable({Later("a"), Later("paused")});
        for (const char* const path : {".", "files", cTable})
            ASSERT_EQ(chown(path, cKeeper, cKeeper), 0);
        ASSERT_EQ(chmod(".", 0700), 0);
    }

    // As docs/security.md has it.
    static void OpenToGroup() {
        CProgram shell(
            {"/bin/sh", "-c",
             "chgrp -R team . && chmod -R g+rwX . && find . -type d -exec chmod g+s {} +"});
        ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    }

    struct TRun {
        int status;
        std::string output;
    };

    static TRun RunAs(uid_t user, const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {TOOL_PROGRAM};
        command.insert(command.end(), arguments.begin(), arguments.end());
        CProgram tool(As(user, command));
        const int status = tool.Wait();
        return {status, tool.Output()};
    }

    static std::string OutputAs(uid_t user, const std::vector<std::string>& arguments) {
        const TRun run = RunAs(user, arguments);
        EXPECT_EQ(run.status, 0) << testing::PrintToString(arguments) << run.output;
        EXPECT_THAT(run.output, Not(HasSubstr("vxsched: "))) << testing::PrintToString(arguments);
        return run.output;
    }

    static void MakeLinkAs(uid_t user) {
        CProgram shell(As(user, {"/bin/sh", "-c",
                                 "umask 007; mkdir files/programs && "
                                 "ln -s /usr/bin/free files/programs/free-1"}));
        EXPECT_EQ(shell.Wait(), 0) << shell.Output();
    }

    // Whoever has changed the table, it stays the keeper's, open to the group.
    static void ExpectTableIsTheKeepers(const std::string& after) {
        struct stat status {};
        ASSERT_EQ(stat(cTable, &status), 0);
        EXPECT_EQ(status.st_uid, cKeeper) << after;
        EXPECT_EQ(status.st_gid, cStoreGroup) << after;
        EXPECT_EQ(status.st_mode & 0777U, 0664U) << after;
    }

    // Every command that changes the table.
    static void ChangeEverything(uid_t user) {
        const std::string program = cRecorder;
        OutputAs(user, {"create", "b", "--at", "in 2h", "--every", "1d", "--", program});
        OutputAs(user, {"create", "linked", "--at", "in 2h", "--", "/usr/bin/free"});
        OutputAs(user, {"edit", "b", "--at", "in 3h"});
        OutputAs(user, {"pause", "paused"});
        OutputAs(user, {"edit", "paused", "--parameter", "edited"});
        OutputAs(user, {"resume", "paused"});
        OutputAs(user, {"period", "b", "2d"});
        OutputAs(user, {"remove", "linked"});
        ExpectTableIsTheKeepers("changes");
        WriteFile("export", OutputAs(user, {"export"}));
        chmod("export", 0644);
        OutputAs(user, {"remove", "b"});
        OutputAs(user, {"import", "--merge", "export"});
        EXPECT_THAT(NamesInTable(), HasSubstr("b"));
        ExpectTableIsTheKeepers("an import");
    }

    static void ReadEverything(uid_t user) {
        for (const char* const command : {"list", "next", "history", "check", "export"})
            OutputAs(user, {command});
        EXPECT_THAT(OutputAs(user, {"show", "a"}), HasSubstr(cRecorder));
    }

    static void ExpectAllRefused(uid_t user, const std::string& reason) {
        const std::string before = ReadFile(cTable);
        for (const std::vector<std::string>& command : cCommands) {
            std::vector<std::string> whole = {"--directory", fs::current_path()};
            whole.insert(whole.end(), command.begin(), command.end());
            const TRun run = RunAs(user, whole);
            EXPECT_NE(run.status, 0) << testing::PrintToString(command);
            EXPECT_THAT(run.output, Not(HasSubstr("no host has run")));
            EXPECT_THAT(run.output, Not(HasSubstr("filesystem error")));
            EXPECT_THAT(run.output, Not(HasSubstr("ipcrm"))) << "of what the store needs";
            // Another user cannot even find out whether a host runs, and the input is invalid.
            if (command[0] != "wake" && command[0] != "import") {
                EXPECT_EQ(run.status, 4) << testing::PrintToString(command);
                EXPECT_THAT(run.output, HasSubstr(reason)) << testing::PrintToString(command);
            }
        }
        EXPECT_EQ(ReadFile(cTable), before);
    }

    static void RepairAs(uid_t user) {
        WriteFile(cTable, ReadFile(cTable).substr(0, 100));
        const TRun run = RunAs(user, {"repair"});
        EXPECT_EQ(run.status, 0) << run.output;
        EXPECT_THAT(NamesInTable(), HasSubstr("b"));
        ExpectTableIsTheKeepers("a repair");
    }
};

TEST_F(GroupStore, MemberMayReadAndChangeAllOfAnOpenStore) {
    OpenToGroup();
    for (const uid_t user : {cMember, cKeeper, cMember}) {
        ReadEverything(user);
        ChangeEverything(user);
        // Forced, since other tests may run this program as well.
        const TRun run = RunAs(user, {"run", "a", "--force", "--wait"});
        EXPECT_EQ(run.status, 0) << run.output;
        RepairAs(user);
        OutputAs(user, {"remove", "b"});
    }
}

// What a member leaves in the IPC namespace without a host, the host can use.
TEST_F(GroupStore, HostOfTheOwnerRunsAfterAMembersChange) {
    OpenToGroup();
    ChangeEverything(cMember);
    CHost host(As(cKeeper, HostWith({})));
    for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey}) {
        struct semid_ds status {};
        ASSERT_NE(semctl(semget(key, 0, 0), 0, IPC_STAT, &status), -1);
        EXPECT_EQ(status.sem_perm.uid, cKeeper);
        EXPECT_EQ(status.sem_perm.gid, cStoreGroup);
        EXPECT_EQ(status.sem_perm.mode & 0777U, 0660U);
    }
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

TEST_F(GroupStore, MemberMayDoAllOfItNextToAHost) {
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    ReadEverything(cMember);
    ChangeEverything(cMember);
    EXPECT_THAT(OutputAs(cMember, {"status"}), HasSubstr(std::to_string(host.Id())));
    OutputAs(cMember, {"wake"});
    // The host launches it, as the owner; the member reads what the host has recorded.
    OutputAs(cMember, {"create", "due", "--", PROGRAMS "/record-session", "recorded"});
    WaitUntil([] { return ReadFile("files/history.jsonl").find("\"due\",") != std::string::npos; });
    EXPECT_THAT(ReadFile("recorded"), HasSubstr("\nuser 60001\n"));
    EXPECT_THAT(OutputAs(cMember, {"history"}), HasSubstr("due"));
    WaitUntil(WorkerIsIdle);
    OutputAs(cMember, {"remove", "paused"});
    ExpectTableIsTheKeepers("changes next to a host");
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// A member overwrites the table in place, which the guard must not take for a save of one task.
TEST_F(GroupStore, MembersReplacementIsNotTakenForALossByTheHost) {
    WriteTable({Later("a"), Later("b"), Later("c")});
    ASSERT_EQ(chown(cTable, cKeeper, cKeeper), 0);
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    WaitUntil([] { return HasSnapshotOf("c"); });
    OutputAs(cMember, {"edit", "b", "--name", "renamed"});
    WaitUntil([] { return HasSnapshotOf("renamed"); });
    EXPECT_EQ(NamesInTable(), "a renamed c");
    fs::create_directories("exported/files");
    WriteFile(std::string("exported/") + cTable, BytesOf({Later("imported")}));
    WriteFile("export", Output({"--directory", "exported", "export"}));
    chmod("export", 0644);
    OutputAs(cMember, {"import", "--replace", "export"});
    WaitUntil([] { return HasSnapshotOf("imported"); });
    EXPECT_EQ(NamesInTable(), "imported");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("restored"), 0U) << host.Output();
}

// Also several times within one second: the command removes the record of the former launch.
TEST_F(GroupStore, MemberMayHaveATaskLaunchedAgainForTheSameTime) {
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    for (std::size_t launches = 1; launches <= 10; ++launches) {
        OutputAs(cMember, {"create", "again", "--replace", "--at", "now", "--",
                           PROGRAMS "/append-text", "log"});
        WaitUntil([&] {
            const std::string log = ReadFile("log");
            return static_cast<std::size_t>(std::count(log.begin(), log.end(), '\n')) == launches;
        });
    }
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// The semaphores as well, which no command of the owner opens here.
TEST_F(GroupStore, IsOpenedWhileItsHostRuns) {
    CHost host(As(cKeeper, HostWith({})));
    OpenToGroup();
    for (const key_t key : {cStoreKey, cTaskChangedKey, cStopKey}) {
        WaitUntil([&] {
            struct semid_ds status {};
            return semctl(semget(key, 0, 0), 0, IPC_STAT, &status) != -1 &&
                   status.sem_perm.gid == cStoreGroup && (status.sem_perm.mode & 0777U) == 0660;
        });
    }
    OutputAs(cMember, {"pause", "a"});
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// Whoever makes it, with and without a host, owner and members can write it.
TEST_F(GroupStore, TableThatIsMadeAnewIsOpenToTheGroup) {
    OpenToGroup();
    for (const bool hasHost : {false, true}) {
        std::optional<CHost> host;
        if (hasHost)
            host.emplace(As(cKeeper, HostWith({})));
        for (const uid_t maker : {cKeeper, cMember}) {
            fs::remove(cTable);
            OutputAs(maker, {"create", "b", "--at", "in 1h", "--", cRecorder});
            struct stat status {};
            ASSERT_EQ(stat(cTable, &status), 0);
            EXPECT_EQ(status.st_gid, cStoreGroup) << maker << hasHost;
            EXPECT_EQ(status.st_mode & 0777U, 0664U) << maker << hasHost;
            for (const uid_t user : {cMember, cKeeper})
                OutputAs(user, {"pause", "b"});
            OutputAs(maker == cKeeper ? cMember : cKeeper, {"remove", "b"});
        }
        if (host) {
            EXPECT_EQ(host->Stop(), 0) << host->Output();
        }
    }
}

// What vxschedd --check prints for the keeper.
static std::string OutputOfCheck(int status) {
    CProgram check(As(cKeeper, HostWith({"--check"})));
    EXPECT_EQ(check.Wait(), status) << check.Output();
    return check.Output();
}

TEST_F(GroupStore, IsAcceptedByItsHostAsMembersHaveLeftIt) {
    OpenToGroup();
    ASSERT_EQ(chmod(".", 0700), 0);
    EXPECT_THAT(OutputOfCheck(0), Not(HasSubstr("may enter")))
        << "closed by a unit without StateDirectoryMode=2770";
    ASSERT_EQ(chmod(".", 02770), 0);
    MakeLinkAs(cMember);
    ASSERT_EQ(OwnerOf("files/programs"), cMember);
    EXPECT_THAT(OutputOfCheck(0), Not(HasSubstr("may enter")));
}

TEST_F(GroupStore, IsRefusedByItsHostWithWhatOthersMayChange) {
    OpenToGroup();
    const std::string files = fs::canonical("files");
    const std::string repair =
        "run chown -R keeper:team " + files + " && chmod -R o-w " + files + '\n';
    MakeLinkAs(cKeeper);
    ASSERT_EQ(chown("files/programs", cStranger, cStoreGroup), 0);
    EXPECT_THAT(OutputOfCheck(3), HasSubstr("files/programs belongs to user stranger"));
    EXPECT_THAT(OutputOfCheck(3), HasSubstr(repair));
    ASSERT_EQ(chown("files/programs", cMember, cStranger), 0);
    ASSERT_EQ(chmod("files/programs", 0770), 0);
    EXPECT_THAT(OutputOfCheck(3), HasSubstr("files/programs may be written by users"));
    EXPECT_THAT(OutputOfCheck(3), HasSubstr(repair));
}

TEST_F(GroupStore, WhatAHostMakesInAnOpenStoreIsOpenToItsGroup) {
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    OutputAs(cKeeper, {"create", "linked", "--at", "in 2h", "--", "/usr/bin/free"});
    WaitUntil([] { return HasSnapshotOf("linked"); });
    EXPECT_EQ(host.Stop(), 0) << host.Output();
    struct stat status {};
    ASSERT_EQ(stat("files/snapshots", &status), 0);
    EXPECT_EQ(status.st_gid, cStoreGroup);
    EXPECT_EQ(status.st_mode & 07777U, 02770U);
    fs::remove("files/scheduler.dat.before");
    WriteFile(cTable, "damaged");
    EXPECT_EQ(RunAs(cMember, {"repair"}).status, 0);
    EXPECT_THAT(NamesInTable(), HasSubstr("linked")) << "from a snapshot";
}

static time_t UnusedSince(const std::string& link) {
    struct stat status {};
    EXPECT_EQ(lstat(link.c_str(), &status), 0);
    return status.st_mtim.tv_sec;
}

// Only its owner may set its time, so that it is made anew.
TEST_F(GroupStore, LinkOfAnotherMemberIsKeptForADayAfterItIsFoundUnused) {
    OpenToGroup();
    const std::string link = "files/programs/free-1";
    MakeLinkAs(cKeeper);
    const timespec inUse[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, {.tv_sec = 0, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, link.c_str(), inUse, AT_SYMLINK_NOFOLLOW), 0);
    OutputAs(cMember, {"create", "a", "--replace", "--at", "in 2h", "--", "/bin/true"});
    EXPECT_NE(UnusedSince(link), 0);
    EXPECT_EQ(fs::read_symlink(link), "/usr/bin/free");
    EXPECT_EQ(std::distance(fs::directory_iterator("files/programs"), {}), 1);
}

// The host can neither open such a set nor remove it, and must not try for ever.
TEST_F(GroupStore, EventThatAMemberHasRetiredEndsTheHost) {
    OpenToGroup();
    CForkedChild member([] {
        if (setgroups(1, &cStoreGroup) != 0 || setgid(cStoreGroup) != 0 || setuid(cMember) != 0)
            return 1;
        const int set = semget(cStopKey, 3, IPC_CREAT | IPC_EXCL | 0660);
        return semctl(set, 2, SETVAL, 1) == 0 ? 42 : 2;
    });
    ASSERT_EQ(member.Wait(), 42);
    CProgram host(As(cKeeper, HostWith({})));
    EXPECT_EQ(host.Wait(), 7) << host.Output();
    EXPECT_THAT(host.Output(), HasSubstr("Operation not permitted"));
}

// A store in which a host has worked may be opened to a group later.
TEST_F(GroupStore, StoreIsOpenedToAGroupAfterItsHostHasRun) {
    {
        CHost host(As(cKeeper, HostWith({})));
        OutputAs(cKeeper, {"create", "linked", "--at", "in 2h", "--", "/usr/bin/free"});
        OutputAs(cKeeper, {"create", "b", "--", "/bin/true"});
        WaitUntil([] { return fs::exists("files/history.jsonl"); });
        EXPECT_EQ(host.Stop(), 0) << host.Output();
    }
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    ReadEverything(cMember);
    OutputAs(cMember, {"remove", "linked"});
    ChangeEverything(cMember);
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// A task whose program goes on until there is the file "go".
static TRow WaitingJob() {
    WriteFile("script", "echo begun; while [ ! -e go ]; do sleep 0.01; done; echo late; exit 3");
    chmod("script", 0644);
    return {"job", std::time(nullptr) + cHour, 0, 24, "/bin/sh", fs::absolute("script"), 0};
}

// On a file system without it, or in a service that is denied it (RestrictSUIDSGID=).
TEST_F(GroupStore, WhatARunLeavesIsOpenToTheGroupWithoutTheSetGroupIdBit) {
    WriteTable({WaitingJob()});
    fs::create_directories("files/output/job");
    fs::create_directory("files/running");
    CProgram shell({"/bin/sh", "-c", "chown -R keeper:team . && chmod -R g+rwX ."});
    ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    CHost host(As(cKeeper, HostWith({})));
    ASSERT_EQ(chown("files/control", cKeeper, cStoreGroup), 0);
    CProgram run(As(cMember, {TOOL_PROGRAM, "run", "job", "--wait"}));
    EXPECT_TRUE(run.WaitForOutput("begun\n")) << run.Output();
    WriteFile("go", "");
    EXPECT_EQ(run.Wait(), 3);
    EXPECT_THAT(run.Output(), HasSubstr("\nbegun\nlate\nvxsched: job exited with status 3\n"));
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

TEST_F(GroupStore, RunWhoseFileAMemberMayNotReadIsFollowedToItsEnd) {
    WriteTable({WaitingJob()});
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    OutputAs(cMember, {"run", "job"});
    ASSERT_EQ(chmod(fs::directory_iterator("files/running")->path().c_str(), 0600), 0);
    CProgram output(As(cMember, {TOOL_PROGRAM, "output", "job", "--follow"}));
    EXPECT_TRUE(output.WaitForOutput("begun\n"));
    WriteFile("go", "");
    EXPECT_EQ(output.Wait(), 0);
    EXPECT_EQ(output.Output(), "begun\nlate\n");
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// ---- Who may not ---------------------------------------------------------------------------------

TEST_F(GroupStore, PrivateStoreIsForItsOwnerAlone) {
    CHost host(As(cKeeper, HostWith({})));
    for (const uid_t user : {cMember, cStranger})
        ExpectAllRefused(
            user, "; the directory " + fs::current_path().string() + " is for user keeper alone");
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(GroupStore, OpenStoreIsForItsOwnerAndTheGroupAlone) {
    OpenToGroup();
    CHost host(As(cKeeper, HostWith({})));
    ExpectAllRefused(cStranger, " is for user keeper and the group team");
    EXPECT_EQ(host.Stop(), 0);
}
