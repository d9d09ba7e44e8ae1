#pragma once

#include <cstddef>

// Power failures at every call that a host and its clients make on the files of their store. What
// they do during a few ticks, changes, a restore by the guard, a stop and a kill is recorded. For a
// cut after each call, the disk is then written as a power failure may have left it, and a host is
// started on it: it finds a valid table, and each due time was launched once, or is reported as
// missed or as unknown.
//
// Tries `most` of these states, chosen with a fixed seed; 0: all. Fails the test for each state that
// is not as it should be.
void TryPowerFailures(std::size_t most);
