#include "base/DisplayText.h"

#include <algorithm>
#include <cstdint>

namespace vxsched {

namespace {

// The length in bytes of the UTF-8 character at the beginning of `string`; 0 for a control
// character and for bytes that are not UTF-8. `string` is not empty.
std::size_t LengthOfCharacter(std::string_view string) {
    const auto lead = static_cast<unsigned char>(string.front());
    if (lead < 0x80)
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || string.size() < length)
        return 0;
    std::uint32_t character = lead & (0x7fU >> length);
    for (const char next : string.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(next) & 0xc0U) != 0x80U)
            return 0;
        character = character << 6U | (static_cast<unsigned char>(next) & 0x3fU);
    }
    // The smallest character of each length: only the shortest encoding of a character is valid.
    constexpr std::uint32_t cLeast[] = {0xa0, 0x800, 0x10000};  // 0x80 to 0x9f are controls
    const bool surrogate = character >= 0xd800 && character <= 0xdfff;
    return character >= cLeast[length - 2] && character <= 0x10ffff && !surrogate ? length : 0;
}

}  // namespace

static bool IsPlain(char byte) {
    return byte >= 0x20 && byte < 0x7f;
}

std::size_t AppendShown(std::string_view string, std::string& to) {
    // Most strings are plain ASCII throughout.
    const auto plainEnd = std::find_if_not(string.begin(), string.end(), IsPlain);
    auto columns = static_cast<std::size_t>(plainEnd - string.begin());
    to.append(string.substr(0, columns));
    string.remove_prefix(columns);
    while (!string.empty()) {
        const std::size_t length = LengthOfCharacter(string);
        if (length > 0)
            to += string.substr(0, length);
        else
            to += "\xef\xbf\xbd";
        string.remove_prefix(std::max<std::size_t>(length, 1));
        ++columns;
    }
    return columns;
}

TShown Show(std::string_view string) {
    TShown shown;
    shown.columns = AppendShown(string, shown.string);
    return shown;
}

}  // namespace vxsched
