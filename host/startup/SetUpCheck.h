#pragma once

#include "host/ExitStatus.h"
#include "host/HostOptions.h"

// Looks at all that a host with these options needs, without starting, loading or making anything.
// Says on standard output what is well, on standard error what is not. cStopped when a host could
// run, else the status that its start would end with.
TExitStatus CheckSetUp(const THostOptions& options);
