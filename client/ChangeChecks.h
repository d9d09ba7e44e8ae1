#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "client/Request.h"

namespace vxsched {

// The checks of a request before the add-in is loaded. The working directory is the store's. The
// caller holds the store mutex and `table` is as read under it, unless stated otherwise. None of
// them blocks.

// Throws CError: cDamaged if loading the table would hang or slow down a process, cNoAccess if it
// may not be written, cNotFound or cRefused if a call cannot be made.
void CheckCalls(const TTable& table, const TRequest& request);

// Throws CError (cRefused) if the state of the task forbids the call. Needs no lock: clients call
// it for dry runs.
void CheckState(const TTaskEntry& task, const TCall& call, bool evenIfDue);

// Throws CError (cRefused) if the call is for a task that does not run, and that one is running. Needs
// no lock.
void CheckNotRunning(const std::filesystem::path& directory, const TTaskEntry& task,
                     const TCall& call);

// Throws CError (cRefused) if a launch of the task is owed that the call would cancel. Needs no lock.
void CheckOwed(const std::filesystem::path& directory, const TCall& call);

// Throws CError (cRefused) if the table has a task of a name that another one is to get. Needs no
// lock.
void CheckNewName(const TTable& table, const std::string& name);

// The first task that the change has to wait for: active, and due or about to be. Null if there is
// none or the request does not wait (evenIfDue). It belongs to `table`.
const TTaskEntry* FindDue(const TTable& table, const TRequest& request);

// The first call whose task differs from TCall::seen although it must not; null if there is none.
// It belongs to `request`.
const TCall* FindChanged(const TTable& table, const TRequest& request);

}  // namespace vxsched
