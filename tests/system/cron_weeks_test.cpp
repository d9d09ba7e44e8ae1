// The same crontab is run by Debian's cron and by a real host, over the changes of a zone's clock.
// cron's clock is libfaketime's, the host's is that of the tests; both stand still until the test
// sets them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "HostClock.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t cMinute = 60;
constexpr std::int64_t cDay = 24 * 60 * cMinute;

// A zone and the days over which its clock changes.
struct TChange {
    const char* name;
    const char* zone;
    std::int64_t start;  // a midnight of the zone
    int days;
    // cron launches a fixed expression once for each of its times that is skipped, the host once for
    // all: what cron has launched besides.
    std::string repeatedByCron;
};

void PrintTo(const TChange& change, std::ostream* stream) {
    *stream << change.name;
}

// Fixed times around the hours that are skipped and repeated, and what follows real time.
const std::vector<std::string> cExpressions = {
    "*/15 * * * *",  "7-59/20 * * * *", "@hourly",          "30 * * * *",   "0 */2 * * *",
    "59 0 * * *",    "0 1 * * *",       "30 1 * * *",       "59 1 * * *",   "0 2 * * *",
    "10 2 * * *",    "30 2 * * *",      "59 2 * * *",       "0 3 * * *",    "30 3 * * *",
    "15,45 2 * * *", "30 1-3 * * *",    "0-10/5 2,3 * * 7", "*/10 2 * * *", "* 2 * * 0",
    "45 1 * * sun",  "15 2 * * sun",    "30 2 * * mon-fri", "5 2 28 3 *",   "5 2 31 10 *",
    "15 2 1-31 * *", "30 2 */2 * 0",    "30 2 1,15 * sun",  "0 0 * * *",    "30 0 * * *",
    "30 23 * * *",   "@daily",          "@weekly",          "@monthly",
};

// Of each the number of the expression and the second at which its minute begins.
using TLaunches = std::multiset<std::string>;

// cron, with no crontab but that of the test. It cannot be run without root.
class CCron : public CProgram {
public:
    // Waits until it sleeps to the end of the minute that the clock shows.
    CCron(const char* zone, const std::string& crontab) : CProgram(Command(zone, crontab)) {
        WaitUntil([&] {
            return ReadFile("/proc/" + std::to_string(Id()) + "/syscall")
                .starts_with(std::to_string(SYS_clock_nanosleep) + ' ');
        });
    }

    // Has it launch what is due in the minute that the clock shows, to the end of all jobs. The last
    // job of the crontab, which is due each minute, writes a line to the file "beats".
    void LaunchMinute(bool doesTheClockChange) {
        ++beats;
        while (CountLines("beats") < beats)
            EndSleep();
        // What the change has skipped is launched minute by minute, with a sleep after each.
        for (int sleeps = 0; doesTheClockChange && sleeps < 300; ++sleeps)
            EndSleep();
        const std::string id = std::to_string(Id());
        WaitUntil([&] { return ReadFile("/proc/" + id + "/task/" + id + "/children").empty(); });
    }

private:
    // A signal that arrives before the sleep has no effect on it.
    void EndSleep() const {
        Kill(SIGHUP);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }

    static std::vector<std::string> Command(const char* zone, const std::string& crontab) {
        for (const char* const directory : {"/var/spool/cron", "/run", "/etc/cron.d", "/etc/pam.d"})
            EXPECT_EQ(mount("none", directory, "tmpfs", 0, "mode=755"), 0) << directory;
        // Loading the modules of the machine's sessions would take most of the time of each job.
        WriteFile("/etc/pam.d/cron",
                  "auth required pam_permit.so\naccount required pam_permit.so\n"
                  "session required pam_permit.so\n");
        WriteFile("nothing", "");
        if (fs::exists("/etc/crontab")) {
            EXPECT_EQ(mount("nothing", "/etc/crontab", nullptr, MS_BIND, nullptr), 0);
        }
        fs::create_directory("/var/spool/cron/crontabs");
        const char* const path = "/var/spool/cron/crontabs/root";
        WriteFile(path, crontab);
        chmod(path, 0600);
        return {"/usr/bin/env",
                "-i",
                "LD_PRELOAD=/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1",
                "FAKETIME_TIMESTAMP_FILE=" + fs::absolute("clock").string(),
                "FAKETIME_FMT=%s",
                "FAKETIME_NO_CACHE=1",
                "NO_FAKE_STAT=1",
                "TZ=" + std::string(zone),
                "PATH=/usr/sbin:/usr/bin:/sbin:/bin",
                "/usr/sbin/cron",
                "-f"};
    }

    std::size_t beats = 0;
};

class CronWeeks : public testing::TestWithParam<TChange> {
protected:
    static std::int64_t Start() { return GetParam().start; }
    static std::int64_t End() { return Start() + GetParam().days * cDay; }

    static std::string Crontab() {
        std::string text = "SHELL=/bin/sh\nMAILTO=\"\"\nHOME=" + fs::current_path().string() + '\n';
        for (std::size_t number = 0; number < cExpressions.size(); ++number)
            text += cExpressions[number] + " read t < clock; echo " + std::to_string(number) +
                    " $t >> launches\n";
        return text + "* * * * * echo >> beats\n";
    }

    static std::int64_t OffsetAt(std::int64_t time) {
        std::tm local{};
        localtime_r(&time, &local);
        return local.tm_gmtoff;
    }

    // The seconds are cut off: cron is a second late.
    static TLaunches TakeLaunches() {
        TLaunches launches;
        std::ifstream file("launches");
        std::string number;
        for (std::int64_t time = 0; file >> number >> time;) {
            if (time < End())
                launches.insert(number + ' ' + std::to_string(time / cMinute * cMinute));
        }
        file.close();
        fs::remove("launches");
        return launches;
    }

    static TLaunches LaunchesOfCron() {
        SetClock(Start() - cMinute + 1);
        CCron cron(GetParam().zone, Crontab());
        for (std::int64_t time = Start(); time < End(); time += cMinute) {
            SetClock(time + 1);
            cron.LaunchMinute(OffsetAt(time) != OffsetAt(time - cMinute));
        }
        cron.Kill(SIGTERM);
        cron.Wait();
        return TakeLaunches();
    }

    static TLaunches LaunchesOfTheHost() {
        SetClock(Start() - cMinute + 1);
        for (std::size_t number = 0; number < cExpressions.size(); ++number) {
            const TToolRun created =
                RunTool({"create", std::to_string(number), "--cron", cExpressions[number], "--zone",
                         GetParam().zone, "--overlap", "allow", "--shell",
                         "echo $VXSCHED_TASK $VXSCHED_DUE >> launches"});
            EXPECT_EQ(created.status, 0) << created.error;
        }
        CHost host;
        for (TRows rows = ReadTable();;) {
            std::int64_t next = End();
            for (const TRow& row : rows)
                next = std::min(next, row.next);
            if (next == End())
                break;
            rows = TickAt(next);
        }
        StopWithItsJobs(host);
        EXPECT_EQ(host.CountInOutput("missed"), 0U) << host.Output();
        return TakeLaunches();
    }

    // By expression and local time, for a person who reads of a failure.
    static std::string Shown(const TLaunches& launches) {
        std::string text;
        for (const std::string& launch : launches) {
            const std::size_t blank = launch.find(' ');
            const std::time_t time = std::stoll(launch.substr(blank));
            std::tm local{};
            char shown[64] = {};
            std::strftime(shown, sizeof shown, "%F %T %Z", localtime_r(&time, &local));
            text += cExpressions.at(std::stoul(launch)) + " at " + shown + '\n';
        }
        return text;
    }

    static TLaunches Without(const TLaunches& all, const TLaunches& others) {
        TLaunches rest;
        std::ranges::set_difference(all, others, std::inserter(rest, rest.end()));
        return rest;
    }
};

}  // namespace

TEST_P(CronWeeks, HaveTheSameLaunches) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can run cron";
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        GTEST_SKIP() << cCannotMount;
    setenv("TZ", GetParam().zone, 1);
    tzset();
    fs::create_directory("files");
    UseHostClock(Start());
    const TLaunches ofTheHost = LaunchesOfTheHost();
    const TLaunches ofCron = LaunchesOfCron();
    EXPECT_EQ(Shown(Without(ofCron, ofTheHost)), GetParam().repeatedByCron);
    EXPECT_EQ(Shown(Without(ofTheHost, ofCron)), "");
    EXPECT_GT(ofTheHost.size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(
    Change, CronWeeks,
    testing::Values(TChange{"Forward", "Europe/Berlin", 1805929200, 7,
                            "15,45 2 * * * at 2027-03-28 03:00:00 CEST\n"
                            "0-10/5 2,3 * * 7 at 2027-03-28 03:00:00 CEST\n"
                            "0-10/5 2,3 * * 7 at 2027-03-28 03:00:00 CEST\n"
                            "0-10/5 2,3 * * 7 at 2027-03-28 03:00:00 CEST\n"},
                    TChange{"Back", "Europe/Berlin", 1824674400, 7, ""},
                    TChange{"ForwardByHalfAnHour", "Australia/Lord_Howe", 1822397400, 2,
                            "0-10/5 2,3 * * 7 at 2027-10-03 02:30:00 +11\n"
                            "0-10/5 2,3 * * 7 at 2027-10-03 02:30:00 +11\n"},
                    TChange{"BackByHalfAnHour", "Australia/Lord_Howe", 1806670800, 2, ""},
                    TChange{"ForwardAtMidnight", "America/Santiago", 1820030400, 2, ""},
                    TChange{"BackAtMidnight", "America/Santiago", 1806721200, 2, ""}),
    [](const auto& change) { return std::string(change.param.name); });
