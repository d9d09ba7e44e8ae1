#pragma once

#include <sys/types.h>

#include <string>

// The semaphore sets of the store: its mutex and the add-in's two events. Their keys are public, and
// the first process that asks for one makes it, whoever its user is.

// Why the add-in must not be loaded: a set that exists was made by or given to a user who may not
// use the store of `directory`, or any user may access it. Whoever may access a set can keep every
// tick from beginning. Empty if there is no such set. Does not block.
std::string WhySemaphoresAreRefused(const std::string& directory);

// Sets the permissions of the sets to `mode`, as far as this user may: the add-in makes them for
// owner and group.
void SetSemaphoreMode(mode_t mode);
