#pragma once

#include <string>

namespace vxsched {

struct TCommon;

// For a task without a record of a run: throws CError (cNotFound) if the table does not have it
// either, with the name that was meant if there is one so near, and as CStore::Read() does.
void RequireTask(const TCommon& common, const std::string& name);

}  // namespace vxsched
