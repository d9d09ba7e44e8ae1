#pragma once

#include "host/ExitStatus.h"
#include "host/HostOptions.h"

// Checks whether a host could run with these options. Prints what is in order to standard output,
// warnings and errors to standard error. Starts, loads and creates nothing. Waits at most
// options.lockTimeout for the store mutex. Returns cStopped if a host could run, else the exit
// status of a host that is started with these options.
TExitStatus CheckSetUp(const THostOptions& options);
