#pragma once

#include <memory>

#include "host/CAddInLibrary.h"
#include "host/CRunHistory.h"
#include "host/HostOptions.h"

// Reads the table of the working directory, logs and records each task that was due while no host
// ran, and loads the add-in, which moves these on or removes them; clients are kept out from the
// first to the last of it. Throws CHostError: cBadTable when the table is damaged or a load would not
// come back from it, cNoAddIn, cNoStore, cNoDirectory.
std::unique_ptr<CAddInLibrary> LoadAddIn(const THostOptions& options, CRunHistory& history);
