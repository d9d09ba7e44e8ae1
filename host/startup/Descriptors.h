#pragma once

#include <string>

// The host opens files while it launches and records: the table, the history, a program's output.
// With too few descriptors it would launch programs without a record of them, and the next host
// would launch them again. So the host makes sure at its startup that it will not run out of them.

// Returns why this process cannot have enough descriptors, with what to do; empty if it can.
// Changes nothing.
std::string WhyTooFewDescriptors();

// Raises the soft limit on descriptors (RLIMIT_NOFILE) if too few are free, as far as needed;
// launched programs inherit it. To be called before there are threads. Throws CHostError (cFailed)
// if the hard limit is too low.
void ReserveDescriptors();
