// vxschedd --run-once, the real program: it launches due programs, waits for them and exits.

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

// One task for each second around the host's startup: earlier ones are missed, those that are due
// in that second are launched, later ones wait.
TEST(HostRunOnce, LaunchesDueProgramsWaitsForThemAndExits) {
    const std::int64_t now = std::time(nullptr);
    TRows table;
    for (std::int64_t second = now - 2; second <= now + 20; ++second)
        table.push_back(
            {std::to_string(second), second, 0, 1, PROGRAMS "/end-with", "status 7", 0});
    WriteTable(table);
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), 0);
    std::set<std::string> missed;
    std::set<std::string> ran;
    std::ifstream history("files/history.jsonl");
    for (std::string line; std::getline(history, line);) {
        const auto record = nlohmann::json::parse(line);
        if (record.at("outcome") == "missed")
            missed.insert(record.at("name"));
        else if (record.at("outcome") == "exited" && record.at("status") == 7)
            ran.insert(record.at("name"));
    }
    EXPECT_GE(missed.size(), 2U) << host.Output();
    ASSERT_GE(ran.size(), 1U) << host.Output();
    for (const TRow& row : ReadTable()) {
        const bool isMissed = missed.contains(row.name);
        EXPECT_FALSE(isMissed && ran.contains(row.name)) << row.name;
        EXPECT_EQ(ran.contains(row.name), row.last != 0) << row.name;
        EXPECT_EQ(isMissed || ran.contains(row.name), row.next > now + 1000) << row.name;
    }
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(HostRunOnce, WithNothingDueItEndsAtOnce) {
    CProgram host(HostWith({"--run-once"}));
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(host.Output().ends_with("vxschedd: stopped\n")) << host.Output();
}

// After its tick the host only waits: changes need not wait for that.
TEST(HostRunOnce, ClientsMakeChangesWhileItWaitsForPrograms) {
    {
        CHost killed;
        killed.Kill(SIGKILL);
        killed.Wait();
    }
    WriteTable({{"waits", std::time(nullptr), 0, 24, PROGRAMS "/wait-for-it", "it", 0}});
    CProgram host(HostWith({"--run-once"}));
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    const TToolRun run = RunTool({"pause", "waits"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_FALSE(HasEnded(host.Id()));
    WriteFile("it", "");
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
}

TEST(HostRunOnce, AndCheckExcludeEachOther) {
    CProgram host(HostWith({"--run-once", "--check"}));
    EXPECT_EQ(host.Wait(), 2) << host.Output();
}
