#pragma once

#include <fmt/format.h>

#include <utility>

#include <vxsched/Error.h>
#include "base/DisplayText.h"

namespace vxsched {

// A CError whose message is formatted: throw MakeError(EError::cNotFound, "there is no {}", name).
// The message is one line, as Show() makes it: a name or path in it may have any bytes.
template <typename... Arguments>
CError MakeError(EError code, fmt::format_string<Arguments...> message, Arguments&&... arguments) {
    return {code, Show(fmt::format(message, std::forward<Arguments>(arguments)...)).string};
}

}  // namespace vxsched
