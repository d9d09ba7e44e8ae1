#pragma once

#include <CEvent.h>

#include "store/Layout.h"

namespace vxsched {

// Whether a worker of this IPC namespace is between two ticks. The store mutex does not show it: a
// direct client's load sets it free in the middle of a tick. A worker that is about to begin a tick
// counts as ticking. Does not block.
inline bool IsWorkerIdle() {
    return CEvent::UseOf(cStopEventName).waiters > 0;
}

}  // namespace vxsched
