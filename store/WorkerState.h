#pragma once

#include <CEvent.h>

#include <filesystem>

#include <vxsched/SchedulingProcess.h>
#include "store/Layout.h"

namespace vxsched {

// Whether a worker of this IPC namespace is between two ticks. The store mutex does not show it: a
// direct client's load sets it free in the middle of a tick. A worker that is about to begin a tick
// counts as ticking. Does not block.
inline bool IsWorkerIdle() {
    return CEvent::UseOf(cStopEventName).waiters > 0;
}

// Whether the scheduling process of `directory` is in the middle of a tick, or about to begin one. A
// tick whose store mutex a direct client's load has set free overwrites at its end what others have
// written meanwhile. For a caller that holds the store mutex. Does not block.
inline bool IsTickUnderWay(const std::filesystem::path& directory) {
    return !IsWorkerIdle() && FindSchedulingProcess(directory);
}

}  // namespace vxsched
