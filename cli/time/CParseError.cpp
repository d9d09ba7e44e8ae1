#include "cli/time/CParseError.h"

#include <fmt/format.h>

#include <string>

#include "base/DisplayText.h"

namespace vxsched {

CParseError::CParseError(std::string_view kind, std::string_view text, std::size_t offset,
                         std::string_view reason)
    : std::runtime_error(fmt::format("cannot read the {} \"{}\": {}\n    {}\n    {:>{}}", kind,
                                     Show(text).text, reason, Show(text).text, '^',
                                     Show(text.substr(0, offset)).columns + 1)),
      place(offset) {}

}  // namespace vxsched
