// vxsched where /proc/self/exe cannot be read, from which it finds the programs of its installation.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "Cli.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"

using testing::HasSubstr;

// Hides /proc, and becomes the command.
RUN_AGAIN(ToolWithoutProc) {
    if (!HideProc())
        return 99;
    execl(TOOL_PROGRAM, TOOL_PROGRAM, "create", "b", "--at", "in 1h", "--", cRecorder.c_str(), "x",
          static_cast<char*>(nullptr));
    return 98;
}

// The program of that name in the present directory is anybody's.
TEST_F(Cli, WithoutProcNoHelperOfThePresentDirectoryIsStarted) {
    WriteTable({Later("a")});
    for (const char* const directory :
         {"lib/vantrix", "lib64/vantrix", "lib/x86_64-linux-gnu/vantrix"}) {
        std::filesystem::create_directories(directory);
        const std::string helper = std::string(directory) + "/vxsched-change";
        WriteFile(helper, "#!/bin/sh\n: > started\n");
        std::filesystem::permissions(helper, std::filesystem::perms::owner_all);
    }
    CProgram tool(ThisProgramAs("ToolWithoutProc"));
    const int status = tool.Wait();
    if (status == 99)
        GTEST_SKIP() << cCannotMount;
    EXPECT_EQ(status, 1) << tool.Output();
    EXPECT_THAT(tool.Output(), HasSubstr("cannot read /proc/self/exe"));
    EXPECT_FALSE(std::filesystem::exists("started"));
}
