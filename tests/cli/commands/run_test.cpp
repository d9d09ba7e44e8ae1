// run: launches a program now. The change process launches it, by a runner: the program is recorded,
// and --wait shows what it writes and how it ends.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

using TJson = nlohmann::json;

namespace {

class CliRun : public Cli {
protected:
    // The table has one task, "job", whose program is that script. Processes of the same program
    // and parameter that other tests run would count as the task's, so the path is this test's own.
    static void WriteJob(const std::string& script) {
        WriteFile("script", script);
        WriteTable({Job()});
    }
    static TRow Job() {
        return {"job", std::time(nullptr) + cHour, 0, 24, "/bin/sh", fs::absolute("script"), 0};
    }

    // What a run prints between its first and its last line.
    static std::string OutputOfProgram(const TToolRun& run) {
        const std::size_t begin = run.output.find('\n') + 1;
        const std::size_t end = run.output.rfind("job ");
        EXPECT_THAT(run.output, StartsWith("started job as process "));
        EXPECT_NE(end, std::string::npos);
        return run.output.substr(begin, end - begin);
    }

    static std::vector<TJson> Records() {
        std::vector<TJson> records;
        for (const std::string& line : fs::exists(cHistory) ? Lines(cHistory) : TStrings())
            records.push_back(TJson::parse(line));
        return records;
    }
    static TJson LastRecord() {
        const std::vector<TJson> records = Records();
        EXPECT_FALSE(records.empty());
        return records.empty() ? TJson::parse("{}") : records.back();
    }

private:
    using TStrings = std::vector<std::string>;
};

}  // namespace

TEST_F(CliRun, WithoutAHostHasTheEnvironmentThatAHostWouldGive) {
    WriteJob("env; pwd");
    const TToolRun run =
        RunTool({"run", "job", "--wait"},
                {{"MINE", "the caller's"}, {"PATH", "/mine"}, {"HOME", "/mine"}, {"LANG", "C"}});
    EXPECT_EQ(run.status, 0) << run.error;
    const std::string output = OutputOfProgram(run);
    for (const char* const line :
         {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\n", "HOME=/",
          "LOGNAME=", "USER=", "SHELL=/", "LANG=C\n", "VXSCHED_TASK=job\n"})
        EXPECT_THAT(output, HasSubstr(line));
    for (const char* const other : {"MINE", "/mine", "VXSCHED_DUE", "VXSCHED_RUN"})
        EXPECT_THAT(output, Not(HasSubstr(other)));
    EXPECT_THAT(output, EndsWith('\n' + fs::current_path().string() + '\n'));
    EXPECT_EQ(LastRecord().at("trigger"), "manual");
    EXPECT_EQ(LastRecord().at("name"), "job");
}

// The host may keep more than by default.
TEST_F(CliRun, WithoutAHostRotatesNoHistory) {
    WriteJob("exit");
    TRunRecord run;
    run.outcome = TRunRecord::cExited;
    std::string lines;
    while (lines.size() < std::size_t{2} << 20U)
        lines += JsonLine(run);
    WriteFile(cHistory, lines);
    Output({"run", "job", "--wait"});
    EXPECT_FALSE(fs::exists("files/history.jsonl.1"));
    EXPECT_TRUE(ReadFile(cHistory).starts_with(lines));
    EXPECT_EQ(LastRecord().at("name"), "job");
}
