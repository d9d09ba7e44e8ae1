#pragma once

#include <string_view>

#include <vxsched/Error.h>
#include <vxsched/Table.h>

namespace vxsched {

// The error (cNotFound) for a name that `table` does not have. Its message has the name that was
// meant, if one is so near that it must be a typing error, and otherwise `advice`: what to do, as
// the second half of a sentence. Takes time in proportion to the tasks.
CError NoSuchTask(std::string_view name, const TTable& table,
                  std::string_view advice = "see vxsched list");

}  // namespace vxsched
