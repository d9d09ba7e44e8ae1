#pragma once

#include <optional>

#include "client/Request.h"

namespace vxsched {

// What speaks against a request, by the table as it is under the store mutex. The working directory
// is the store's.

// Throws CError: cDamaged for a table that would harm who loads it, cNoAccess for one that may
// not be written, cNotFound or cRefused for a call that cannot be made.
void CheckCalls(const TTable& table, const TRequest& request);

// Throws CError (cRefused) when a call of a task that is there cannot be made as it is.
void CheckState(const TTaskEntry& task, const TCall& call, bool evenIfDue);

// The task for which the change has to wait: active, and due or about to be. None when there is none,
// or when the request does not wait.
const TTaskEntry* FindDue(const TTable& table, const TRequest& request);

// The call whose task is not as it was seen; null when there is none.
const TCall* FindChanged(const TTable& table, const TRequest& request);

}  // namespace vxsched
