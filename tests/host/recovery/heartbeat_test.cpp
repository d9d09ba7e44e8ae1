// The heartbeat: the uptime that it leaves for the next host after a stop and after a kill, and
// when it is written.

#include <gtest/gtest.h>
#include "host/recovery/CHeartbeat.h"

#include <chrono>
#include <ctime>
#include <filesystem>
#include <optional>
#include <string>

#include "FakeSystem.h"
#include "Process.h"
#include "TableEntry.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

static constexpr char cFile[] = "files/started/alive";

class Heartbeat : public testing::Test {
protected:
    Heartbeat() { fs::create_directories("files/started"); }
    ~Heartbeat() override { fs::remove_all("files"); }

    CFakeSystem system{cNow.time_since_epoch().count()};
};

static std::optional<TUptime> UptimeOfThePreviousHost() {
    return CHeartbeat().PreviousUptime();
}

TEST_F(Heartbeat, FirstHostHasNoPreviousOne) {
    EXPECT_FALSE(UptimeOfThePreviousHost());
}

TEST_F(Heartbeat, UptimeOfAKilledHostEndsAMinuteAfterItsLastBeat) {
    {
        CHeartbeat killed;
        killed.Begin(Later(-100));
        CHeartbeat::Beat(Later(30).time_since_epoch().count());
    }
    const std::optional<TUptime> previous = UptimeOfThePreviousHost();
    ASSERT_TRUE(previous);
    EXPECT_EQ(previous->since, Later(-100));
    EXPECT_EQ(previous->until, Later(90));
}

TEST_F(Heartbeat, BeginIsABeat) {
    system.now += 1000;
    { CHeartbeat().Begin(Later(1000)); }
    const std::optional<TUptime> previous = UptimeOfThePreviousHost();
    ASSERT_TRUE(previous);
    EXPECT_EQ(previous->until, Later(1060));
}

TEST_F(Heartbeat, UptimeOfAStoppedHostEndsAtTheStop) {
    {
        CHeartbeat stopped;
        stopped.Begin(cNow);
        system.now += 500;
        stopped.Stop();
        CHeartbeat::Beat(system.now + 1);
    }
    const std::optional<TUptime> previous = UptimeOfThePreviousHost();
    ASSERT_TRUE(previous);
    EXPECT_EQ(previous->since, cNow);
    EXPECT_EQ(previous->until, Later(500));
}

TEST_F(Heartbeat, HostThatDidNotBeginLeavesThePreviousUptime) {
    {
        CHeartbeat killed;
        killed.Begin(Later(-7));
    }
    const std::string content = ReadFile(cFile);
    {
        const CHeartbeat neverBegun;
        CHeartbeat::Beat(Later(2000).time_since_epoch().count());
    }
    EXPECT_EQ(ReadFile(cFile), content);
}

TEST_F(Heartbeat, WithoutAnyUptimeNothingLiesInIt) {
    { const CHeartbeat first; }
    const std::optional<TUptime> previous = UptimeOfThePreviousHost();
    ASSERT_TRUE(previous);
    EXPECT_GT(previous->since, previous->until);
}

TEST_F(Heartbeat, IsWrittenOnceASecond) {
    CHeartbeat host;
    host.Begin(cNow);
    WriteFile(cFile, "");
    const std::time_t next = Later(3000).time_since_epoch().count();
    CHeartbeat::Beat(next);
    EXPECT_EQ(ReadFile(cFile).size(), 16U);
    WriteFile(cFile, "");
    CHeartbeat::Beat(next);
    EXPECT_EQ(ReadFile(cFile), "");
    CHeartbeat::Beat(next + 1);
    EXPECT_EQ(ReadFile(cFile).size(), 16U);
}

TEST_F(Heartbeat, DamagedFileIsNoUptime) {
    WriteFile(cFile, "too short");
    EXPECT_FALSE(UptimeOfThePreviousHost());
    EXPECT_EQ(ReadFile(cFile).size(), 16U);
}

TEST_F(Heartbeat, MissingDirectoryIsReportedAndDoesNoHarm) {
    fs::remove_all("files");
    testing::internal::CaptureStderr();
    CHeartbeat host;
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("cannot write to files/started/alive: No such file or directory. If"),
              std::string::npos)
        << log;
    EXPECT_FALSE(host.PreviousUptime());
    host.Begin(cNow);
    CHeartbeat::Beat(Later(4000).time_since_epoch().count());
    host.Stop();
}
