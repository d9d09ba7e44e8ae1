// What cannot be flushed to the disk, although it is saved: it is reported, once.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

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

// A pipe that nobody reads, and that is full.
class CStalledReader {
public:
    CStalledReader() {
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        fcntl(ends[1], F_SETFL, O_NONBLOCK);
        while (write(ends[1], "x", 1) == 1) {
        }
        fcntl(ends[1], F_SETFL, 0);
    }
    ~CStalledReader() {
        close(ends[0]);
        close(ends[1]);
    }
    CStalledReader(const CStalledReader&) = delete;
    CStalledReader& operator=(const CStalledReader&) = delete;

    int End() const { return ends[1]; }

private:
    int ends[2] = {-1, -1};
};

TEST(FailedFlush, WarningThatNobodyReadsKeepsNobodyFromTheStore) {
    WriteTable(cThree);
    WriteFile("empty.json", R"({"version": 1, "tasks": []})");
    const CStalledReader reader;
    const CForkedChild import([&] {
        setenv("LD_PRELOAD", INTERPOSED_SYSTEM, 1);
        setenv("REFUSE_FLUSHES", "directories", 1);
        setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
        dup2(reader.End(), STDERR_FILENO);
        return execl(TOOL_PROGRAM, TOOL_PROGRAM, "import", "--replace", "empty.json", nullptr);
    });
    WaitUntil([] { return ReadTable().empty(); });
    const TToolRun create =
        RunTool({"create", "fourth", "--at", "2090-01-01 00:00", "--", "/bin/true"});
    EXPECT_EQ(create.status, 0) << create.error;
    EXPECT_FALSE(HasEnded(import.Id()));
}

// A table with two hard links is rewritten in place.
TEST(FailedFlush, OfATableThatIsRewrittenInPlaceIsOneToo) {
    WriteTable({{"first", 4'000'000'000, 0, 24, "/bin/ls", "", 0}});
    std::filesystem::create_hard_link(cTable, "another name");
    ExpectWarning(RunWithoutFlushes("linked", {"run", "first"}), cTable);
    EXPECT_GT(ReadTable().at(0).last, 0);
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
    for (const char* const name : {"first", "second"}) {
        const std::size_t snapshots = CountIn("files/snapshots");
        EXPECT_EQ(RunTool({"pause", name}).status, 0);
        WaitUntil([&] { return CountIn("files/snapshots") > snapshots; });
    }
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput(cWarning), 1U) << host.Output();
}
