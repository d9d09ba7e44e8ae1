#pragma once

#include <functional>
#include <string>
#include <vector>

// A store mutex that nobody holds and nobody can take, and the processes around it.

// Runs a test's body in a child that may inspect every process it sees, in a store of its own; the
// test is skipped where the system does not permit that.
void Inspectable(const std::function<void()>& body);

// One operation on semaphore 0, without a wait limit.
bool Change(int set, short change, short flags);

// Leaves the mutex at 0, held by nobody, and last used by a process that has ended. Makes the set
// if there is none. Returns it.
int Wedge();

// The command line of a process that loads the add-in, creates the file "ready" and then only
// sleeps: for all that can be seen, it may hold the mutex.
std::vector<std::string> LoadAndSleep();
