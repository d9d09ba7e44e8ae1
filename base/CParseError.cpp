#include "base/CParseError.h"

#include <fmt/format.h>

#include <string>

#include "base/DisplayText.h"

namespace vxsched {

CParseError::CParseError(std::string_view kind, std::string_view argument, std::size_t errorOffset,
                         std::string_view reason)
    : std::runtime_error(fmt::format("cannot read the {} \"{}\": {}\n    {}\n    {:>{}}", kind,
                                     Show(argument).string, reason, Show(argument).string, '^',
                                     Show(argument.substr(0, errorOffset)).columns + 1)),
      offset(errorOffset) {}

}  // namespace vxsched
