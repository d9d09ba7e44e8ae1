// vxsched of the superuser on a store of another user's: whatever the owner has made of the store,
// the superuser's own files stay unread and unchanged.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "Cli.h"
#include "ForeignStore.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

static const std::vector<std::vector<std::string>> cCommands = {
    {"list"},
    {"show", "a"},
    {"next"},
    {"history"},
    {"status"},
    {"check"},
    {"repair"},
    {"export"},
    {"pause", "a"},
    {"remove", "a"},
    {"import", "input"},
    {"create", "b", "--at", "in 1h", "--", cRecorder},
    {"apply", "tasks.toml"}};

// A file that only the superuser may read, with the bytes of a damaged table.
static void MakeSecret() {
    WriteFile("secret", BytesOf({{"secret", 4'000'000'000, 0, 24, "/bin/true", "", 0}}) + "key");
    ASSERT_EQ(chmod("secret", 0600), 0);
}

TEST_F(Cli, LinkInPlaceOfAForeignTableReachesNoFileOfTheSuperuser) {
    REQUIRE_SUPERUSER();
    MakeSecret();
    WriteFile("input", R"({"version": 1, "tasks": []})");
    WriteFile("tasks.toml", "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    const std::string before = ReadFile("secret");
    GiveStoreTo(cForeignUser);
    fs::create_symlink(fs::absolute("secret"), cTable);
    ASSERT_EQ(lchown(cTable, cForeignUser, cForeignUser), 0);
    for (const std::vector<std::string>& command : cCommands) {
        const TToolRun run = RunTool(command);
        EXPECT_NE(run.status, 0) << command[0];
        EXPECT_THAT(run.error, HasSubstr("is a symbolic link")) << command[0];
    }
    EXPECT_EQ(ReadFile("secret"), before);
    EXPECT_EQ(QuarantinedFile(), "");
}

// The other names in the store are opened as its owner, who may have made links of them as well.
TEST_F(Cli, LinksInAForeignStoreLeadOnlyWhereItsOwnerMayGo) {
    REQUIRE_SUPERUSER();
    MakeSecret();
    const std::string before = ReadFile("secret");
    WriteTable({Later("a")});
    GiveStoreTo(cForeignUser);
    for (const char* const name : {"scheduler.dat.before", "history.jsonl", "snapshots"}) {
        fs::create_symlink(fs::absolute("secret"), std::string("files/") + name);
        ASSERT_EQ(lchown((std::string("files/") + name).c_str(), cForeignUser, cForeignUser), 0);
    }
    EXPECT_THAT(RunTool({"history"}).error, HasSubstr("ermission denied"));
    RunTool({"pause", "a"});
    WriteFile(cTable, "damaged");
    RunTool({"repair"});
    RunTool({"create", "b", "--at", "in 1h", "--", cRecorder});
    EXPECT_EQ(ReadFile("secret"), before);
    EXPECT_EQ(OwnerOf("secret"), 0U);
}

TEST_F(Cli, EverythingInAForeignStoreBelongsToItsOwner) {
    REQUIRE_SUPERUSER();
    WriteTable({Later("a")});
    GiveStoreTo(cForeignUser);
    Output({"create", "b c", "--at", "in 1h", "--", "/usr/bin/free"});
    Output({"pause", "a"});
    WriteFile(cTable, ReadFile(cTable).substr(0, 60));
    EXPECT_EQ(RunTool({"repair"}).status, 0);
    for (const auto& entry : fs::recursive_directory_iterator("files"))
        EXPECT_EQ(OwnerOf(entry.path()), cForeignUser) << entry.path();
}

// A file that the command line names is the caller's.
TEST_F(Cli, ImportIntoAForeignStoreReadsAFileOfTheCaller) {
    REQUIRE_SUPERUSER();
    WriteTable({Later("a")});
    WriteFile("input", Output({"export"}));
    ASSERT_EQ(chmod("input", 0600), 0);
    fs::copy(cTable, "copy");
    ASSERT_EQ(chmod("copy", 0600), 0);
    GiveStoreTo(cForeignUser);
    Output({"remove", "a"});
    Output({"import", "input"});
    EXPECT_EQ(NamesInTable(), "a");
    EXPECT_EQ(OwnerOf(cTable), cForeignUser);
    EXPECT_THAT(Output({"check", "copy"}), HasSubstr("1 task, valid"));
}

TEST_F(Cli, ApplyToAForeignStoreReadsAFileOfTheCaller) {
    REQUIRE_SUPERUSER();
    WriteFile("tasks.toml", "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    ASSERT_EQ(chmod("tasks.toml", 0600), 0);
    GiveStoreTo(cForeignUser);
    Output({"apply", "tasks.toml"});
    for (const auto& entry : fs::recursive_directory_iterator("files"))
        EXPECT_EQ(OwnerOf(entry.path()), cForeignUser) << entry.path();
    WriteFile("tasks.toml", "[tasks.b]\nshell = 'b'\ndaily = '02:30'\n");
    Output({"apply", "--prune", "tasks.toml"});
    EXPECT_EQ(NamesInTable(), "b");
}

TEST_F(Cli, ForeignStoreOfSeveralOwnersIsRefused) {
    REQUIRE_SUPERUSER();
    WriteTable({Later("a")});
    WriteFile("tasks.toml", "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n");
    WriteFile("input", R"({"version": 1, "tasks": []})");
    GiveStoreTo(cForeignUser);
    ASSERT_EQ(chown("files", 0, 0), 0);
    for (const std::vector<std::string>& command : cCommands)
        ExpectRefused(4, "belongs to user", command);
    EXPECT_EQ(RunTool({"run", "a"}).status, 4);
    EXPECT_FALSE(fs::exists("a parameter")) << "what the recorder would write";
}

// ---- run ----------------------------------------------------------------------------------------

static std::string FileOfForeignUser(const std::string& path) {
    WaitUntil([&] { return fs::exists(path); });
    return ReadFile(path);
}

TEST_F(Cli, RunInAForeignStoreHasTheEnvironmentOfALogin) {
    REQUIRE_SUPERUSER();
    WriteTable({{"a", 4'000'000'000, 0, 24, PROGRAMS "/record-session", "first", 0},
                {"b", 4'000'000'000, 0, 24, PROGRAMS "/record-session", "second", 0}});
    GiveStoreTo(cForeignUser);
    const TEnvironment mine = {{"SECRET", "of the superuser"},
                               {"HOME", "/root"},
                               {"USER", "root"},
                               {"LOGNAME", "root"},
                               {"SHELL", "/bin/evil"},
                               {"PATH", "/root/bin"},
                               {"LD_LIBRARY_PATH", "/root"},
                               {"LANG", "C.UTF-8"},
                               {"TZ", "Europe/Berlin"}};
    EXPECT_EQ(RunTool({"run", "a", "--wait", "--force"}, mine).status, 0);
    EXPECT_EQ(RunTool({"run", "b", "--force"}, mine).status, 0);
    for (const char* const file : {"first", "second"}) {
        const std::string recorded = FileOfForeignUser(file);
        EXPECT_THAT(recorded, HasSubstr("\nuser 65534\n"));
        for (const char* const variable : {"\nHOME=", "\nUSER=", "\nLOGNAME=", "\nSHELL=",
                                           "\nPATH=/", "\nLANG=C.UTF-8\n", "\nVXSCHED_TASK="})
            EXPECT_THAT(recorded, HasSubstr(variable)) << file;
        for (const char* const mines : {"SECRET", "root", "evil", "LD_LIBRARY_PATH", "Berlin"})
            EXPECT_THAT(recorded, testing::Not(HasSubstr(mines))) << file;
        EXPECT_THAT(recorded, HasSubstr("\ninput /dev/null\n"));
    }
}

// A program with the superuser's terminal could type commands into it, and what it writes could
// command the terminal.
TEST_F(Cli, RunInAForeignStoreHasNoTerminal) {
    REQUIRE_SUPERUSER();
    WriteTable({{"a", 4'000'000'000, 0, 24, PROGRAMS "/record-session", "first", 0}});
    GiveStoreTo(cForeignUser);
    const TToolRun run = RunToolOnTerminal({"run", "a", "--wait", "--force"}, 80);
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_THAT(ReadFile("first"), HasSubstr("\nterminals 0\nterminal of the session no\n"));
    EXPECT_THAT(run.output, HasSubstr("output \ufffd[1m of the program\n"));
    EXPECT_THAT(run.output, HasSubstr("error of the program\n"));
    EXPECT_THAT(run.output, testing::EndsWith("a exited with status 0\n"));
}

// A program that the launched one leaves behind goes on writing, and is not waited for. One that
// writes without end may overwrite what is kept of the output.
TEST_F(Cli, RunInAForeignStoreDoesNotWaitForWhatItsProgramLeavesRunning) {
    REQUIRE_SUPERUSER();
    WriteTable({{"a", 4'000'000'000, 0, 24, fs::absolute("begin").string(), "", 0}});
    GiveStoreTo(cForeignUser);
    for (const std::string program : {"sleep 1000", "yes"}) {
        WriteFile("begin", "#!/bin/sh\n" + program + " &\necho $! > left\necho done\n");
        ASSERT_EQ(chmod("begin", 0755), 0);
        const TToolRun run = RunToolOnTerminal({"run", "a", "--wait"}, 80);
        EXPECT_EQ(run.status, 0);
        if (program != "yes") {
            EXPECT_THAT(run.output, HasSubstr("done\n"));
        }
        EXPECT_THAT(run.output, testing::EndsWith("a exited with status 0\n"));
        kill(std::stoi(ReadFile("left")), SIGKILL);
    }
}
