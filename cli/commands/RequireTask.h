#pragma once

#include <string>

#include <vxsched/Table.h>

namespace vxsched {

struct TCommon;

// The entry of a task without a record of a run. Throws CError (cNotFound) if the table does not have
// it either, with the name that was meant if there is one so near, and as CStore::Read() does.
TTaskEntry RequireTask(const TCommon& common, const std::string& name);

}  // namespace vxsched
