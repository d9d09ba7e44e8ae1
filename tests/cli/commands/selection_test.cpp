// Which tasks a changing command changes: names, patterns, all.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Cli.h"
#include "TableFile.h"

namespace {

class CliSelection : public Cli {
protected:
    CliSelection() {
        WriteTable({Later("backup-a"), Later("backup-b"), Later("report"), Later("odd [x]*")});
    }

    static std::string Paused() {
        std::string names;
        for (const TRow& row : ReadTable()) {
            if (row.paused != 0)
                names += row.name + ';';
        }
        return names;
    }
};

}  // namespace

TEST_F(CliSelection, OfAPatternIsEachTaskThatMatches) {
    EXPECT_EQ(Output({"pause", "backup-*"}), "paused backup-a\npaused backup-b\n");
    EXPECT_EQ(Paused(), "backup-a;backup-b;");
    EXPECT_EQ(Output({"resume", "report", "backup-?", "backup-a"}),
              "report was not paused\nresumed backup-a\nresumed backup-b\n")
        << "each once";
    EXPECT_EQ(Paused(), "");
    Output({"period", "backup-[ab]", "report", "2d"});
    for (const std::size_t index : {0U, 1U, 2U})
        EXPECT_EQ(ReadTable()[index].period, 48U);
    Output({"remove", "back*", "rep*"});
    EXPECT_EQ(NamesInTable(), "odd [x]*");
}

TEST_F(CliSelection, OfAllIsTheWholeTable) {
    Output({"pause", "--all"});
    EXPECT_EQ(Paused(), "backup-a;backup-b;report;odd [x]*;");
    Output({"edit", "--all", "--every", "3d"});
    for (const TRow& row : ReadTable())
        EXPECT_EQ(row.period, 72U);
    Output({"period", "--all", "1d"});
    EXPECT_EQ(ReadTable()[3].period, 24U);
    Output({"remove", "--all", "--dry-run"});
    EXPECT_EQ(ReadTable().size(), 4U);
    Output({"remove", "--all"});
    EXPECT_EQ(ReadTable().size(), 0U);
    EXPECT_EQ(Output({"pause", "--all"}), "");
}

TEST_F(CliSelection, OfATasksNameIsNoPattern) {
    Output({"pause", "odd [x]*"});
    EXPECT_EQ(Paused(), "odd [x]*;");
}

TEST_F(CliSelection, OfNothingIsRefused) {
    ExpectRefused(3, "no task matches \"none-*\"; see vxsched list", {"pause", "none-*"});
    ExpectRefused(3, "no task matches \"none-*\"", {"pause", "report", "none-*"});
    ExpectRefused(3, "there is no task \"report-\"; did you mean \"report\"?",
                  {"pause", "backup-*", "report-"});
    for (const char* const command : {"pause", "resume", "remove"}) {
        ExpectRefused(2, "give names, or --all for all tasks", {command});
        ExpectRefused(2, "give either names or --all, not both", {command, "--all", "report"});
    }
    ExpectRefused(2, "give names, or --all", {"edit", "--every", "1d"});
    ExpectRefused(2, "give names, or --all", {"period", "1d"});
    ExpectRefused(2, "a period is required", {"period", "--all"});
}

TEST_F(CliSelection, IsEditedAsOne) {
    Output({"edit", "backup-*", "report", "--every", "2d", "--", cRecorder, "another"});
    for (const std::size_t index : {0U, 1U, 2U}) {
        EXPECT_EQ(ReadTable()[index].period, 48U);
        EXPECT_EQ(ReadTable()[index].parameters, "another");
    }
    EXPECT_EQ(ReadTable()[3].parameters, "a parameter");
    ExpectRefused(1, "no program", {"edit", "backup-*", "--program", "/no/such"});
    ExpectRefused(2, "--name takes one task", {"edit", "backup-*", "--name", "x"});
    Output({"edit", "rep*", "--name", "x"});
    EXPECT_EQ(ReadTable()[2].name, "x");
}

// The rest of a value that was not quoted.
TEST_F(CliSelection, OfAStrayWordIsExplained) {
    ExpectRefused(2, "quote a time of several words: --at \"in 3h\"",
                  {"edit", "report", "--at", "in", "3h"});
    ExpectRefused(3, "there is no task \"2\"; quote an argument of several words",
                  {"edit", "report", "--cron", "30", "2"});
    ExpectRefused(3, "write -- before a program", {"edit", "report", "--every", "1d", cRecorder});
}
