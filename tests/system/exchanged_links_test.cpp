// The superuser works on a store of another user's, who exchanges a part of it for a link while that
// is under way: the directory, `files/` or the table. At whichever system call that happens, the
// superuser's own files stay unread and unchanged. Nor does the owner get a terminal of the superuser's.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <csignal>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "TracedProgram.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

static const std::string cSecret = "secret of the superuser";

// A store that only the superuser may read, next to the other user's.
static void MakeOwnStore() {
    fs::create_directories("own/files");
    WriteFile("own/files/scheduler.dat",
              BytesOf({{cSecret, 4'000'000'000, 0, 24, "/bin/true", cSecret, 0}}));
    for (const char* const path : {"own", "own/files"})
        ASSERT_EQ(chmod(path, 0700), 0);
    ASSERT_EQ(chmod("own/files/scheduler.dat", 0600), 0);
}

static void MakeForeignStore() {
    fs::remove_all("store");
    fs::remove_all("moved");
    fs::create_directories("store/files");
    WriteFile("store/files/scheduler.dat",
              BytesOf({{"a", 4'000'000'000, 0, 24, cRecorder, "", 0}}));
    for (const char* const path : {".", "store", "store/files", "store/files/scheduler.dat"})
        ASSERT_EQ(chown(path, cForeignUser, cForeignUser), 0);
}

// Everything below a directory: owner, mode and content of each file.
static std::map<std::string, std::string> StateOf(const std::string& directory) {
    std::map<std::string, std::string> state;
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
        struct stat status {};
        lstat(entry.path().c_str(), &status);
        state[entry.path()] = std::to_string(status.st_uid) + ' ' + std::to_string(status.st_mode) +
                              (entry.is_regular_file() ? ReadFile(entry.path()) : "");
    }
    return state;
}

static void Exchange(const fs::path& part) {
    const fs::path own = fs::absolute(fs::path("own") / part.lexically_relative("store"));
    fs::rename(part, "moved");
    fs::create_symlink(own.lexically_normal(), part);
    static_cast<void>(!lchown(part.c_str(), cForeignUser, cForeignUser));
}

// Has the command work on the store; returns how many calls it makes.
static long RunExchangingAt(long call, const std::string& part,
                            const std::vector<std::string>& command,
                            CTracedProgram::EVictim victim) {
    MakeForeignStore();
    CTracedProgram program(command, {.victim = victim,
                                     .killAt = call,
                                     .meanwhile = [&](pid_t) { Exchange(part); },
                                     .output = "traced.out"});
    program.Wait();
    EXPECT_THAT(program.Output(), Not(HasSubstr(cSecret)))
        << part << ' ' << program.At() << ' ' << testing::PrintToString(command);
    return program.Calls();
}

// How many calls of each command are tried, at equal distances.
static constexpr long cTried = 25;

static void TryCalls(const std::string& part, const std::vector<std::string>& command,
                     CTracedProgram::EVictim victim) {
    const auto before = StateOf("own");
    const long count = RunExchangingAt(0, part, command, victim);
    ASSERT_GT(count, cTried);
    for (long call = 1; call <= count; call += count / cTried) {
        RunExchangingAt(call, part, command, victim);
        ASSERT_EQ(StateOf("own"), before)
            << part << " exchanged at call " << call << ' ' << testing::PrintToString(command);
    }
}

class ExchangedLink : public testing::TestWithParam<const char*> {};

TEST_P(ExchangedLink, LeadsNoCommandToFilesOfTheSuperuser) {
    REQUIRE_SUPERUSER();
    MakeOwnStore();
    const auto tool = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {TOOL_PROGRAM, "--directory", "store"});
        return arguments;
    };
    for (const std::vector<std::string>& command : {tool({"list"}), tool({"repair"})})
        TryCalls(GetParam(), command, CTracedProgram::cProgram);
    TryCalls(GetParam(), tool({"pause", "a"}), CTracedProgram::cProgram);
    TryCalls(GetParam(), tool({"pause", "a"}), CTracedProgram::cItsChild);
}

// A process of the superuser's that uses the client library.
RUN_AGAIN(ClientOfAForeignStore) {
    const vxsched::CStore store({.directory = "store"});
    try {
        for (const auto& task : store.Read().tasks)
            std::printf("%s\n", task.name.c_str());
        vxsched::CChanges changes(store.Options());
        changes.Edit("a", {.name = "b"});
        std::printf("%s\n", changes.Check().front().name.c_str());
        store.ReplaceAll({});
    } catch (const vxsched::CError& error) {
        std::printf("%s\n", error.what());
    }
    return 0;
}

TEST_P(ExchangedLink, LeadsNoUserOfTheLibraryToFilesOfTheSuperuser) {
    REQUIRE_SUPERUSER();
    MakeOwnStore();
    TryCalls(GetParam(), ThisProgramAs("ClientOfAForeignStore"), CTracedProgram::cProgram);
}

INSTANTIATE_TEST_SUITE_P(Of, ExchangedLink,
                         testing::Values("store", "store/files", "store/files/scheduler.dat"),
                         [](const auto& part) {
                             return std::string(fs::path(part.param).stem().string());
                         });

// ---- Terminals ------------------------------------------------------------------------------------

RUN_AGAIN(RunAndWaitInAForeignStore) {
    const vxsched::CStore store({.directory = "store"});
    try {
        store.Run("a", true, true);
    } catch (const vxsched::CError&) {
        return 1;  // the change process was killed
    }
    return 0;
}

struct TChangeProcess {
    bool isTheOwners;
    bool hasTerminal;
};

// What the change process is before one of its system calls.
static TChangeProcess ChangeProcessAt(long call, const std::string& terminal) {
    const auto record = [&](pid_t process) {
        const std::string path = "/proc/" + std::to_string(process);
        const std::string status = ReadFile(path + "/status");
        std::string state =
            status.find("\nUid:\t0\t") == std::string::npos ? "the owner's, " : "the superuser's, ";
        for (const char* const output : {"/fd/1", "/fd/2"})
            state += fs::read_symlink(path + output) == terminal ? "terminal" : "";
        WriteFile("state", state);
        kill(process, SIGKILL);
    };
    MakeForeignStore();
    CTracedProgram program(ThisProgramAs("RunAndWaitInAForeignStore"),
                           {.victim = CTracedProgram::cItsChild,
                            .killAt = call,
                            .meanwhile = record,
                            .output = terminal});
    program.Wait();
    EXPECT_TRUE(program.IsKilled()) << "it makes fewer calls than " << call;
    const std::string state = ReadFile("state");
    return {state.find("the owner's") == 0, state.find("terminal") != std::string::npos};
}

TEST(TerminalOfTheSuperuser, IsClosedBeforeTheChangeProcessBecomesTheOwner) {
    REQUIRE_SUPERUSER();
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string terminal = ptsname(master);
    long superusers = 1;
    long owners = 2;
    while (!ChangeProcessAt(owners, terminal).isTheOwners)
        owners *= 2;
    while (owners - superusers > 1) {
        const long middle = (owners + superusers) / 2;
        (ChangeProcessAt(middle, terminal).isTheOwners ? owners : superusers) = middle;
    }
    EXPECT_FALSE(ChangeProcessAt(owners, terminal).hasTerminal) << "call " << owners;
    close(master);
}
