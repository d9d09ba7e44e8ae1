#pragma once

#include <chrono>

#include "base/CDescriptor.h"

// Wakes the main loop when the worker has not ticked for too long, and only then: each tick
// restarts the timer, so an idle host wakes for its ticks alone. At most one exists at a time.
class CTickTimer {
public:
    // Starts the timer. If the system has no timer, the descriptor is closed and never readable.
    explicit CTickTimer(std::chrono::milliseconds limit);
    ~CTickTimer();
    CTickTimer(const CTickTimer&) = delete;
    CTickTimer& operator=(const CTickTimer&) = delete;

    // Readable once there was no tick for `limit`, until Restart().
    const CDescriptor& Descriptor() const { return timer; }

    // Any thread may call it.
    void Restart() const;

private:
    const std::chrono::milliseconds limit;
    const CDescriptor timer;
};

// Restarts the timer, if there is one. To be called on each thread that calls time(): such a call
// is a tick, unless the thread is one of the host's own (host/HostThread.h), for which this does
// nothing.
void RestartTickTimer();
