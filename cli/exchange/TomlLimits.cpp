#include "cli/exchange/TomlLimits.h"

#include <algorithm>

namespace vxsched {

namespace {

// No file of tasks needs more than four.
constexpr std::size_t cMostKeyParts = 16;
constexpr char cDeepKey[] = "a key with more than 16 parts";
constexpr char cNotAscii[] =
    "a character that is not ASCII; quote a name or a text that has such characters";
constexpr std::string_view cByteOrderMark = "\xef\xbb\xbf";

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

std::optional<TTomlProblem> FindTomlProblem(std::string_view toml) {
    std::size_t parts = 1;
    for (std::size_t at = toml.starts_with(cByteOrderMark) ? cByteOrderMark.size() : 0;
         at < toml.size();) {
        const char one = toml[at];
        if (one == '#') {
            at = std::min(toml.find('\n', at), toml.size());
        } else if (one == '"' || one == '\'') {
            at = SkipString(toml, at);
        } else {
            if (static_cast<unsigned char>(one) >= 0x80)
                return TTomlProblem{at, cNotAscii};
            if (one == '.' && ++parts > cMostKeyParts)
                return TTomlProblem{at, cDeepKey};
            if (std::string_view("\n=,[]{}").find(one) != std::string_view::npos)
                parts = 1;
            ++at;
        }
    }
    return {};
}

}  // namespace vxsched
