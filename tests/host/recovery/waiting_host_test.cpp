// The heartbeat of a real host whose worker waits for the store mutex.

#include <gtest/gtest.h>
#include "store/CStoreMutexLock.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

static constexpr char cHeartbeat[] = "files/started/alive";

static std::int64_t LastHeartbeat() {
    const std::string bytes = ReadFile(cHeartbeat);
    std::int64_t last = 0;
    std::memcpy(&last, bytes.data(), std::min(bytes.size(), sizeof last));
    return last;
}

// As after a wait of an hour in which the host has written no heartbeat.
static void AgeHeartbeat() {
    const std::int64_t last = LastHeartbeat() - 3600;
    std::array<char, sizeof last> bytes{};
    std::memcpy(bytes.data(), &last, sizeof last);
    std::fstream(cHeartbeat, std::ios::in | std::ios::out | std::ios::binary)
        .write(bytes.data(), bytes.size());
}

// Three times, since the log of the wait may write a heartbeat as well.
static void WaitForHeartbeats() {
    for (int heartbeat = 0; heartbeat < 3; ++heartbeat) {
        AgeHeartbeat();
        const std::int64_t aged = LastHeartbeat();
        WaitUntil([&] { return LastHeartbeat() > aged; });
    }
}

TEST(WaitingHost, IsUpWhileItsWorkerWaitsForTheStoreMutex) {
    WriteTable({Row("a")});
    TRow due = {"a", 0, 0, 24, cRecorder, "a parameter", 0};
    {
        CHost host;
        const vxsched::CStoreMutexLock lock(10s);
        due.next = std::time(nullptr);
        WriteTable({due});
        WakeChanged();
        WaitUntil([] { return !WorkerIsIdle(); });
        WaitForHeartbeats();
        host.Kill(SIGKILL);
        host.Wait();
    }
    CHost next;
    EXPECT_EQ(RecordedArgument("a parameter"), "argument a parameter");
    EXPECT_EQ(next.Stop(), 0);
    EXPECT_EQ(next.CountInOutput("while the previous host was up"), 1U) << next.Output();
    EXPECT_EQ(next.CountInOutput("missed"), 0U) << next.Output();
}
