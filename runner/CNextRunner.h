#pragma once

#include <sys/types.h>

#include "base/CDescriptor.h"

// A copy of this process that makes the next attempt of a job, so that each runner has one run and the
// processes of that run alone as its children. The run of one is under way before that of the other is
// recorded. For a process of one thread that blocks SIGTERM.
class CNextRunner {
public:
    CNextRunner() = default;
    CNextRunner(const CNextRunner&) = delete;
    CNextRunner& operator=(const CNextRunner&) = delete;
    CNextRunner(CNextRunner&&) = default;
    CNextRunner& operator=(CNextRunner&&) = default;

    // What fork() returns.
    pid_t Fork();

    // ---- In the copy ----

    // Its run is under way. Waits until that of the other process is recorded, or that process has died.
    void Begin();

    // ---- In this process ----

    // Waits until the copy's run is under way, or the copy has died.
    void WaitForBegin();

    // This process's run is recorded. A stop that came meanwhile is for the copy.
    void Release();

    // Waits for the copy's end and ends this process as it has ended. A stop is for the copy.
    [[noreturn]] void EndAsIt();

private:
    void Wait();

    CDescriptor link;  // to the other process
    pid_t copy = 0;
};
