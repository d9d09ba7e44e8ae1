#pragma once

#include <cstdint>

#include "HostProgram.h"
#include "TableFile.h"

// A system clock that stands still until the test sets it, for hosts and their programs.

// Gives it to all programs that are started from now on.
void UseHostClock(std::int64_t time);

// In one step: a process may read it at any time.
void SetClock(std::int64_t time);

// The table after a tick of the host at that time.
TRows TickAt(std::int64_t time);

// Stops the host and waits for what it has launched, which goes on without it.
void StopWithItsJobs(CHost& host);
