#pragma once

#include <string_view>
#include <vector>

namespace vxsched {

// The name that somebody meant who typed `name`: the first of the nearest ones, of which a third may be
// wrong, and one character of a short one; the case of letters does not count. Empty if none is near.
// Takes time in proportion to the names.
std::string_view FindNearest(std::string_view name, const std::vector<std::string_view>& names);

}  // namespace vxsched
