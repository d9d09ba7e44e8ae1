#pragma once

#include <functional>
#include <memory>
#include <optional>

#include <vxsched/Table.h>
#include "host/HostOptions.h"
#include "host/recovery/Uptime.h"
#include "host/startup/CAddInLibrary.h"
#include "runs/CRunHistory.h"

// Makes the table of the working directory fit for the add-in, and has `load` load it; clients are
// kept out from the first to the last of it. Of a damaged table what can be read is kept and the
// youngest copy fills in the rest, of one that a load would never come back from the start is moved;
// the log says task by task what was done, and the former file is put aside. Tasks that were due while
// no host ran are moved on or removed, logged and recorded; those that came due in the watch of the host
// before, `former`, stay due, and the watch of this one begins with them. `load` is to change nothing in the table. Throws CHostError: cBadTable when the table cannot be
// mended, cNoAddIn, cNoStore, cNoDirectory.
struct TLoaded {
    std::unique_ptr<CAddInLibrary> library;
    vxsched::TTime upSince;
};
TLoaded LoadAddIn(const THostOptions& options, const std::optional<TUptime>& former,
                  CRunHistory& history,
                  const std::function<std::unique_ptr<CAddInLibrary>()>& load);
