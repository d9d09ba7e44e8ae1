#include "base/DisplayText.h"

#include <algorithm>
#include <cstdint>

namespace vxsched {

namespace {

// The length in bytes of the UTF-8 character at the beginning of `text`; 0 for a control character
// and for bytes that are not UTF-8. `text` is not empty.
std::size_t LengthOfCharacter(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80)
        return lead >= 0x20 && lead != 0x7f ? 1 : 0;
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length)
        return 0;
    std::uint32_t character = lead & (0x7fU >> length);
    for (const char next : text.substr(1, length - 1)) {
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

std::size_t AppendShown(std::string_view text, std::string& to) {
    // Most strings are plain ASCII throughout.
    const auto plainEnd = std::find_if_not(text.begin(), text.end(), IsPlain);
    auto columns = static_cast<std::size_t>(plainEnd - text.begin());
    to.append(text.substr(0, columns));
    text.remove_prefix(columns);
    while (!text.empty()) {
        const std::size_t length = LengthOfCharacter(text);
        if (length > 0)
            to += text.substr(0, length);
        else
            to += "\xef\xbf\xbd";
        text.remove_prefix(std::max<std::size_t>(length, 1));
        ++columns;
    }
    return columns;
}

TShown Show(std::string_view text) {
    TShown shown;
    shown.columns = AppendShown(text, shown.text);
    return shown;
}

}  // namespace vxsched
