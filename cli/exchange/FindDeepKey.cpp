#include "cli/exchange/FindDeepKey.h"

#include <algorithm>

namespace vxsched {

namespace {

// Where the string that begins at `begin` ends: after its quotation marks, or at the end of a line that has
// none.
std::size_t SkipString(std::string_view toml, std::size_t begin) {
    const char quote = toml[begin];
    const bool isBasic = quote == '"';
    const bool isMultiLine = toml.substr(begin, 3) == std::string_view(isBasic ? "\"\"\"" : "'''");
    for (std::size_t at = begin + (isMultiLine ? 3 : 1); at < toml.size(); ++at) {
        if (toml[at] == '\\' && isBasic)
            ++at;
        else if (!isMultiLine && (toml[at] == quote || toml[at] == '\n'))
            return at + 1;
        else if (isMultiLine && toml.substr(at, 3) == toml.substr(begin, 3))
            // Up to two quotation marks may stand right before the three that end it.
            return std::min(toml.find_first_not_of(quote, at), toml.size());
    }
    return toml.size();
}

}  // namespace

std::optional<std::size_t> FindDeepKey(std::string_view toml) {
    constexpr std::string_view cEndsOfKeys = "\n=,[]{}";
    std::size_t parts = 1;
    for (std::size_t at = 0; at < toml.size();) {
        const char one = toml[at];
        if (one == '#') {
            at = std::min(toml.find('\n', at), toml.size());
        } else if (one == '"' || one == '\'') {
            at = SkipString(toml, at);
        } else {
            if (one == '.' && ++parts > cMostKeyParts)
                return at;
            if (cEndsOfKeys.find(one) != std::string_view::npos)
                parts = 1;
            ++at;
        }
    }
    return {};
}

}  // namespace vxsched
