#include "HostClock.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "StoreSemaphore.h"
#include "Tool.h"

void UseHostClock(std::int64_t time) {
    for (const auto& [name, value] : WithInterposedSystem())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("FAKE_TIME", std::filesystem::absolute("clock").c_str(), 1);
    SetClock(time);
}

void SetClock(std::int64_t time) {
    WriteFile("clock.new", std::to_string(time));
    std::filesystem::rename("clock.new", "clock");
}

TRows TickAt(std::int64_t time) {
    WaitUntil(WorkerIsIdle);
    SetClock(time);
    WakeWorker();
    WaitUntil(WorkerIsIdle);
    return ReadTable();
}

void StopWithItsJobs(CHost& host) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    EXPECT_EQ(host.Stop(), 0);
    while (wait(nullptr) > 0) {
    }
}
