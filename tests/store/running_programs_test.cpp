// Finding the processes of a task's program in /proc.

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxsched/RunningPrograms.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"

using vxsched::FindRunning;
using TIds = std::vector<pid_t>;

static const std::string cProgram = PROGRAMS "/wait-forever";

// A parameter that no other test's program has.
static std::string Own(const std::string& suffix) {
    return std::filesystem::current_path().string() + suffix;
}

TEST(ClientRunning, ProgramIsFoundByItsFileAndItsParameter) {
    const CProgram one({cProgram, Own("one")});
    const CProgram other({cProgram, Own("other")});
    WaitUntil([&] { return !FindRunning(cProgram, Own("one")).empty(); });
    EXPECT_EQ(FindRunning(cProgram, Own("one")), TIds({one.Id()}));
    WaitUntil([&] { return !FindRunning(cProgram, Own("other")).empty(); });
    EXPECT_EQ(FindRunning(cProgram, Own("other")), TIds({other.Id()}));
    EXPECT_EQ(FindRunning(cProgram, Own("on")), TIds());
    EXPECT_EQ(FindRunning(cProgram, ""), TIds());
    EXPECT_EQ(FindRunning(PROGRAMS "/record-launch", Own("one")), TIds());
}

TEST(ClientRunning, LinkToTheProgramIsTheProgram) {
    std::filesystem::create_symlink(cProgram, "link-to-it");
    const CProgram one({std::filesystem::absolute("link-to-it").string(), Own("linked")});
    WaitUntil([&] { return !FindRunning(cProgram, Own("linked")).empty(); });
    EXPECT_EQ(FindRunning("link-to-it", Own("linked")), TIds({one.Id()}));
}

TEST(ClientRunning, ScriptIsFoundAfterItsInterpreter) {
    const std::string script = std::filesystem::absolute("a-script").string();
    WriteFile(script, "#!" + cProgram + "\n");
    chmod(script.c_str(), 0755);
    const CProgram one({script, "parameter"});
    WaitUntil([&] { return !FindRunning(script, "parameter").empty(); });
    EXPECT_EQ(FindRunning(script, "parameter"), TIds({one.Id()}));
    EXPECT_EQ(FindRunning(script, "another"), TIds());
    EXPECT_EQ(FindRunning(script, ""), TIds());
}

// Its arguments are the program's path and parameter.
TEST(ClientRunning, RunnerOfTheProgramIsNotTheProgram) {
    const std::string runner = std::filesystem::absolute("vxrun").string();
    std::filesystem::create_symlink(cProgram, runner);
    const CProgram running({runner, cProgram, Own("run")});
    const CProgram other({std::filesystem::absolute(cProgram).string(), cProgram, Own("run")});
    WaitUntil([&] { return !FindRunning(cProgram, Own("run")).empty(); });
    EXPECT_EQ(FindRunning(cProgram, Own("run")), TIds({other.Id()}));
}

TEST(ClientRunning, ProgramWithMoreArgumentsIsNotATasks) {
    const CProgram one({cProgram, "first", Own("second")});
    const CProgram sentinel({cProgram, Own("sentinel")});
    WaitUntil([&] { return !FindRunning(cProgram, Own("sentinel")).empty(); });
    EXPECT_EQ(FindRunning(cProgram, Own("second")), TIds());
}

TEST(ClientRunning, MissingProgramRunsNowhere) {
    EXPECT_EQ(FindRunning("/no/such/program", "parameter"), TIds());
}

// The system lets whoever launches a program continue before it shows the program's arguments.
TEST(ClientRunning, ProgramIsFoundFromItsLaunchOn) {
    for (int launch = 0; launch < 50; ++launch) {
        std::string program = cProgram;
        std::string parameter = Own("launch " + std::to_string(launch));
        char* const arguments[] = {program.data(), parameter.data(), nullptr};
        pid_t process = 0;
        ASSERT_EQ(posix_spawn(&process, program.c_str(), nullptr, nullptr, arguments, environ), 0);
        EXPECT_EQ(FindRunning(program, parameter), TIds({process}));
        kill(process, SIGKILL);
        waitpid(process, nullptr, 0);
    }
}
