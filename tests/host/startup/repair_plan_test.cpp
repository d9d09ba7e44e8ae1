// What the host reports about an empty table whose latest backup has tasks.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"

namespace fs = std::filesystem;

static constexpr char cEmptyTable[] = "the table is empty, but its latest backup, ";

// An empty table is what the add-in makes of a damaged one.
TEST(HostWithAnEmptyTable, ReportsTheTasksOfTheBackupAndItsPath) {
    WriteTable(cThree);
    {
        CHost host;
        EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
        EXPECT_EQ(host.Stop(), 0);
    }
    WriteFile(cTable, std::string(8, '\0'));
    std::string backup;
    for (const auto& entry : fs::directory_iterator("files/snapshots"))
        backup = entry.path().string();
    const std::string message =
        cEmptyTable + std::string("./") + backup +
        ", has 3 task(s): \"first\", \"second\", \"third\". If they were not";
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 0);
    EXPECT_NE(check.Output().find("warning: " + message), std::string::npos) << check.Output();
    {
        CHost host;
        EXPECT_EQ(host.CountInOutput(message), 1U) << host.Output();
        EXPECT_EQ(ReadTable(), TRows()) << "it may be intended";
        EXPECT_EQ(host.Stop(), 0);
    }
    // What the message says to do.
    fs::copy_file(backup, cTable, fs::copy_options::overwrite_existing);
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(ReadTable(), cThree);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostWithAnEmptyTable, ReportsItOnce) {
    WriteTable(cThree);
    EXPECT_EQ(CHost().Stop(), 0);
    WriteTable({});
    EXPECT_EQ(CHost().Stop(), 0);
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostWithAnEmptyTable, MissesNoTaskThatRanAndIsGone) {
    WriteTable({{"once", 1000, 0, 0, "/bin/program", "", 0}});
    fs::create_directories("files/snapshots");
    fs::rename(cTable, "files/snapshots/scheduler.dat.000000000900-000000");
    WriteTable({});
    CHost host;
    EXPECT_EQ(host.CountInOutput(cEmptyTable), 0U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}
