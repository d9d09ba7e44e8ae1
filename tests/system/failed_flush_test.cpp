// What cannot be flushed to the disk, although it is saved: it is reported, once.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

static const std::string cWarning = "a power failure may lose or damage what was saved";

static std::size_t CountOf(const std::string& part, const std::string& text) {
    std::size_t count = 0;
    for (std::size_t place = 0; (place = text.find(part, place)) != std::string::npos; ++place)
        ++count;
    return count;
}

static TToolRun RunWithoutFlushes(const std::string& what,
                                  const std::vector<std::string>& arguments,
                                  const std::string& input = "") {
    return RunTool(arguments,
                   {{"LD_PRELOAD", INTERPOSED_SYSTEM},
                    {"REFUSE_FLUSHES", what},
                    {"ASAN_OPTIONS", "verify_asan_link_order=0"}},
                   input);
}

static void ExpectWarning(const TToolRun& run, const std::string& path) {
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_NE(run.error.find("cannot flush " + path + " to the disk: Input/output error"),
              std::string::npos)
        << run.error;
    EXPECT_EQ(CountOf(cWarning, run.error), 1U) << run.error;
}

TEST(FailedFlush, IsAWarningOfACommand) {
    WriteTable(cThree);
    ExpectWarning(RunWithoutFlushes("directories", {"pause", "first"}), "./files");
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
    ExpectWarning(
        RunWithoutFlushes("directories", {"import", "--replace"}, R"({"version": 1, "tasks": []})"),
        "./files");
    EXPECT_EQ(ReadTable(), TRows());
}

// A table with two hard links is rewritten in place.
TEST(FailedFlush, OfATableThatIsRewrittenInPlaceIsOneToo) {
    WriteTable(cThree);
    std::filesystem::create_hard_link(cTable, "another name");
    ExpectWarning(RunWithoutFlushes("linked", {"pause", "first"}), cTable);
    EXPECT_EQ(ReadTable().at(0).paused, 1U);
}

TEST(FailedFlush, IsLoggedOnceByAHost) {
    WriteTable(cThree);
    setenv("LD_PRELOAD", INTERPOSED_SYSTEM, 1);
    setenv("REFUSE_FLUSHES", "1", 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    CHost host;
    for (const char* const name : {"LD_PRELOAD", "REFUSE_FLUSHES", "ASAN_OPTIONS"})
        unsetenv(name);
    // Each change is a table to keep, in a directory to flush.
    for (const char* const name : {"first", "second"})
        EXPECT_EQ(RunTool({"pause", name}).status, 0);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput(cWarning), 1U) << host.Output();
}
