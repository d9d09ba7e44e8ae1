// export --crontab: what a crontab can say of the tasks, and what it cannot.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

class CliExportCrontab : public Cli {
protected:
    static std::string Import(const std::string& directory, const std::string& crontab) {
        fs::create_directories(directory + "/files");
        const TToolRun run =
            RunTool({"--directory", directory, "import", "--crontab", "-"}, {}, crontab);
        EXPECT_EQ(run.status, 0) << run.error << crontab;
        return Export(directory);
    }

    static TRows TableOf(const std::string& directory) {
        const fs::path here = fs::current_path();
        fs::current_path(directory);
        TRows rows = ReadTable();
        fs::current_path(here);
        return rows;
    }

    static std::string Export(const std::string& directory) {
        const TToolRun run = RunTool({"--directory", directory, "export", "--crontab"});
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(run.error, "");
        return run.output;
    }

    static void ExpectLoss(const std::string& name, const std::string& loss) {
        const TToolRun run = RunTool({"export", "--crontab"});
        EXPECT_EQ(run.status, 1);
        EXPECT_THAT(run.error, HasSubstr("vxsched: task \"" + name + "\": "));
        EXPECT_THAT(run.error, HasSubstr(loss));
    }
};

// Crontabs with what may stand in them, in any order.
class CRandomCrontab {
public:
    explicit CRandomCrontab(unsigned seed) : random(seed) {}

    std::string Make() {
        std::string text;
        for (int line = 0; line < 12; ++line)
            text += Line();
        return text;
    }

private:
    unsigned Below(unsigned end) { return static_cast<unsigned>(random() % end); }

    std::string OneOf(const std::vector<std::string>& choices) {
        return choices[random() % choices.size()];
    }

    std::string Field(unsigned low, unsigned high) {
        const unsigned first = low + Below(high - low + 1);
        const unsigned last = first + Below(high - first + 1);
        const std::string range = std::to_string(first) + '-' + std::to_string(last);
        return OneOf({"*", "*", std::to_string(first), range, range + "/2", "*/3",
                      std::to_string(first) + ',' + std::to_string(last)});
    }

    std::string Schedule() {
        if (random() % 5 == 0)
            return OneOf({"@daily", "@reboot", "@hourly", "@monthly"});
        return Field(0, 59) + ' ' + Field(0, 23) + ' ' + Field(1, 28) + ' ' + Field(1, 12) + ' ' +
               Field(0, 6);
    }

    std::string Line() {
        switch (random() % 5) {
            case 0:
                return OneOf({"A=b", "A='x y'", "B=\" c\"", "SHELL=/bin/bash", "SHELL=/bin/sh",
                              "MAILTO=a@example.org", "MAILTO=\"\"", "HOME=/srv", "PATH=/bin"}) +
                       '\n';
            case 1:
                return OneOf({"# A comment", "#", "", "# 0 5 * * * a job that was"}) + '\n';
            default:
                return Schedule() + ' ' +
                       OneOf({"/bin/a --b", "cd /x && ./y", "cat%in%put", "date +\\%H",
                              "echo 'it''s' \"$A\"", "a \\\\ b%c\\%d", "true # a comment"}) +
                       '\n';
        }
    }

    std::mt19937 random;
};

}  // namespace

TEST_F(CliExportCrontab, HasWhatWasImported) {
    const std::string crontab =
        "MAILTO=ops@example.org\n"
        "# The nightly backup\n"
        "30 2 * * * /srv/backup \\% --all >/dev/null\n"
        "\n"
        "A=x y\n"
        "MAILTO=\"\"\n"
        "SHELL=/bin/bash\n"
        "# poll\n"
        "*/5 * * * mon-fri cd /srv && ./poll\n"
        "\n"
        "# cat\n"
        "@reboot cat%in%put\n";
    EXPECT_EQ(Import("a", crontab), crontab);
    RunTool({"--directory", "a", "pause", "poll"});
    EXPECT_THAT(Export("a"), HasSubstr("\n# poll\n#*/5 * * * mon-fri cd /srv"));
}

TEST_F(CliExportCrontab, IsTheSameAfterAnotherImport) {
    std::random_device device;
    const unsigned seed = device();
    SCOPED_TRACE(seed);
    for (unsigned count = 0; count < 12; ++count) {
        const std::string crontab = CRandomCrontab(seed + count).Make();
        SCOPED_TRACE(crontab);
        const std::string first = "first" + std::to_string(count);
        const std::string second = "second" + std::to_string(count);
        const std::string exported = Import(first, crontab);
        EXPECT_EQ(Import(second, exported), exported);
        const TRows former = TableOf(first);
        const TRows latter = TableOf(second);
        ASSERT_EQ(former.size(), latter.size());
        const auto scheduleOf = [](const TRow& row) {
            return row.name + row.parameters.substr(0, row.parameters.find(" --chdir"));
        };
        for (std::size_t index = 0; index < former.size(); ++index)
            EXPECT_EQ(scheduleOf(former[index]), scheduleOf(latter[index]));
    }
}

TEST_F(CliExportCrontab, PeriodOfADayIsAWallTime) {
    std::int64_t due = 2'000'000'040;  // 03:34 in UTC
    if (fs::exists("/etc/localtime") &&
        fs::read_symlink("/etc/localtime").string().find("UTC") == std::string::npos)
        GTEST_SKIP() << "the machine's clock is not UTC";
    WriteTable({{"day", due, 0, 24, "/bin/ls", "a b", 0},
                {"week", due, 0, 168, "/bin/ls", "", 0},
                {"eighth", due, 0, 8, "/bin/ls", "x", 0},
                {"hour", due, 0, 1, "/bin/ls", "x", 0}});
    const TToolRun run = RunTool({"export", "--crontab"});
    EXPECT_THAT(run.output, HasSubstr("\n34 3 * * * /bin/ls 'a b'\n"));
    EXPECT_THAT(run.output, HasSubstr("\n34 3 * * 3 /bin/ls ''\n"));
    EXPECT_THAT(run.output, HasSubstr("\n34 3,11,19 * * * /bin/ls x\n"));
    EXPECT_THAT(run.output, HasSubstr("\n34 * * * * /bin/ls x\n"));
}

TEST_F(CliExportCrontab, LossesAreMessagesAndAStatus) {
    Output({"create", "once", "--at", "in 1h", "--", "/bin/ls", "x"});
    ExpectLoss("once", "it runs once");
    Output({"remove", "once"});
    Output({"create", "odd", "--at", "in 1h", "--every", "5h", "--", "/bin/ls", "x"});
    ExpectLoss("odd", "its period of 5 hours");
    Output({"remove", "odd"});
    Output({"create", "ls", "--cron", "1 2 L * *", "--", "/bin/ls"});
    ExpectLoss("ls", "cron has no L");
    Output({"edit", "ls", "--cron", "1 2 3 4 5", "--timeout", "1h", "--retry", "2"});
    ExpectLoss("ls", "a crontab has no --timeout");
    ExpectLoss("ls", "a crontab has no --retry");
    Output({"edit", "ls", "--timeout", "", "--retry", "", "--zone", "Asia/Tokyo"});
    ExpectLoss("ls", "has no zone, Asia/Tokyo");
    Output({"edit", "ls", "--zone", "", "--shell", "one\ntwo"});
    ExpectLoss("ls", "a command of several lines");
    Output({"edit", "ls", "--", "/bin/ls"});
    EXPECT_EQ(Output({"export", "--crontab"}), "MAILTO=\"\"\n# ls\n1 2 3 4 5 /bin/ls\n");
}

TEST_F(CliExportCrontab, OfTheSystemHasUsers) {
    Output({"create", "ls", "--cron", "1 2 3 4 5", "--user", std::to_string(geteuid()), "--",
            "/bin/ls", "-l"});
    EXPECT_EQ(Output({"export", "--crontab", "--system"}),
              "MAILTO=\"\"\n# ls\n1 2 3 4 5 " + std::to_string(geteuid()) + " /bin/ls -l\n");
    ExpectLoss("ls", "a crontab has no --user");
}
