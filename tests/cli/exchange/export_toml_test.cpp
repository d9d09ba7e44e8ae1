// export --toml: a file of tasks of any table, whose apply changes nothing.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "Process.h"
#include "ProgramLink.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using nlohmann::json;
using testing::HasSubstr;

namespace {

class CliExportToml : public Cli {
protected:
    // That an apply of the export changes nothing, and makes the same tasks in another store.
    static void ExpectRoundTrip() {
        const TRows rows = ReadTable();
        WriteFile("tasks.toml", Output({"export", "--toml"}));
        const std::string before = ReadFile(cTable);
        const json report = json::parse(Output({"apply", "tasks.toml", "--json"}));
        EXPECT_EQ(report.at("changed"), false) << report;
        EXPECT_EQ(report.at("tasks").size(), rows.size());
        EXPECT_EQ(ReadFile(cTable), before);
        fs::remove(cTable);
        Output({"apply", "tasks.toml", "--force", "missing-program"});
        TRows wanted = rows;
        for (TRow& row : wanted)
            row.last = 0;
        EXPECT_EQ(ReadTable(), wanted);
    }

    static void ExpectLeftOut(const std::string& name, const std::string& reason) {
        const TToolRun run = RunTool({"export", "--toml"});
        EXPECT_EQ(run.status, 1);
        EXPECT_THAT(run.error, HasSubstr("vxsched: task \"" + name + "\": " + reason));
        EXPECT_THAT(run.output, HasSubstr("[tasks.good]"));
    }
};

}  // namespace

TEST_F(CliExportToml, ApplyOfItChangesNothing) {
    WriteTable(
        {{"plain", 4'000'000'000, 77, 24, "/bin/cp", "-a /home", 0},
         {"a b.c", 4'000'000'001, 0, 0, "/bin/echo", "", 1},
         {"quotes \" ' \\ \n\t\x01\x7f", 4'000'000'000, 0, 1193046, "/bin/echo",
          "\xe2\x80\xae \xc2\x9b[31m \xf3\xa0\x80\x81 \xf0\x9f\x98\x80 \\u0041\n'''\"\"\"", 0},
         {"gone program", 4'000'000'000, 0, 6, "/no/such", "", 0}});
    Output({"create",
            "job",
            "--weekly",
            "fri 02:30",
            "--zone",
            "Asia/Tokyo",
            "--catch-up",
            "--until",
            "2090-01-01 10:00",
            "--chdir",
            "/srv",
            "--umask",
            "027",
            "--env",
            "A=x y",
            "--env",
            "B=",
            "--env-file",
            "/etc/a",
            "--timeout",
            "2h",
            "--kill-after",
            "1m",
            "--overlap",
            "queue",
            "--random-delay",
            "10m",
            "--success",
            "0,3",
            "--retry",
            "2",
            "--backoff",
            "30s",
            "--on-failure",
            "a",
            "--on-success",
            "b",
            "--on-recovery",
            "c",
            "--mail",
            "root",
            "--shell",
            "echo \"$A\"\necho 'two'"});
    Output({"create", "startup", "--cron", "@reboot", "--", "/bin/echo", "one", "", "three"});
    ExpectRoundTrip();
}

TEST_F(CliExportToml, IsForPeopleToRead) {
    WriteTable({{"plain", 4'000'000'000, 77, 24, "/bin/cp", "-a /home", 0},
                {"two words", 4'000'000'000, 0, 0, "/bin/echo", "", 1}});
    EXPECT_EQ(Output({"export", "--toml"}),
              "[tasks.plain]\n"
              "command = [\"/bin/cp\", \"-a /home\"]\n"
              "every = \"1d\"\n"
              "at = 2096-10-02T07:06:40Z\n"
              "\n"
              "[tasks.\"two words\"]\n"
              "command = [\"/bin/echo\", \"\"]\n"
              "at = 2096-10-02T07:06:40Z\n"
              "paused = true\n");
    WriteTable({});
    EXPECT_EQ(Output({"export", "--toml"}), "");
    ExpectRefused(2, "excludes", {"export", "--toml", "--crontab"});
}

TEST_F(CliExportToml, LeavesOutWhatItCannotSay) {
    const TRow good = {"good", 4'000'000'000, 0, 24, "/bin/true", "", 0};
    const auto with = [&](TRow row) {
        row.next = 4'000'000'000;
        WriteTable({good, row});
    };
    with({"bytes", 0, 0, 24, "/bin/echo", "\xff", 0});
    ExpectLeftOut("bytes", "TOML has text in UTF-8 only");
    with({"long", 0, 0, 2'000'000, "/bin/echo", "", 1});
    ExpectLeftOut("long", "its period of 2000000 hours is longer than --every takes");
    with({"good", 0, 0, 24, "/bin/echo", "", 0});
    ExpectLeftOut("good", "an earlier task has the same name");
    with({"broken", 0, 0, 24, RUNNER_PROGRAM, "--no-such-option", 0});
    ExpectLeftOut("broken", "its parameter is no job that vxrun could execute");
}

TEST_F(CliExportToml, HasTheProgramOfALink) {
    const std::string link = MakeProgramLink("/usr/bin/free", "free");
    WriteTable({{"linked", 4'000'000'000, 0, 24, link, "-m", 0}});
    EXPECT_THAT(Output({"export", "--toml"}), HasSubstr("command = [\"/usr/bin/free\", \"-m\"]\n"));
    WriteFile("tasks.toml", Output({"export", "--toml"}));
    EXPECT_EQ(json::parse(Output({"apply", "tasks.toml", "--json"})).at("changed"), false);
}
