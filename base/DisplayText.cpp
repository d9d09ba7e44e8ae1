#include "base/DisplayText.h"

#include <algorithm>
#include <cstdint>

namespace vxsched {

namespace {

// Whether it has a terminal show what follows in another order: an embedding, an override, an
// isolate, or the end of one.
bool IsBidirectionalControl(std::uint32_t character) {
    return (character >= 0x202a && character <= 0x202e) ||
           (character >= 0x2066 && character <= 0x2069);
}

struct TCharacter {
    std::size_t length;  // in bytes
    bool isReadable;     // valid UTF-8, and no control character
};

// The character at the beginning of `string`, which is not empty; one byte if it is not UTF-8.
TCharacter FirstCharacter(std::string_view string) {
    constexpr TCharacter cInvalid{1, false};
    const auto lead = static_cast<unsigned char>(string.front());
    if (lead < 0x80)
        return {1, lead >= 0x20 && lead != 0x7f};
    const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || string.size() < length)
        return cInvalid;
    std::uint32_t character = lead & (0x7fU >> length);
    for (const char next : string.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(next) & 0xc0U) != 0x80U)
            return cInvalid;
        character = character << 6U | (static_cast<unsigned char>(next) & 0x3fU);
    }
    // The smallest character of each length: only the shortest encoding of a character is valid.
    constexpr std::uint32_t cLeast[] = {0x80, 0x800, 0x10000};
    const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
    if (character < cLeast[length - 2] || character > 0x10ffff || isSurrogate)
        return cInvalid;
    return {length, character >= 0xa0 && !IsBidirectionalControl(character)};
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
        const TCharacter character = FirstCharacter(string);
        to += character.isReadable ? string.substr(0, character.length) : "\xef\xbf\xbd";
        string.remove_prefix(character.length);
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
