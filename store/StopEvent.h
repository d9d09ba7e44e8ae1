#pragma once

#include <CEvent.h>

// The name of the event that the add-in's worker waits for between ticks; a signal makes it tick at
// once.
inline constexpr char cStopEventName[] = "libVantrixScheduler.so";

// Whether a worker of this IPC namespace is between two ticks. The store mutex does not tell: a
// direct client's load sets it free in the middle of a tick. A worker that is about to begin a tick
// counts as ticking. Does not block.
inline bool IsWorkerIdle() {
    return CEvent::UseOf(cStopEventName).waiters > 0;
}
