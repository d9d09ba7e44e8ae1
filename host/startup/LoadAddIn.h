#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <vxsched/Table.h>
#include "host/HostOptions.h"
#include "host/recovery/Uptime.h"
#include "host/startup/CAddInLibrary.h"
#include "runs/CRunHistory.h"

// A loaded add-in, whose worker does not run yet.
struct TLoaded {
    std::unique_ptr<CAddInLibrary> library;
    // Beginning of this host's uptime: the earliest due time that it took over, or now.
    vxsched::TTime upSince;
};

// Prepares the table of the working directory for the add-in and has `load` load it. Takes the
// writer lock, then the store mutex, for all of this; the caller holds the directory lock.
//
// A damaged table is repaired: what can be read of it is kept, the youngest backup fills in the
// rest. A period that would make the load hang is altered and the task paused. The log lists every
// task that was repaired; the damaged file is quarantined.
//
// Tasks that were due while no host ran are rescheduled, or removed if they run once; both are
// logged and recorded in `history`. Tasks that came due during the uptime of the previous host,
// `previous`, stay due.
//
// `load` gets the semaphore set of the store mutex, which this process holds until the load releases
// it; -1 if it does not. `load` must not change the table. Throws CHostError: cBadTable when the table cannot be read or
// repaired, cNoAddIn, cNoStore, cNoDirectory.
TLoaded LoadAddIn(const THostOptions& options, const std::optional<TUptime>& previous,
                  CRunHistory& history,
                  const std::function<std::unique_ptr<CAddInLibrary>(int)>& load);
