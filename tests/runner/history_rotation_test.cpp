// The run history with real writers of different size limits at the same time: the runners of a host,
// and those that another host or a person has launched.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <list>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "runs/RunRecord.h"
#include "runs/RunRequest.h"

namespace fs = std::filesystem;

using testing::Each;
using testing::Pair;
using testing::SizeIs;

namespace {

constexpr int cRuns = 25;    // of each writer
constexpr int cWriters = 3;  // of each kind

// What is left of the history, and all that its rotations have dropped.
std::vector<std::string> AllLines() {
    std::vector<std::string> lines;
    std::vector<fs::path> files = {"files/history.jsonl", "files/history.jsonl.1"};
    files.insert(files.end(), fs::directory_iterator("dropped"), fs::directory_iterator());
    for (const fs::path& file : files) {
        if (!fs::exists(file))
            continue;
        for (const std::string& line : Lines(file))
            lines.push_back(line);
    }
    return lines;
}

// A shell that executes the command so many times, one after the other.
std::vector<std::string> Repeatedly(const std::string& command) {
    return {"/bin/sh", "-c",
            "for i in $(seq " + std::to_string(cRuns) + "); do " + command + " || exit 1; done"};
}

// A runner that another host with that limit has launched, as a task of that name.
std::vector<std::string> RunsOfAnotherHost(const std::string& task, std::uint64_t limit) {
    TRunRequest request;
    request.report = 9;
    request.trigger = cScheduled;
    request.historySize = limit;
    request.outputSize = 1000;
    return Repeatedly("VXSCHED_TASK=" + task + " VXSCHED_RUN='" + EncodeRunRequest(request) +
                      "' " RUNNER_PROGRAM " /bin/true 9> /dev/null");
}

std::vector<std::string> RunsByHand(const std::string& task) {
    return Repeatedly("VXSCHED_TASK=" + task + " " RUNNER_PROGRAM " /bin/true");
}

std::vector<std::string> RunsByTheHost(const std::string& task) {
    return Repeatedly(TOOL_PROGRAM " run --force " + task);
}

// With the limit of the host, in bytes: room for one record, and for a few.
class HistoryRotation : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Of, HistoryRotation, testing::Values(1, 1500),
                         [](const auto& limit) { return std::to_string(limit.param) + "Bytes"; });

}  // namespace

TEST_P(HistoryRotation, LosesAndDoublesNoRecordOfWritersOfDifferentLimits) {
    fs::create_directory("files");
    fs::create_directory("dropped");
    TRows rows;
    for (int writer = 0; writer < cWriters; ++writer)
        rows.push_back({"host-" + std::to_string(writer), std::time(nullptr) + 100'000, 0, 24,
                        "/bin/echo", std::to_string(writer), 0});
    WriteTable(rows);
    setenv("LD_PRELOAD", KEPT_ROTATIONS, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    CHost host(HostWith({"--history-size", std::to_string(GetParam())}));
    std::list<CProgram> writers;
    for (int writer = 0; writer < cWriters; ++writer) {
        const std::string number = std::to_string(writer);
        writers.emplace_back(RunsByTheHost("host-" + number));
        writers.emplace_back(RunsOfAnotherHost("other-" + number, 4000));
        writers.emplace_back(RunsByHand("hand-" + number));
    }
    for (CProgram& writer : writers)
        EXPECT_EQ(writer.Wait(), 0) << writer.Output();
    EXPECT_EQ(host.Stop(), 0) << host.Output();
    // The host leaves its runners to themselves.
    WaitUntil([] { return fs::is_empty("files/running"); });
    std::map<std::string, std::set<std::string>> runs;
    const std::vector<std::string> lines = AllLines();
    for (const std::string& line : lines) {
        const std::optional<TRunRecord> record = ReadJsonLine(line);
        ASSERT_TRUE(record) << line;
        EXPECT_TRUE(runs[record->task.value_or("")].insert(record->id).second) << line;
    }
    EXPECT_THAT(runs, SizeIs(3 * cWriters));
    EXPECT_THAT(runs, Each(Pair(testing::_, SizeIs(cRuns))));
    EXPECT_FALSE(fs::is_empty("dropped"));
}
