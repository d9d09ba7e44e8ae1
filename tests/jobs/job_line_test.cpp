// The line of a job: reading and writing it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "jobs/JobLine.h"

#include <string>
#include <utility>
#include <vector>

#include "jobs/CJobError.h"
#include "jobs/JobOptions.h"

using namespace std::chrono_literals;

using testing::ElementsAre;
using testing::HasSubstr;
using vxsched::JobLine;
using vxsched::ReadJobLine;
using vxsched::TJob;

static TJob FullJob() {
    TJob job;
    job.task = "nightly dump";
    job.command = {"/usr/bin/python3", "/srv/clean up.py", "--days", "7", ""};
    job.cron = "30 2 * * mon-fri";
    job.zone = "Europe/Berlin";
    job.catchUp = 2h;
    job.until = std::chrono::sys_seconds(1'795'271'400s);
    job.user = "www-data";
    job.group = "33";
    job.directory = "/var/www";
    job.umask = 027;
    job.environment = {"A=b c", "EMPTY="};
    job.environmentFiles = {"/etc/default/x", "/etc/y"};
    job.timeout = 2h + 30min;
    job.killAfter = 90s;
    job.success = {0, 3};
    job.overlap = TJob::cAllow;
    job.randomDelay = 10min;
    job.retries = 3;
    job.backoff = 90s;
    job.onFailure = "logger failed";
    job.onSuccess = "true";
    job.onRecovery = "logger again";
    job.mail = "root";
    return job;
}

TEST(JobLine, OfEachOptionIsReadBack) {
    EXPECT_EQ(
        JobLine(FullJob()),
        "--task 'nightly dump' --cron '30 2 * * mon-fri' --zone Europe/Berlin --catch-up=2h "
        "--until 2026-11-21T14:30:00.000Z --user www-data --group 33 --chdir /var/www --umask 027 "
        "--env 'A=b c' --env EMPTY= --env-file /etc/default/x --env-file /etc/y --timeout "
        "2h30m --kill-after 1m30s --overlap allow --random-delay 10m --success 0,3 --retry 3 "
        "--backoff 1m30s "
        "--on-failure 'logger failed' --on-success true --on-recovery 'logger again' --mail root "
        "-- /usr/bin/python3 '/srv/clean up.py' --days 7 ''");
    EXPECT_EQ(ReadJobLine(JobLine(FullJob())), FullJob());
}

TEST(JobLine, OfATextForAShellIsReadBack) {
    TJob job;
    job.shell = "pg_dump db | gzip > 'a b'";
    EXPECT_EQ(JobLine(job), R"(--shell 'pg_dump db | gzip > '\''a b'\''')");
    EXPECT_EQ(ReadJobLine(JobLine(job)), job);
    EXPECT_THAT(CommandOf(job), ElementsAre("/bin/sh", "-c", *job.shell));
}

// Its value is optional, so that the next word is not its value.
TEST(JobLine, TakesTheLimitOfALaunchThatIsCaughtUpWithAnEqualsSignOnly) {
    EXPECT_EQ(ReadJobLine("--catch-up /bin/echo 2h").catchUp, vxsched::cAnyDelay);
    EXPECT_THAT(ReadJobLine("--catch-up 2h").command, ElementsAre("2h"));
    EXPECT_EQ(ReadJobLine("--catch-up=any /bin/echo").catchUp, vxsched::cAnyDelay);
    EXPECT_EQ(ReadJobLine("--catch-up=no /bin/echo").catchUp, std::nullopt);
    TJob job;
    job.command = {"/bin/echo"};
    job.catchUp = vxsched::cAnyDelay;
    EXPECT_EQ(JobLine(job), "--catch-up -- /bin/echo");
    EXPECT_EQ(ReadJobLine(JobLine(job)), job);
}

TEST(JobLine, NeedsNoSeparatorBeforeAProgramAndNoEqualsSign) {
    const TJob job = ReadJobLine("--timeout=90s --umask 22 /bin/echo --user -- x");
    EXPECT_EQ(job.timeout, 90s);
    EXPECT_EQ(job.umask, 022U);
    EXPECT_EQ(job.user, "");
    EXPECT_THAT(job.command, ElementsAre("/bin/echo", "--user", "--", "x"));
}

TEST(JobLine, MayHaveAProgramThatLooksLikeAnOption) {
    EXPECT_THAT(ReadJobLine("-- --x").command, ElementsAre("--x"));
}

TEST(JobLine, ThatIsWrongIsRefusedWithTheReason) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "there is no program"},
        {"--task x", "there is no program"},
        {"--task x --", "there is no program"},
        {"''", "the program's path is empty"},
        {"--timeuot 2h -- /bin/true", "unknown option \"--timeuot\""},
        {"-t 2h /bin/true", "unknown option \"-t\""},
        {"--timeout", "--timeout has no value; give it a DURATION"},
        {"--task '' -- /bin/true", "--task \"\": give a value that is not empty"},
        {"--task a --task b -- /bin/true", "--task is given twice"},
        {"--timeout 5 -- /bin/true", "--timeout \"5\": give a duration"},
        {"--mail 'a\nb' -- /bin/true", "give an address of ASCII characters"},
        {"--mail '' -- /bin/true", "give an address of ASCII characters"},
        {"--on-failure '' -- /bin/true", "--on-failure \"\": give a value that is not empty"},
        {"--retry 101 -- /bin/true", "--retry \"101\": give a number from 0 to 100"},
        {"--retry -1 -- /bin/true", "--retry \"-1\": give a number from 0 to 100"},
        {"--backoff 1 -- /bin/true", "--backoff \"1\": give a duration from 0s"},
        {"--timeout 0s -- /bin/true", "--timeout \"0s\": give a duration"},
        {"--timeout 3651d -- /bin/true", "--timeout \"3651d\": give a duration"},
        {"--timeout '5m\n' -- /bin/true", "give a duration"},
        {"--umask 1000 -- /bin/true", "--umask \"1000\": give an octal number"},
        {"--umask 8 -- /bin/true", "give an octal number"},
        {"--umask '' -- /bin/true", "give an octal number"},
        {"--chdir tmp -- /bin/true", "--chdir \"tmp\": give an absolute path"},
        {"--env-file x -- /bin/true", "--env-file \"x\": give an absolute path"},
        {"--env NAME -- /bin/true", "--env \"NAME\": give NAME=VALUE"},
        {"--env =x -- /bin/true", "--env \"=x\": give NAME=VALUE"},
        {"--success 0,256 -- /bin/true", "--success \"0,256\": give exit statuses"},
        {"--success 0, -- /bin/true", "give exit statuses"},
        {"--success ,, -- /bin/true", "give exit statuses"},
        {"--overlap maybe -- /bin/true", "--overlap \"maybe\": give skip, queue, allow or replace"},
        {"--cron '61 * * * *' -- /bin/true", "--cron \"61 * * * *\": "},
        {"--cron '0 0 30 feb *' -- /bin/true", "never"},
        {"--catch-up=soon -- /bin/true", "--catch-up \"soon\": give a duration"},
        {"--until tomorrow -- /bin/true", "--until \"tomorrow\": "},
        {"--shell x -- /bin/true", "--shell and a program, \"/bin/true\"; give one of them"},
        {"--shell '' ", "--shell \"\": give a value that is not empty"},
        {"-- '/bin/true", "is not closed"},
    };
    for (const auto& [line, reason] : cases) {
        try {
            ReadJobLine(line);
            ADD_FAILURE() << line;
        } catch (const vxsched::CJobError& error) {
            EXPECT_THAT(error.what(), HasSubstr(reason)) << line;
        }
    }
}

TEST(JobOptions, AreClearedOneByOne) {
    for (const vxsched::TJobOption& option : vxsched::cJobOptions) {
        TJob job = FullJob();
        ClearJobOption(job, option);
        EXPECT_THAT(option.values(job), ElementsAre()) << option.name;
        for (const vxsched::TJobOption& other : vxsched::cJobOptions) {
            if (&other != &option) {
                EXPECT_EQ(other.values(job), other.values(FullJob())) << other.name;
            }
        }
        EXPECT_EQ(job.command, FullJob().command);
    }
}

TEST(IsRunner, GoesByTheNameOfTheProgram) {
    EXPECT_TRUE(vxsched::IsRunner("/usr/bin/vxrun"));
    EXPECT_TRUE(vxsched::IsRunner("vxrun"));
    EXPECT_FALSE(vxsched::IsRunner("/usr/bin/vxrun2"));
    EXPECT_FALSE(vxsched::IsRunner("/usr/vxrun/x"));
    EXPECT_FALSE(vxsched::IsRunner(""));
}
