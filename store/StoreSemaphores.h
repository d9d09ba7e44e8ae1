#pragma once

#include <filesystem>
#include <string>

namespace vxsched {

// The semaphore sets of the store: its mutex and the add-in's two events. Their keys are public, and
// the first process that asks for one makes it, whoever its user is.

// Why the add-in must not be loaded: a set that exists was made by or given to a user who may not
// use the store of `directory`, or any user may access it. Whoever may access a set can keep every
// tick from beginning. Empty if there is no such set. Does not block.
std::string WhySemaphoresAreRefused(const std::filesystem::path& directory);

// Gives the sets the owner and the group of `files/` and PrivateMode(), as far as this user may: the
// add-in makes them for this process's user and group, who may be a member of the group that the
// store is open to. To be called after each load of the add-in, and when the access to `files/` has
// changed. Any thread may call it; it does not block.
void SetSemaphoreAccess(const std::filesystem::path& directory);

}  // namespace vxsched
