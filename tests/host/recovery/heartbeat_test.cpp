// The uptime that a heartbeat file shows to the next host, also after the clock was set.

#include <gtest/gtest.h>
#include "host/recovery/CHeartbeat.h"

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "FakeSystem.h"
#include "Process.h"
#include "TableEntry.h"

using namespace std::chrono_literals;

namespace {

constexpr char cFile[] = "files/started/alive";
constexpr time_t cStart = 1'000'000;  // cNow, in seconds

// The system's clock and the boot of which it counts on; the test sets both.
struct TFakeClock {
    CFakeSystem system{cStart};

    TFakeClock() {
        std::filesystem::create_directories("files/started");
        std::filesystem::remove("files/started/alive");
        boot = {.id = "first", .time = 500'000s};
    }

    void Pass(std::chrono::seconds time) { system.now += time.count(); }

    // Sets the clock while time does not pass.
    void Set(std::chrono::seconds change) {
        system.now += change.count();
        boot.time += change;
    }

    static TBoot Boot() { return boot; }
    static inline TBoot boot;
};

// A host that begins its uptime now; it is killed at the end of its scope.
struct TKilledHost {
    CHeartbeat heartbeat{TFakeClock::Boot};

    explicit TKilledHost(const TFakeClock& clock) {
        heartbeat.Begin(vxsched::TTime(std::chrono::seconds(clock.system.now)));
    }
    static void Tick(const TFakeClock& clock) { CHeartbeat::Beat(clock.system.now); }
};

std::string PreviousUptime() {
    const CHeartbeat next(TFakeClock::Boot);
    const std::optional<TUptime>& uptime = next.PreviousUptime();
    if (!uptime)
        return "none";
    const auto seconds = [](vxsched::TTime time) { return std::to_string((time - cNow).count()); };
    return seconds(uptime->since) + " to " + seconds(uptime->until);
}

}  // namespace

TEST(Heartbeat, UptimeEndsATickAfterTheLastOne) {
    TFakeClock clock;
    EXPECT_EQ(PreviousUptime(), "none");
    {
        const TKilledHost host(clock);
        clock.Pass(100s);
        TKilledHost::Tick(clock);
    }
    clock.Pass(1h);
    EXPECT_EQ(PreviousUptime(), "0 to 160");
    EXPECT_EQ(PreviousUptime(), "0 to 160") << "a host that did not begin its uptime";
}

TEST(Heartbeat, UptimeEndsAtACleanStop) {
    TFakeClock clock;
    TKilledHost host(clock);
    clock.Pass(100s);
    host.heartbeat.Stop();
    clock.Pass(1h);
    EXPECT_EQ(PreviousUptime(), "0 to 100");
}

TEST(Heartbeat, ClockThatIsSetRightInTheUptimeCostsNothingOfIt) {
    TFakeClock clock;
    clock.Set(1h);
    {
        const TKilledHost host(clock);
        clock.Pass(60s);
        clock.Set(-1h);
        TKilledHost::Tick(clock);
        clock.Pass(600s);
        TKilledHost::Tick(clock);
    }
    clock.Pass(30s);
    EXPECT_EQ(PreviousUptime(), "60 to 720");
    clock.boot.id = "second";
    EXPECT_EQ(PreviousUptime(), "60 to 720");
}

TEST(Heartbeat, ClockThatWasSetRightBeforeTheNextTickToo) {
    TFakeClock clock;
    clock.Set(1h);
    {
        const TKilledHost host(clock);
        clock.Pass(60s);
        TKilledHost::Tick(clock);
        clock.Set(-1h);
    }
    clock.Pass(20min);
    EXPECT_EQ(PreviousUptime(), "0 to 120");
}

TEST(Heartbeat, ClockThatWasSetForwardAfterTheUptime) {
    TFakeClock clock;
    clock.Set(-1h);
    {
        const TKilledHost host(clock);
        clock.Pass(60s);
        TKilledHost::Tick(clock);
    }
    clock.Set(1h);
    clock.Pass(20min);
    EXPECT_EQ(PreviousUptime(), "-3600 to 120") << "what it saw, and when it was up";
}

// Nothing shows by how much the clock was ahead then.
TEST(Heartbeat, OfTheFutureInAnEarlierBootShowsNoUptime) {
    TFakeClock clock;
    clock.Set(1h);
    {
        const TKilledHost host(clock);
        clock.Pass(60s);
        TKilledHost::Tick(clock);
    }
    clock.Set(-1h);
    clock.boot.id = "second";
    EXPECT_EQ(PreviousUptime(), "none");
}

TEST(Heartbeat, ClockThatIsOnlyAdjustedMovesNothing) {
    TFakeClock clock;
    {
        const TKilledHost host(clock);
        clock.Pass(60s);
        TKilledHost::Tick(clock);
    }
    clock.boot.time += 400ms;
    clock.Pass(1h);
    EXPECT_EQ(PreviousUptime(), "0 to 120");
}

TEST(Heartbeat, BootOfTheSystemIsKnownAndIsItsClocksBeginning) {
    const TBoot boot = ReadBoot();
    EXPECT_EQ(boot.id.size(), 36U);
    EXPECT_GT(boot.time, 0s);
    EXPECT_EQ(ReadBoot().id, boot.id);
}

TEST(Heartbeat, IsWrittenOnceASecond) {
    TFakeClock clock;
    const TKilledHost host(clock);
    clock.Pass(100s);
    WriteFile(cFile, "");
    TKilledHost::Tick(clock);
    EXPECT_EQ(ReadFile(cFile).size(), 64U);
    WriteFile(cFile, "");
    TKilledHost::Tick(clock);
    EXPECT_EQ(ReadFile(cFile), "");
    clock.Pass(1s);
    TKilledHost::Tick(clock);
    EXPECT_EQ(ReadFile(cFile).size(), 64U);
}

TEST(Heartbeat, DamagedFileIsNoUptime) {
    TFakeClock clock;
    WriteFile(cFile, "too short");
    EXPECT_EQ(PreviousUptime(), "none");
    EXPECT_EQ(ReadFile(cFile).size(), 64U);
}

TEST(Heartbeat, MissingDirectoryIsReportedAndDoesNoHarm) {
    TFakeClock clock;
    std::filesystem::remove_all("files");
    testing::internal::CaptureStderr();
    TKilledHost host(clock);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("cannot write to files/started/alive: No such file or directory. If"),
              std::string::npos)
        << log;
    EXPECT_FALSE(host.heartbeat.PreviousUptime());
    clock.Pass(100s);
    TKilledHost::Tick(clock);
    host.heartbeat.Stop();
}
