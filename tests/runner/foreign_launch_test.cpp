// A job with a calendar as the program of a host that does not know of calendars, which passes it one
// argument and nothing else.

#include <gtest/gtest.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"
#include "runs/HistoryReader.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t cMinute = 60;
constexpr std::int64_t cHour = 60 * cMinute;
constexpr std::int64_t cNow = 1795271400;  // 2026-11-21 14:30:00 UTC

class ForeignLaunch : public testing::Test {
protected:
    ForeignLaunch() {
        fs::create_directory("files");
        MakeStoreMutex();  // as the host's load
        for (const auto& [name, value] : AtTime(cNow))
            setenv(name.c_str(), value.c_str(), 1);
        unsetenv("VXSCHED_TASK");
        unsetenv("VXSCHED_DUE");
    }

    static std::string Line(const std::string& cron) {
        return "--task job --cron '" + cron + "' --zone UTC -- /bin/touch launched";
    }

    static TRow Job(const std::string& cron, std::int64_t due, std::int64_t last) {
        return {"job", due, last, 1, RUNNER_PROGRAM, Line(cron), 0};
    }

    // As the host's tick does, which holds the mutex and saves the table at its end.
    void Launch(const std::string& cron, std::int64_t due, std::int64_t last) {
        const vxsched::CStoreMutexLock lock(std::chrono::seconds(10));
        WriteTable({Job(cron, due, last), cOther});
        Run(cron);
        const std::int64_t next = due + ((cNow - due) / cHour + 1) * cHour;
        WriteTable({Job(cron, next, cNow), cOther});
    }

    static void Run(const std::string& cron) {
        CProgram runner({RUNNER_PROGRAM, Line(cron)});
        EXPECT_EQ(runner.Wait(), 0) << runner.Output();
        EXPECT_EQ(runner.Output(), "");
    }

    static void WaitForDueTime(std::int64_t due) {
        WaitUntil([&] { return ReadTable().at(0).next == due; });
    }

    const TRow cOther{"other", cNow - cMinute, 0, 1, "/bin/true", "", 0};

    static bool IsLaunched() { return fs::exists("launched"); }

    static std::vector<TRunRecord> History() { return vxsched::ReadHistory(".", {}).runs; }
};

}  // namespace

TEST_F(ForeignLaunch, AtALaunchTimeIsMadeAndSetsTheNextOne) {
    Launch("30 */6 * * *", cNow - 2 * cHour, 0);
    EXPECT_TRUE(IsLaunched());
    ASSERT_EQ(History().size(), 1U);
    EXPECT_EQ(History()[0].due, std::chrono::sys_seconds(std::chrono::seconds(cNow - 2 * cHour)));
    EXPECT_EQ(History()[0].trigger, cScheduled);
    WaitForDueTime(cNow + 4 * cHour);
    EXPECT_EQ(ReadTable()[1], cOther);
}

TEST_F(ForeignLaunch, BetweenLaunchTimesIsNone) {
    Launch("0 */6 * * *", cNow, cNow - cHour);
    EXPECT_FALSE(IsLaunched());
    EXPECT_EQ(History().size(), 0U);
    WaitForDueTime(cNow + 3 * cHour + cHour / 2);
}

// The task could not be rescheduled after its launch an hour ago.
TEST_F(ForeignLaunch, IsMadeForATimeSinceTheLastOne) {
    Launch("0 14 * * *", cNow, cNow - cHour);
    EXPECT_TRUE(IsLaunched());
    EXPECT_EQ(History().at(0).due,
              std::chrono::sys_seconds(std::chrono::seconds(cNow - 30 * cMinute)));
    WaitForDueTime(cNow + 23 * cHour + cHour / 2);
}

TEST_F(ForeignLaunch, OfATickThatHasSavedIsForTheDueTimeBefore) {
    WriteTable({Job("30 14 * * *", cNow + cHour, cNow)});
    Run("30 14 * * *");
    EXPECT_TRUE(IsLaunched());
    EXPECT_EQ(History().at(0).due, std::chrono::sys_seconds(std::chrono::seconds(cNow)));
    WaitForDueTime(cNow + 24 * cHour);
}

TEST_F(ForeignLaunch, LeavesATaskPausedThatIsPausedMeanwhile) {
    TRow row = Job("30 14 * * *", cNow + cHour, cNow);
    row.paused = 1;
    WriteTable({row});
    Run("30 14 * * *");
    WaitForDueTime(cNow + 24 * cHour);
    EXPECT_EQ(ReadTable()[0].paused, 1U);
}

TEST_F(ForeignLaunch, OfALineWithoutATaskIsThatOfTheTaskThatHasIt) {
    const std::string line = "--cron '30 14 * * *' --zone UTC -- /bin/touch launched";
    WriteTable({{"nightly", cNow + cHour, cNow, 1, RUNNER_PROGRAM, line, 0}});
    CProgram runner({RUNNER_PROGRAM, line});
    EXPECT_EQ(runner.Wait(), 0) << runner.Output();
    EXPECT_TRUE(History().at(0).task == "nightly");
    WaitForDueTime(cNow + 24 * cHour);
}

// A person who tries a job wants it executed.
TEST_F(ForeignLaunch, IsNotOneWithSeveralArguments) {
    CProgram runner(
        {RUNNER_PROGRAM, "--task", "job", "--cron", "0 3 * * *", "--", "/bin/touch", "launched"});
    EXPECT_EQ(runner.Wait(), 0) << runner.Output();
    EXPECT_TRUE(IsLaunched());
}

TEST_F(ForeignLaunch, IsNotOneOfALauncherThatNamesTheTask) {
    setenv("VXSCHED_TASK", "job", 1);
    CProgram runner({RUNNER_PROGRAM, Line("0 3 * * *")});
    EXPECT_EQ(runner.Wait(), 0) << runner.Output();
    EXPECT_TRUE(IsLaunched());
}
