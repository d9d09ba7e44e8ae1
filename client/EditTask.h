#pragma once

#include <filesystem>
#include <vector>

#include <vxsched/Store.h>
#include <vxsched/Table.h>
#include <vxsched/Validation.h>

namespace vxsched {

// What a task is after a change that somebody asked for. Nothing here changes a store. The functions
// block for disk access only.

// Throws CError (cRefused) with a line for each error, unless there are none.
void RefuseFor(const std::vector<TValidationError>& errors);

// The validation errors of a task that are not forced; the program is checked as the owner of the store.
std::vector<TValidationError> FindUnforced(const std::filesystem::path& directory,
                                           const TTaskEntry& task, const TForced& forced);

// The entry of a new task. Throws CError (cRefused) if it would never be launched.
TTaskEntry EntryOf(const TNewTask& task);

// True if the edit changes no field but the name.
bool IsOnlyRename(const TEdit& edit);

// The entry after an edit. Throws CError (cRefused) on a validation error.
TTaskEntry Edited(const std::filesystem::path& directory, TTaskEntry entry, const TEdit& edit,
                  const TForced& forced);

}  // namespace vxsched
