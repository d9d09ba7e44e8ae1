// history --failed: which records count as failed.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <string>

#include "Cli.h"

using testing::HasSubstr;

// Any end but success, and a due time that was not caught up on. What may have been a success, or goes
// on, is no failure, nor is what a later host records in a way that is not known here.
TEST_F(Cli, FailedRunsAreThoseThatDidNotSucceed) {
    const struct {
        const char* name;
        const char* fields;
        bool hasFailed;
    } cRuns[] = {
        {"success", R"("outcome":"exited","status":0)", false},
        {"status", R"("outcome":"exited","status":1)", true},
        {"signal", R"("outcome":"killed","signal":15)", true},
        {"not started", R"("outcome":"not started","error":"No such file or directory")", true},
        {"runner died", R"("outcome":"runner died")", true},
        {"rescheduled", R"("outcome":"missed","task":"rescheduled")", true},
        {"removed", R"("outcome":"missed","task":"removed")", true},
        {"launch unknown", R"("outcome":"launch unknown","task":"rescheduled")", true},
        {"launch unknown once", R"("outcome":"launch unknown","task":"removed")", true},
        {"left running", R"("outcome":"left running")", false},
        {"unknown", R"("outcome":"unknown")", false},
        {"good status", R"("outcome":"exited","status":3,"success":true)", false},
        {"bad status", R"("outcome":"exited","status":0,"success":false)", true},
        {"good, but late", R"("outcome":"exited","status":0,"success":true,"timeLimit":60)", true},
        {"late", R"("outcome":"exited","status":0,"timeLimit":60)", true},
        {"skipped", R"("outcome":"skipped","underWay":"20261122T120000.000Z-1")", false},
        {"later", R"("outcome":"postponed")", false},
    };
    std::string lines;
    std::string wanted;
    for (const auto& run : cRuns) {
        lines += Run(run.name, run.fields);
        if (run.hasFailed)
            wanted += std::string(run.name) + '\n';
    }
    WriteFile(cHistory, lines);
    std::string listed;
    const auto json = nlohmann::json::parse(Output({"history", "--failed", "--json"}));
    for (const auto& run : json.at("runs"))
        listed += run.at("name").get<std::string>() + '\n';
    EXPECT_EQ(listed, wanted);
}

TEST_F(Cli, HistoryTellsOfATimeLimitAndOfTheRunBecauseOfWhichOneIsSkipped) {
    WriteFile(cHistory, Run("one", R"("outcome":"killed","signal":15,"timeLimit":7200)") +
                            Run("two", R"("outcome":"exited","status":0,"timeLimit":5)") +
                            Run("three", R"("outcome":"skipped","underWay":"an id")"));
    const std::string history = Output({"history"});
    EXPECT_THAT(history, HasSubstr("terminated after its time limit of 2h: killed by SIGTERM"));
    EXPECT_THAT(history, HasSubstr("terminated after its time limit of 5s: exited 0"));
    EXPECT_THAT(history, HasSubstr("skipped: run an id is under way"));
}
