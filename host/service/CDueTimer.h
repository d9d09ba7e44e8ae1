#pragma once

#include <chrono>
#include <mutex>
#include <optional>

#include "base/CDescriptor.h"
#include "host/service/CDueWake.h"

// Wakes the main loop when a task falls due, and when the system clock is set, so that it wakes the
// worker (CDueWake). It follows the system clock, also over a suspend of the machine, and expires
// for nothing else, so an idle host does not wake up.
class CDueTimer {
public:
    // If the system has no such timer, the descriptor is closed and never readable: tasks are then
    // launched by the worker's own tick, once a minute.
    CDueTimer();

    // Readable when TakeWake() should be called.
    const CDescriptor& Descriptor() const { return timer; }

    // The table was read after a change: its earliest due time, none if no task is active. Any
    // thread may call it; does not block.
    void TableChanged(std::optional<std::chrono::sys_seconds> due);

    // Whether the worker is to be woken now; false if the clock was set, or another call of
    // TableChanged() came first. Does not block.
    bool TakeWake();

private:
    void Arm();  // the caller holds `mutex`

    const CDescriptor timer;
    std::mutex mutex;  // a leaf; guards `wake` and the setting of the timer
    CDueWake wake;
};
