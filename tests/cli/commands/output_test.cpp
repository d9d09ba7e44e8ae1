// output: what a run has written, now or from now on.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <string>

#include "Cli.h"
#include "Process.h"
#include "runs/COutputFile.h"
#include "runs/CRunningFile.h"
#include "runs/OutputFiles.h"
#include "runs/RunningRuns.h"

namespace fs = std::filesystem;

using testing::HasSubstr;

namespace {

class CliOutput : public Cli {
protected:
    static std::string Keep(const std::string& task, const std::string& id,
                            const std::string& content, std::uint64_t size = 1000) {
        fs::create_directory("files");
        MakeOutputFile(task, id, size).Append(content);
        return OutputPathOf(task, id);
    }
};

}  // namespace

TEST_F(CliOutput, IsThatOfTheLastRunOrOfAnEarlierOne) {
    WriteTable({Later("a")});
    Keep("a", "1", "first\n");
    Keep("a", "2", "second\n");
    Keep("b", "3", "another's\n");
    EXPECT_EQ(Output({"output", "a"}), "second\n");
    EXPECT_EQ(Output({"output", "a", "--run", "2"}), "first\n");
    EXPECT_EQ(Output({"output", "b"}), "another's\n") << "its task was removed";
    ExpectRefused(3, "2 outputs of \"a\" are kept; --run 2 is the oldest",
                  {"output", "a", "--run", "3"});
    ExpectRefused(2, "--run", {"output", "a", "--run", "0"});
}

TEST_F(CliOutput, ThatDoesNotExistIsReported) {
    WriteTable({Later("backup")});
    ExpectRefused(3,
                  "\"backup\" has not run, so it has no output; see vxsched show backup, or launch "
                  "it by vxsched run backup\n",
                  {"output", "backup"});
    WriteFile(cHistory, Run("backup", R"("outcome":"missed","due":"2026-11-19T01:00:00.000Z")"));
    ExpectRefused(3, "no output of \"backup\" is kept; see vxsched history backup\n",
                  {"output", "backup"});
    ExpectRefused(3, "did you mean \"backup\"?", {"output", "bakcup"});
    WriteFile(Keep("backup", "1", "text"), "no output");
    ExpectRefused(1, "is not the output of a run, or is damaged", {"output", "backup"});
}

TEST_F(CliOutput, OfARenamedTaskIsUnderItsFormerName) {
    TRow row = Later("a");
    row.last = 1000;
    WriteTable({row});
    Keep("a", "1", "text\n");
    RunTool({"edit", "a", "--name", "b"});
    EXPECT_EQ(NamesInTable(), "b");
    EXPECT_EQ(Output({"output", "a"}), "text\n");
    ExpectRefused(3,
                  "no output of \"b\" is kept, nor a record of a run of that name; the runs of a "
                  "renamed task have its former one: see vxsched history\n",
                  {"output", "b"});
}

TEST_F(CliOutput, IsAFileThatShowReports) {
    WriteTable({Later("a task")});
    EXPECT_THAT(Output({"show", "a task"}), testing::Not(HasSubstr("Last output")));
    EXPECT_THAT(Output({"show", "a task", "--json"}), HasSubstr("\"last_output\": null"));
    Keep("a task", "1", "first\n");
    const std::string path = Keep("a task", "2", "second\n");
    EXPECT_THAT(Output({"show", "a task"}), HasSubstr("\nLast output  " + path + '\n'));
    EXPECT_THAT(Output({"show", "a task", "--json"}),
                HasSubstr("\"last_output\": \"" + path + '"'));
}

TEST_F(CliOutput, HasItsEndOnlyIfThereWasMoreThanIsKept) {
    WriteTable({Later("a")});
    Keep("a", "1", "0123456789", 4);
    const TToolRun run = RunTool({"output", "a"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "6789");
    EXPECT_EQ(run.error, "vxsched: 6 bytes are not kept any more\n");
}

TEST_F(CliOutput, IsRawInAPipeAndHasNoControlCharactersOnATerminal) {
    WriteTable({Later("a")});
    const std::string content = "one\ttwo\n\x1b[31mred\x1b[0m\r\xff\n";
    Keep("a", "1", content);
    EXPECT_EQ(Output({"output", "a"}), content);
    EXPECT_EQ(RunToolOnTerminal({"output", "a"}, 80).output,
              "one\ttwo\n\ufffd[31mred\ufffd[0m\ufffd\ufffd\n");
}

// Wherever the command's reads of the file end.
TEST_F(CliOutput, CharacterIsNotCutInTwoOnATerminal) {
    WriteTable({Later("a")});
    std::string content = "x";
    for (int number = 0; number < 200'000; ++number)
        content += "\xc3\xa4";
    Keep("a", "1", content + "\xc3", 1 << 20);
    EXPECT_EQ(RunToolOnTerminal({"output", "a"}, 80).output, content + "\ufffd");
}

// A run that has a runner, this process.
TEST_F(CliOutput, IsFollowedUntilTheRunEnds) {
    WriteTable({Later("a")});
    const std::string path = Keep("a", "1", "");
    fs::remove(path);
    TRunRecord record;
    record.id = "1";
    CRunningFile running(record);
    ASSERT_EQ(running.Error(), "");
    COutputFile file(path, 1000);
    file.Append("before\n");
    CProgram follower({TOOL_PROGRAM, "output", "a", "--follow"});
    EXPECT_TRUE(follower.WaitForOutput("before\n"));
    file.Append("meanwhile\n");
    EXPECT_TRUE(follower.WaitForOutput("meanwhile\n"));
    file.Append("at last\n");
    running.Remove();
    EXPECT_EQ(follower.Wait(), 0);
    EXPECT_EQ(follower.Output(), "before\nmeanwhile\nat last\n");
}

TEST_F(CliOutput, OfARunWhoseRunnerHasDiedIsNotFollowed) {
    WriteTable({Later("a")});
    const std::string path = Keep("a", "1", "text\n");
    fs::create_directory("files/running");
    WriteFile("files/running/1", "");
    EXPECT_EQ(Output({"output", "a", "--follow"}), "text\n");
}
