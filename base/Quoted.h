#pragma once

#include <string>
#include <string_view>

namespace vxsched {

// A string in double quotes, for messages. Nothing in it is escaped.
inline std::string Quoted(std::string_view string) {
    return '"' + std::string(string) + '"';
}

}  // namespace vxsched
