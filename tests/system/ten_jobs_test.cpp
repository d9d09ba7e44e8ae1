// The jobs of an ordinary server's crontab: each is one command, and a real host runs it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Cli.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "base/Processes.h"

namespace fs = std::filesystem;
using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

using TStrings = std::vector<std::string>;

constexpr char cUsersDirectory[] = "/usr/share";  // that of a user who has none in the test's

class TenJobs : public Cli {
protected:
    static void Create(TStrings arguments) {
        arguments.insert(arguments.begin(), {"create", "job"});
        EXPECT_THAT(Output(arguments), StartsWith("created job, "));
    }

    static std::vector<json> History() {
        const json document = json::parse(Output({"history", "job", "--json"}));
        return document.at("runs").get<std::vector<json>>();
    }

    // The last record, once there are so many.
    static json Record(std::size_t count = 1) {
        WaitUntil([&] { return fs::exists(cHistory) && CountLines(cHistory) >= count; });
        const std::vector<json> runs = History();
        EXPECT_EQ(runs.size(), count);
        return runs.back();
    }

    // That of a run that ended well.
    static json GoodRecord() {
        json record = Record();
        EXPECT_EQ(record.at("outcome"), "exited") << record;
        EXPECT_EQ(record.at("status"), 0) << record;
        return record;
    }

    // For a job that is not due yet.
    static void RunNow() {
        const TToolRun run = RunTool({"run", "job", "--wait"});
        EXPECT_EQ(run.status, 0) << run.error;
        EXPECT_EQ(GoodRecord().at("trigger"), "manual");
    }

    static json Shown() { return json::parse(Output({"show", "job", "--json"})).at("task"); }

    // Of the task's next launch, in UTC.
    static std::tm NextLaunch() {
        const std::time_t next = Shown().at("next");
        EXPECT_GT(next, std::time(nullptr));
        std::tm parts{};
        gmtime_r(&next, &parts);
        return parts;
    }

    CHost host;
};

}  // namespace

TEST_F(TenJobs, PipeAndRedirection) {
    Create({"--shell", R"(printf 'b\na\n' | sort > sorted)"});
    EXPECT_EQ(GoodRecord().at("trigger"), "schedule");
    EXPECT_EQ(ReadFile("sorted"), "a\nb\n");
}

TEST_F(TenJobs, ArgumentsWithBlanksAndQuotes) {
    Create({"--every", "1d", "--", "/usr/bin/printf", "<%s>", "a  b", "it's", "\"*\" $HOME"});
    GoodRecord();
    EXPECT_EQ(Output({"output", "job"}), "<a  b><it's><\"*\" $HOME>");
    EXPECT_EQ(Shown().at("command"),
              (json{"/usr/bin/printf", "<%s>", "a  b", "it's", "\"*\" $HOME"}));
    EXPECT_THAT(Output({"show", "job"}),
                HasSubstr(R"(/usr/bin/printf '<%s>' 'a  b' 'it'\''s' '"*" $HOME')"));
}

TEST_F(TenJobs, ScriptWithOptions) {
    WriteFile("clean up.py", "import sys; print(sys.argv[1:])");
    Create({"--", "/usr/bin/python3", fs::absolute("clean up.py"), "--days", "7"});
    GoodRecord();
    EXPECT_EQ(Output({"output", "job"}), "['--days', '7']\n");
}

TEST_F(TenJobs, AnotherUserInADirectoryWithAVariable) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root runs jobs as another user";
    ASSERT_NE(getpwnam("www-data"), nullptr);
    Create({"--user", "www-data", "--chdir", cUsersDirectory, "--env", "MODE=all of it", "--shell",
            "id -un; pwd; echo $MODE"});
    GoodRecord();
    EXPECT_EQ(Output({"output", "job"}),
              std::string("www-data\n") + cUsersDirectory + "\nall of it\n");
}

TEST_F(TenJobs, EveryQuarterOfAnHour) {
    Create({"--every", "15m", "--", "/bin/true"});
    EXPECT_EQ(Shown().at("next").get<long>() % 900, 0);
    EXPECT_LE(Shown().at("next"), std::time(nullptr) + 900);
    EXPECT_THAT(Output({"show", "job"}), HasSubstr("every 15 minutes"));
    RunNow();
}

TEST_F(TenJobs, WeekdaysInTheMorning) {
    Create({"--weekly", "mon-fri 08:30", "--zone", "UTC", "--", "/bin/true"});
    const std::tm next = NextLaunch();
    EXPECT_EQ(next.tm_hour, 8);
    EXPECT_EQ(next.tm_min, 30);
    EXPECT_GE(next.tm_wday, 1);
    EXPECT_LE(next.tm_wday, 5);
    RunNow();
}

TEST_F(TenJobs, FirstOfTheMonth) {
    Create({"--monthly", "1 08:30", "--zone", "UTC", "--", "/bin/true"});
    const std::tm next = NextLaunch();
    EXPECT_EQ(next.tm_mday, 1);
    EXPECT_EQ(next.tm_hour, 8);
    RunNow();
}

TEST_F(TenJobs, TimeLimitForAllThatItHasStarted) {
    Create(
        {"--timeout", "1s", "--kill-after", "1s", "--shell",
         "trap '' TERM; setsid sleep 1000 & echo $! > left; sh -c \"trap '' TERM; sleep 1000\" & "
         "echo $! > deaf; wait"});
    const json record = Record();
    EXPECT_EQ(record.at("timeLimit"), 1) << record;
    EXPECT_EQ(record.at("outcome"), "killed") << record;
    for (const char* const file : {"left", "deaf"})
        EXPECT_TRUE(vxsched::HasEnded(std::stoi(ReadFile(file)))) << file;
    EXPECT_THAT(Output({"history", "job", "--failed"}), HasSubstr("its time limit of 1s"));
}

TEST_F(TenJobs, NeverTwiceAtOnce) {
    Create({"--every", "1h", "--shell", "touch begun; while [ ! -e go ]; do sleep 0.01; done"});
    WaitUntil([] { return fs::exists("begun"); });
    Output({"edit", "job", "--at", "now"});
    EXPECT_EQ(Record().at("outcome"), "skipped");
    WriteFile("go", "");
    EXPECT_EQ(Record(2).at("status"), 0);
}

// A stand-in takes the place of the machine's sendmail.
TEST_F(TenJobs, FailureWithMail) {
    const std::string mail = fs::absolute("mail");
    fs::create_directory("bin");
    WriteFile("bin/sendmail",
              "#!/bin/sh\ncat > '" + mail + ".new'; mv '" + mail + ".new' '" + mail + "'\n");
    fs::permissions("bin/sendmail", fs::perms::owner_all);
    Create({"--mail", "root", "--env", "PATH=" + fs::absolute("bin").string() + ":/usr/bin:/bin",
            "--shell", "echo the disk is full; exit 3"});
    EXPECT_EQ(Record().at("status"), 3);
    WaitUntil([] { return fs::exists("mail"); });
    EXPECT_THAT(ReadFile("mail"), AllOf(HasSubstr("To: root\n"), HasSubstr("job"),
                                        HasSubstr("status 3"), HasSubstr("the disk is full\n")));
}
