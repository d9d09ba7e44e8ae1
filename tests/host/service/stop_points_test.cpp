// A host that is stopped at a system call of its startup, or once more at one of its stop, whichever
// that is.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "TableFile.h"
#include "TracedProgram.h"

// How many calls are tried, at equal distances.
static constexpr long cTriedOfStartup = 40;
static constexpr long cTriedOfStop = 10;

static void Terminate(pid_t victim) {
    kill(victim, SIGTERM);
}

static void WriteTasks() {
    WriteTable({{"later", std::time(nullptr) + 3600, 0, 24, cRecorder, "", 0},
                {"missed", 1'000'000'000, 0, 24, cRecorder, "", 0}});
}

// Waits until the host has had its signal or is ready: how many calls its startup makes varies.
static void WaitForSignalOrReadiness(const CTracedProgram& host) {
    WaitUntil([&] {
        return host.IsKilled() || HasEnded(host.Id()) ||
               host.Output().find(" as process ") != std::string::npos;
    });
}

static void ExpectNextHostToWork() {
    CProgram next(HostWith({"--run-once"}));
    ASSERT_EQ(next.Wait(), 0) << next.Output();
    EXPECT_EQ(NamesInTable(), "later missed");
}

// Stops a host at that call of its startup, or when it is ready. It does not end by itself, so one
// that ignores the signal lets the time-out end the test. Returns how many calls it has made up to
// the signal.
static long StopInStartup(long call) {
    WriteTasks();
    CTracedProgram host(HostWith({}), {.killAt = call, .meanwhile = Terminate});
    WaitForSignalOrReadiness(host);
    const long calls = host.Calls();
    if (!host.IsKilled())
        Terminate(host.Id());
    const int result = host.Wait();
    // Before the host has blocked its signals, the default action ends it.
    EXPECT_TRUE(result == 0 || result == 1000 + SIGTERM) << result << " at " << host.At() << '\n'
                                                         << host.Output();
    return calls;
}

struct TStop {
    long calls;  // that the stop has made
    bool wasSentAgain;
};

// Stops a host that is ready, and sends it the signal again at that call of its stop, or not again for
// 0.
static TStop StopTwice(long call) {
    WriteTasks();
    CTracedProgram host(HostWith({}),
                        {.killAt = call, .countsAtOnce = false, .meanwhile = Terminate});
    WaitForSignalOrReadiness(host);
    host.Count();
    Terminate(host.Id());
    EXPECT_EQ(host.Wait(), 0) << " at " << host.At() << '\n' << host.Output();
    return {host.Calls(), host.IsKilled()};
}

TEST(HostStop, AtEachCallOfItsStartupEndsTheHostAndLeavesAStoreThatTheNextOneUses) {
    const long count = StopInStartup(0);
    ASSERT_GT(count, cTriedOfStartup);
    for (long call = 1; call <= count; call += count / cTriedOfStartup) {
        SCOPED_TRACE("a stop at call " + std::to_string(call));
        StopInStartup(call);
        ExpectNextHostToWork();
    }
}

TEST(HostStop, OnceMoreAtEachCallOfItsStopLeavesAStoreThatTheNextOneUses) {
    const long count = StopTwice(0).calls;
    int sentAgain = 0;
    ASSERT_GT(count, cTriedOfStop);
    for (long call = 1; call <= count; call += count / cTriedOfStop) {
        SCOPED_TRACE("a second stop at call " + std::to_string(call));
        sentAgain += StopTwice(call).wasSentAgain ? 1 : 0;
        ExpectNextHostToWork();
    }
    EXPECT_GT(sentAgain, cTriedOfStop / 2);
}
