#pragma once

#include <filesystem>

#include "client/Request.h"

namespace vxsched {

// The checks of the table before a change. In a change process `directory` is the working directory,
// its caller holds the store mutex, and `table` is as read under it. Clients call them for dry runs and
// hold nothing. None of them blocks for longer than disk access.

// Throws CError: cDamaged if loading the table would hang or slow down a process, cNoAccess if it
// may not be written.
void CheckTable(const std::filesystem::path& directory, const TTable& table);

// The first task that the change has to wait for: active, and due or about to be. Null if there is
// none or the request does not wait (evenIfDue). It belongs to `table`.
const TTaskEntry* FindDue(const TTable& table, const TRequest& request);

}  // namespace vxsched
