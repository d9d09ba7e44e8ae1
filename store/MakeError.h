#pragma once

#include <fmt/format.h>

#include <utility>

#include <vxsched/Error.h>

namespace vxsched {

// A CError whose message is formatted: throw MakeError(EError::cNotFound, "there is no {}", name).
template <typename... Arguments>
CError MakeError(EError code, fmt::format_string<Arguments...> message, Arguments&&... arguments) {
    return {code, fmt::format(message, std::forward<Arguments>(arguments)...)};
}

}  // namespace vxsched
