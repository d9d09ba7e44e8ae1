// A script that needs its own path while it runs.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "Tool.h"

namespace fs = std::filesystem;

// Its task runs once, so the table does not have it any more.
TEST(LaunchedScript, FindsItselfAlthoughTheTableChanges) {
    const std::string script = fs::absolute("script.sh");
    WriteFile(script,
              "#!/bin/sh\ntouch begun\nwhile [ ! -e go ]; do sleep 0.01; done\n"
              "[ -e \"$0\" ] && touch found\ntouch ended\n");
    fs::permissions(script, fs::perms::owner_all);
    CHost host;
    for (const char* const name : {"one", "two"}) {
        EXPECT_EQ(RunTool({"create", name, "--", script}).status, 0);
        WaitUntil([] { return fs::exists("begun"); });
        EXPECT_EQ(
            RunTool({"create", "later", "--replace", "--at", "in 1h", "--", "/bin/true"}).status,
            0);
        WriteFile("go", "");
        WaitUntil([] { return fs::exists("ended"); });
        EXPECT_TRUE(fs::exists("found")) << name << ' ' << host.Output();
        for (const char* const file : {"begun", "go", "found", "ended"})
            fs::remove(file);
    }
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}
