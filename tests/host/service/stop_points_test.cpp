// A host that is stopped at a system call of its startup or of its stop, whichever that is.

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
static constexpr long cTried = 40;

// Runs a host that ends by itself, with a signal at that call, or without one for 0. Returns how many
// calls it has made up to the signal.
static long StopAt(long call) {
    WriteTable({{"later", std::time(nullptr) + 3600, 0, 24, cRecorder, "", 0},
                {"missed", 1'000'000'000, 0, 24, cRecorder, "", 0}});
    CTracedProgram host(HostWith({"--run-once"}),
                        {.killAt = call, .meanwhile = [](pid_t victim) { kill(victim, SIGTERM); }});
    const int result = host.Wait();
    // Before the host has blocked its signals, the default action ends it.
    EXPECT_TRUE(result == 0 || result == 1000 + SIGTERM) << result << " at " << host.At() << '\n'
                                                         << host.Output();
    return host.Calls();
}

TEST(HostStop, AtEachCallEndsTheHostAndLeavesAStoreThatTheNextOneUses) {
    const long count = StopAt(0);
    ASSERT_GT(count, cTried);
    for (long call = 1; call <= count; call += count / cTried) {
        StopAt(call);
        CProgram next(HostWith({"--run-once"}));
        ASSERT_EQ(next.Wait(), 0) << "after a stop at call " << call << ": " << next.Output();
        EXPECT_EQ(NamesInTable(), "later missed");
    }
}
