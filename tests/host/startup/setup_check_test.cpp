// vxschedd --check, the real program: what it reports, without creating or loading anything.

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

TEST(HostCheck, ValidSetUpPassesAndNothingIsCreatedOrLoaded) {
    std::filesystem::create_directory("work");
    CProgram host({HOST_PROGRAM, "--directory", "work", "--check", "--log", "work/log"});
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("ok: work can be used\n"), std::string::npos) << host.Output();
    EXPECT_TRUE(host.Output().ends_with("ok: a host could run\n")) << host.Output();
    EXPECT_TRUE(std::filesystem::is_empty("work"));
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(HostCheck, ValidTableIsLeftAsItIsAndRiskyTasksAreReported) {
    const TRows table = {{"past", 1000, 0, 1, "/bin/true/", "", 0},
                         {"script", 4'000'000'000, 0, 1, "/opt/script.sh", "", 0}};
    WriteTable(table);
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_NE(host.Output().find("warning: task \"script\": the extension \".sh\""),
              std::string::npos)
        << host.Output();
    EXPECT_NE(host.Output().find("ok: the table is valid and has 2 task(s)"), std::string::npos)
        << host.Output();
    EXPECT_EQ(ReadTable(), table);
}

TEST(HostCheck, ShowsNothingThatATerminalWouldObey) {
    WriteTable({{"a\033[1m\nerror: \xc2\x9b", 4'000'000'000, 0, 1, "/no\033program", "", 0}});
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0);
    const std::string replaced = "\xef\xbf\xbd";
    EXPECT_NE(host.Output().find("warning: task \"a" + replaced + "[1m" + replaced +
                                 "error: " + replaced + "\": there is no program \"/no" + replaced),
              std::string::npos)
        << host.Output();
}

static void ExpectReportedByCheckAndRepaired(const std::vector<std::string>& messages) {
    const std::string before = ReadFile(cTable);
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    for (const std::string& message : messages)
        EXPECT_NE(check.Output().find("warning: " + message), std::string::npos) << check.Output();
    EXPECT_TRUE(check.Output().ends_with("ok: a host could run\n")) << check.Output();
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_EQ(QuarantinedFile(), "");
    CHost host;
    EXPECT_NE(ReadFile(cTable), before);
    EXPECT_EQ(host.Stop(), 0);
    std::filesystem::remove(QuarantinedFile());
}

TEST(HostCheck, ReportsWhatAHostWouldRepairAndHow) {
    const TRow valid = {"valid", 4'000'000'000, 0, 1, "/bin/program", "", 0};
    WriteTable({valid});
    const std::string backup = ReadFile(cTable);
    std::filesystem::create_directory("files/snapshots");
    WriteFile("files/snapshots/scheduler.dat.001700000000-000000", backup);
    WriteFile(cTable, "damaged");
    ExpectReportedByCheckAndRepaired(
        {"vxschedd would repair the table; it would then have 1 task(s)",
         "the table is damaged at offset 0",
         "kept \"valid\" from scheduler.dat.001700000000-000000"});
    WriteTable({{"endless", 1000, 0, 0x10000000, "/bin/program", "", 0}, valid});
    ExpectReportedByCheckAndRepaired(
        {"vxschedd would repair the table; it would then have 2 task(s)", "altered \"endless\""});
}

TEST(HostCheck, HolderThatIsTakenForHungIsReported) {
    MakeStoreMutex();
    vxsched::CStoreMutexLock hung(1h);
    CProgram check(HostWith({"--check", "--lock-timeout", "0"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_NE(check.Output().find("warning: the store mutex is held, last by process "),
              std::string::npos)
        << check.Output();
    EXPECT_EQ(StoreSemaphoreValue(), 0);
}

TEST(HostCheck, ReportsWhatHasTheNameOfTheControlSocket) {
    std::filesystem::create_directory("files");
    WriteFile("files/control", "");
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    EXPECT_NE(check.Output().find("warning: ./files/control is not a socket"), std::string::npos)
        << check.Output();
}

TEST(HostCheck, RunningHostIsNotDisturbed) {
    CHost host;
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    WaitUntil([] { return StoreSemaphoreValue() == 1; });
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostCheck, SecondsThatAreNotAcceptedAreReportedWithThoseThatAre) {
    for (const char* const seconds : {"0.5", "3601", "-1", "x", ""}) {
        CProgram host(HostWith({"--check", "--lock-timeout", seconds}));
        EXPECT_EQ(host.Wait(), 2);
        EXPECT_NE(host.Output().find("--lock-timeout: expected whole seconds from 0 to 3600, not"),
                  std::string::npos)
            << host.Output();
    }
}

TEST(HostCheck, EachFaultHasTheExitStatusOfAHost) {
    std::filesystem::create_directory("files");
    std::filesystem::create_directory(cTable);
    WriteFile("note", "no library");
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
    CProgram host(HostWith({}));
    EXPECT_EQ(host.Wait(), 6) << host.Output();
    std::filesystem::remove(cTable);
    EXPECT_EQ(check({"--addin", "./note"}, "note is not an add-in: it is not a shared library"), 5);
    EXPECT_EQ(
        check({"--addin", "./files"}, "files is not an add-in: cannot read the file: Is a dir"), 5);
    EXPECT_EQ(check({"--addin", "./files"}, "ok: there is no table yet\n"), 5);
    EXPECT_EQ(check({"--log", "missing/log"},
                    "missing/log: No such file or directory. Choose another file with --log."),
              1);
    CProgram nowhere({HOST_PROGRAM, "--directory", "nowhere", "--check"});
    EXPECT_EQ(nowhere.Wait(), 3);
    EXPECT_NE(nowhere.Output().find(
                  "error: cannot use the directory nowhere: No such file or directory."),
              std::string::npos)
        << nowhere.Output();
}
