#pragma once

#include <chrono>

#include "base/CDescriptor.h"

// Wakes the main loop when the worker has not ticked for longer than usual, and only then: each tick
// pushes the timer on, so that a host at rest wakes for its ticks alone. There is one at a time.
class CTickTimer {
public:
    // Without a timer in the system, the descriptor is closed and never readable.
    explicit CTickTimer(std::chrono::milliseconds longest);
    ~CTickTimer();
    CTickTimer(const CTickTimer&) = delete;
    CTickTimer& operator=(const CTickTimer&) = delete;

    // Readable when there was no tick for so long.
    const CDescriptor& Descriptor() const { return timer; }

    // From the beginning, by the thread that reads the descriptor or the one that ticks.
    void Push() const;

private:
    const std::chrono::milliseconds limit;
    const CDescriptor timer;
};

// A tick asks for the time. The calling thread has asked for it: that is a tick, unless the thread is
// one of the host's own (host/HostThread.h). Pushes the timer on, if there is one.
void PushTickTimer();
