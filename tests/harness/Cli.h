#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"

// 2026-11-21 14:30:00 UTC, 15:30 in Berlin.
inline constexpr long cNow = 1795271400;
inline constexpr long cHour = 3600;
inline constexpr long cDay = 24 * cHour;

inline constexpr char cHistory[] = "files/history.jsonl";

// Runs vxsched in the directory of the test, in Berlin's zone, with a directory for its table.
class Cli : public testing::Test {
protected:
    Cli() {
        std::filesystem::create_directory("files");
        setenv("TZ", "Europe/Berlin", 1);
        unsetenv("NO_COLOR");
        setenv("TERM", "xterm", 1);
    }

    // Expects success and nothing on standard error.
    static std::string Output(const std::vector<std::string>& arguments) {
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(run.error, "");
        return run.output;
    }

    // Expects that exit status, an error message that holds `message`, no output, and the table
    // unchanged.
    static void ExpectRefused(int status, const std::string& message,
                              const std::vector<std::string>& arguments) {
        const bool hadTable = std::filesystem::exists(cTable);
        const std::string before = hadTable ? ReadFile(cTable) : "";
        const TToolRun run = RunTool(arguments);
        EXPECT_EQ(run.status, status) << run.error;
        EXPECT_THAT(run.error, testing::HasSubstr(message));
        EXPECT_THAT(run.error, testing::StartsWith("vxsched: "));
        EXPECT_EQ(run.output, "");
        EXPECT_EQ(std::filesystem::exists(cTable), hadTable);
        if (hadTable) {
            EXPECT_EQ(ReadFile(cTable), before);
        }
    }

    static TRow Later(const std::string& name) {
        return {name, std::time(nullptr) + cHour, 0, 24, cRecorder, "a parameter", 0};
    }

    // A line of the host's history.
    static std::string Run(const std::string& name, const std::string& fields) {
        return R"({"version":1,"name":")" + name + R"(","program":"/bin/cp","parameter":"-a",)" +
               fields + "}\n";
    }

    // Runs with every outcome, in both halves of the history.
    static void WriteHistory() {
        const std::string usage = R"(,"user":0.031,"system":0.004,"peakMemory":2150)";
        WriteFile("files/history.jsonl.1",
                  Run("backup", R"("outcome":"exited","due":"2026-11-19T00:30:00.000Z",)"
                                R"("started":"2026-11-19T00:30:02.250Z",)"
                                R"("ended":"2026-11-19T01:42:03.000Z","status":0,"process":7)" +
                                    usage) +
                      Run("gone by now", R"("outcome":"missed","due":"2026-11-19T01:00:00.000Z",)"
                                         R"("task":"removed")"));
        WriteFile(
            cHistory,
            Run("late \\u001b[31m",
                R"("outcome":"killed","due":"2026-11-20T00:30:00.000Z",)"
                R"("started":"2026-11-20T00:30:01.000Z",)"
                R"("ended":"2026-11-20T00:30:01.350Z","signal":15,"stoppedBy":"bob")" +
                    usage) +
                Run("backup", R"("outcome":"exited","due":"2026-11-20T00:30:00.000Z",)"
                              R"("started":"2026-11-20T00:30:04.500Z",)"
                              R"("ended":"2026-11-20T00:30:16.800Z","status":3)" +
                                  usage +
                                  R"(,"process":9,"run":"20261120T003004.500Z-8",)"
                                  R"("trigger":"schedule","attempt":1,)"
                                  R"("output":"files/output/backup/20261120T003004.500Z-8.log",)"
                                  R"("outputBytes":70000,)"
                                  R"("outputError":"No space left on device")") +
                Run("backup", R"("outcome":"missed","due":"2026-11-20T12:30:00.000Z",)"
                              R"("task":"rescheduled")") +
                Run("\xc3\xa4rger", R"("outcome":"not started","due":null,)"
                                    R"("started":"2026-11-20T13:00:00.000Z",)"
                                    R"("ended":"2026-11-20T13:00:00.000Z",)"
                                    R"("error":"No such file or directory")") +
                Run("backup", R"("outcome":"left running","due":"2026-11-21T00:30:00.000Z",)"
                              R"("started":"2026-11-21T00:30:01.000Z")"));
    }

    // A table with tasks of every kind around cNow, and a history of earlier runs.
    static void WriteShowcase() {
        WriteHistory();
        WriteTable(
            {{"backup", cNow + 10 * cHour, cNow - 14 * cHour, 24, "/bin/cp", "-a /home", 0},
             {"report", cNow + 90, 0, 0, "/bin/echo", "", 0},
             {"holiday", cNow + cDay, cNow - cDay, 168, "/bin/true", "x", 1},
             {"late \033[31m", cNow - 2 * cHour, cNow - 26 * cHour, 12, "/bin/false", "y", 0},
             {"\xc3\xa4rger", cNow + 400 * cDay, 0, 1, "/bin/true",
              "a text that is too long for a narrow terminal, by far", 0}});
    }
};
