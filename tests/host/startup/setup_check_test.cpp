// vxschedd --check, the real program: what it finds well or wrong without making or loading anything.

#include <gtest/gtest.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

TEST(HostCheck, SoundSetUpIsWellAndNothingIsMadeOrLoaded) {
    std::filesystem::create_directory("work");
    CProgram host({HOST_PROGRAM, "--directory", "work", "--check", "--output", "work/out", "--log",
                   "work/log"});
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("well: work can be worked in\n"), std::string::npos)
        << host.Output();
    EXPECT_TRUE(host.Output().ends_with("well: a host could run\n")) << host.Output();
    EXPECT_TRUE(std::filesystem::is_empty("work"));
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(HostCheck, SoundTableIsLeftAsItIsAndRiskyTasksAreToldOf) {
    const TRows table = {{"past", 1000, 0, 1, "/bin/true/", "", 0},
                         {"script", 4'000'000'000, 0, 1, "/opt/script.sh", "", 0}};
    WriteTable(table);
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("warning: task \"script\": the extension \".sh\""),
              std::string::npos)
        << host.Output();
    EXPECT_NE(host.Output().find("well: the table can be read and holds 2 task(s)"),
              std::string::npos)
        << host.Output();
    EXPECT_EQ(ReadTable(), table);
}

static void ExpectToldByCheckAndMended(const std::vector<std::string>& messages) {
    const std::string before = ReadFile(cTable);
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    for (const std::string& message : messages)
        EXPECT_NE(check.Output().find("warning: " + message), std::string::npos) << check.Output();
    EXPECT_TRUE(check.Output().ends_with("well: a host could run\n")) << check.Output();
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_EQ(PutAsideFile(), "");
    CHost host;
    EXPECT_NE(ReadFile(cTable), before);
    EXPECT_EQ(host.Stop(), 0);
    std::filesystem::remove(PutAsideFile());
}

TEST(HostCheck, TellsWhatAStartWouldMendAndHow) {
    const TRow sound = {"sound", 4'000'000'000, 0, 1, "/bin/program", "", 0};
    WriteTable({sound});
    const std::string copy = ReadFile(cTable);
    std::filesystem::create_directory("files/snapshots");
    WriteFile("files/snapshots/scheduler.dat.001700000000-000000", copy);
    WriteFile(cTable, "damaged");
    ExpectToldByCheckAndMended({"a start would mend the table, with 1 task(s)",
                                "the table is damaged at offset 0",
                                "kept \"sound\" from scheduler.dat.001700000000-000000"});
    WriteTable({{"endless", 1000, 0, 0x10000000, "/bin/program", "", 0}, sound});
    ExpectToldByCheckAndMended(
        {"a start would mend the table, with 2 task(s)", "altered \"endless\""});
}

TEST(HostCheck, HolderThatIsTakenForHungIsToldOf) {
    MakeStoreMutex();
    vxsched::CStoreMutexLock hung(1h);
    CProgram check(HostWith({"--check", "--patience", "0"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_NE(check.Output().find("warning: the store mutex is held, last by process "),
              std::string::npos)
        << check.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

TEST(HostCheck, RunningHostIsNotDisturbed) {
    CHost host;
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostCheck, EachFaultHasTheStatusOfTheStart) {
    std::filesystem::create_directory("files");
    std::filesystem::create_directory(cTable);
    WriteFile("text", "no library");
    const auto check = [](const std::vector<std::string>& options, const char* message) {
        std::vector<std::string> all{"--check"};
        all.insert(all.end(), options.begin(), options.end());
        CProgram host(HostWith(all));
        const int status = host.Wait();
        EXPECT_NE(host.Output().find(message), std::string::npos) << host.Output();
        EXPECT_EQ(host.Output().find("a host could run"), std::string::npos) << host.Output();
        return status;
    };
    EXPECT_EQ(check({}, "error: cannot read ./files/scheduler.dat: Is a directory"), 6);
    CProgram start(HostWith({}));
    EXPECT_EQ(start.Wait(), 6) << start.Output();
    std::filesystem::remove(cTable);
    EXPECT_EQ(check({"--addin", "./text"}, "text is not an add-in: it is not a shared library"), 5);
    EXPECT_EQ(check({"--output", "no folder/out"}, "no folder/out: No such file or directory"), 3);
    EXPECT_EQ(check({"--log", "no folder/log"}, "no folder/log: No such file or directory"), 1);
    CProgram nowhere({HOST_PROGRAM, "--directory", "nowhere", "--check"});
    EXPECT_EQ(nowhere.Wait(), 3);
    EXPECT_NE(nowhere.Output().find("error: cannot work in nowhere: No such file or directory."),
              std::string::npos)
        << nowhere.Output();
}
