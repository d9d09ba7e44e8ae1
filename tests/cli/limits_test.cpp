// Inputs beyond every reasonable limit are refused with a message that states the limit.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "Tool.h"

using testing::HasSubstr;

static std::string Nested(std::size_t levels, const std::string& inside) {
    return std::string(levels, '[') + inside + std::string(levels, ']');
}

TEST_F(Cli, DeepHistoryLineIsSkippedAndReported) {
    const std::string objects = [] {
        std::string all;
        for (int level = 0; level < 60'000; ++level)
            all += "{\"version\":";
        return all + '1' + std::string(60'000, '}');
    }();
    WriteFile(cHistory, Nested(60'000, "1") + '\n' + objects + '\n' +
                            Run("deep", R"("outcome":"exited","due":)" + Nested(60'000, "")) +
                            Run("a", R"("outcome":"exited","due":null,"status":0)"));
    const TToolRun run = RunTool({"history"});
    EXPECT_EQ(run.status, 0);
    for (const char* const line : {"line 1 of ", "line 2 of ", "line 3 of "})
        EXPECT_THAT(run.error, HasSubstr(line));
    EXPECT_THAT(run.output, HasSubstr("1 record\n"));
}

TEST_F(Cli, DeepImportIsRefused) {
    WriteTable({Later("a")});
    const std::string documents[] = {
        Nested(200'000, ""), std::string(200'000, '['),
        R"({"version": )" + Nested(200'000, "1") + '}',
        R"({"version": 1, "tasks": [{"name": )" + Nested(200'000, "1") + "}]}"};
    for (const std::string& document : documents) {
        WriteFile("import", document);
        ExpectRefused(1, "nested deeper than 64 levels", {"import", "import"});
    }
    WriteFile("import", R"({"version": 1, "more": )" + Nested(64, "") + R"(, "tasks": []})");
    ExpectRefused(1, "nested deeper than 64 levels", {"import", "import"});
    WriteFile("import", R"({"version": 1, "more": )" + Nested(63, "") + R"(, "tasks": []})");
    Output({"import", "import"});
}

TEST_F(Cli, ImportBeyondItsLimitIsRefused) {
    WriteTable({Later("a")});
    WriteFile("import", "");
    std::filesystem::resize_file("import", std::uintmax_t{1} << 40);
    ExpectRefused(1, "more than 256 MiB", {"import", "import"});
    ExpectRefused(1, "more than 256 MiB", {"import", "/dev/zero"});
}

TEST_F(Cli, HistoryBeyondItsLimitIsRefused) {
    WriteFile(cHistory, "");
    std::filesystem::resize_file(cHistory, std::uintmax_t{1} << 40);
    ExpectRefused(4, "more than 1 GiB", {"history"});
}

TEST_F(Cli, HistoryLineBeyondItsLimitIsSkippedAndReported) {
    WriteFile(cHistory, Run("long", R"("outcome":"exited","due":null,"status":0,"x":")" +
                                        std::string(std::size_t{16} << 20, 'x') + '"') +
                            Run("a", R"("outcome":"exited","due":null,"status":0)"));
    const TToolRun run = RunTool({"history"});
    EXPECT_THAT(run.error, HasSubstr("line 1 of "));
    EXPECT_THAT(run.error, HasSubstr("longer than 16 MiB; it is skipped"));
    EXPECT_THAT(run.output, HasSubstr("1 record\n"));
}

TEST_F(Cli, TimesBeyondEveryCalendarAreRefused) {
    WriteTable({Later("a")});
    for (const char* const time : {"9223372036854775807", "-9223372036854775808",
                                   "67768036191676800", "-67768040609740801"}) {
        ExpectRefused(2, "out of range", {"edit", "a", "--at", std::string("@") + time});
        for (const char* const field : {"next", "last"}) {
            WriteFile("import", R"({"version": 1, "tasks": [{"name": "x", "next": 1, ")" +
                                    std::string(field) + R"(": )" + time +
                                    R"(, "program": "/p"}]})");
            ExpectRefused(1, "\" that is in no year of a calendar", {"import", "import"});
        }
    }
    ExpectRefused(2, "after the year 9999", {"edit", "a", "--at", "in 99999999999999999999w"});
    ExpectRefused(2, "four digits", {"edit", "a", "--at", "292277026597-01-01 00:00Z"});
}

// A direct client may put any number into the table.
TEST_F(Cli, AnyTimeInTheTableIsShown) {
    constexpr std::int64_t cLeast = std::numeric_limits<std::int64_t>::min();
    constexpr std::int64_t cMost = std::numeric_limits<std::int64_t>::max();
    WriteTable({{"first", cLeast, cLeast, 0, cRecorder, "", 0},
                {"last", cMost, cMost, 24, cRecorder, "", 0}});
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"list"},
                                               {"list", "--json"},
                                               {"next", "--until", "@67768036191676799"},
                                               {"next", "--count", "3"},
                                               {"show", "first"},
                                               {"show", "last"},
                                               {"check"},
                                               {"export"}}) {
        const TToolRun run = RunTool(command);
        EXPECT_EQ(run.status, 0) << testing::PrintToString(command) << run.error;
    }
    EXPECT_THAT(Output({"list"}), HasSubstr("@9223372036854775807"));
    EXPECT_THAT(Output({"next", "--count", "3"}), HasSubstr("@9223372036854775807"));
}

TEST_F(Cli, AnyNumberInTheHistoryIsShownOrSkipped) {
    const std::string numbers[] = {
        R"("due":"292278994-08-17T07:12:55.808Z","started":"-292275055-05-16T16:47:04.192Z")",
        R"("due":"-9223372036854775808-01-01T00:00:00.000Z")",
        R"("due":"9223372036854775807-01-01T00:00:00.000Z")",
        R"("due":null,"user":1e300,"system":1e300)",
        R"("due":null,"user":-1e300,"system":-1e300)",
        R"("due":null,"process":1e300)",
        R"("due":null,"peakMemory":1e300)",
        R"("due":null,"status":18446744073709551615)"};
    std::string lines;
    for (const std::string& number : numbers)
        lines += Run("a", R"("outcome":"exited",)" + number);
    WriteFile(cHistory, lines);
    const TToolRun run = RunTool({"history"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_THAT(run.output, HasSubstr("5 records"));
    for (const char* const line : {"line 6 of ", "line 7 of ", "line 8 of "})
        EXPECT_THAT(run.error, HasSubstr(line));
    EXPECT_EQ(RunTool({"history", "--json"}).status, 0);
}

TEST_F(Cli, NumbersThatAreNoneAreUsageErrors) {
    WriteTable({Later("a")});
    for (const char* const number : {"nan", "inf", "-inf", "1e400", "-1", "", "1e"}) {
        ExpectRefused(2, "--lock-timeout: ", {"--lock-timeout", number, "list"});
        ExpectRefused(2, "--count: ", {"next", "--count", number});
        ExpectRefused(2, "--count: ", {"history", "--count", number});
    }
    ExpectRefused(2, "--count: ", {"next", "--count", "99999999999999999999"});
    const std::string expected = ": expected a number from 1 to 1000000, not \"";
    for (const char* const number :
         {"0", "-1", "1000001", "99999999999999999999", "1.5", "x", ""}) {
        const std::string message = expected + number + "\". See vxsched ";
        ExpectRefused(2, "--count" + message + "next --help.\n", {"next", "--count", number});
        ExpectRefused(2, "--count" + message + "history --help.\n", {"history", "--count", number});
        ExpectRefused(2, "--run" + message + "output --help.\n", {"output", "a", "--run", number});
    }
    Output({"next", "--count", "1000000"});
}

TEST_F(Cli, WordsThatAreNoneOfTheAllowedAreUsageErrors) {
    ExpectRefused(
        2, "shell: expected bash, zsh or fish, not \"ksh\". See vxsched completion --help.\n",
        {"completion", "ksh"});
    ExpectRefused(
        2,
        "--force: expected missing-program, not-executable, relative-path, wrapped-period or "
        "past-due, not \"all\". See vxsched create --help.\n",
        {"create", "a", "--force", "all", "--", cRecorder});
}
