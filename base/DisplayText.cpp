#include "base/DisplayText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace vxsched {

namespace {

struct TRange {
    std::uint32_t first;
    std::uint32_t last;
};

// The format characters that have no glyph of their own, and the two separators that end a line.
// U+200C and U+200D are missing here: Persian and the scripts of India need them inside words, and
// emoji need U+200D. They only choose the shapes of their neighbours.
constexpr TRange cHidden[] = {
    {0x00ad, 0x00ad},    // soft hyphen
    {0x034f, 0x034f},    // combining grapheme joiner
    {0x061c, 0x061c},    // Arabic letter mark
    {0x115f, 0x1160},    // Hangul fillers
    {0x180e, 0x180e},    // Mongolian vowel separator
    {0x200b, 0x200b},    // zero width space
    {0x200e, 0x200f},    // left-to-right and right-to-left mark
    {0x2028, 0x2029},    // line and paragraph separator
    {0x202a, 0x202e},    // bidirectional embeddings and overrides
    {0x2060, 0x206f},    // word joiner, invisible operators, bidirectional isolates
    {0x2800, 0x2800},    // blank Braille pattern
    {0x3164, 0x3164},    // Hangul filler
    {0xfeff, 0xfeff},    // zero width no-break space, the byte order mark
    {0xffa0, 0xffa0},    // halfwidth Hangul filler
    {0xfff9, 0xfffb},    // interlinear annotations
    {0x1bca0, 0x1bca3},  // shorthand controls
    {0x1d173, 0x1d17a},  // musical controls
    {0xe0000, 0xe0fff},  // tags, variation selectors of ideographs
};

bool IsHidden(std::uint32_t character) {
    return std::any_of(std::begin(cHidden), std::end(cHidden), [&](const TRange& range) {
        return character >= range.first && character <= range.last;
    });
}

struct TCharacter {
    std::size_t length;  // in bytes
    bool isReadable;     // valid UTF-8, and neither a control character nor hidden
    std::uint32_t number = 0;
};

// The character at the beginning of `string`, which is not empty; one byte if it is not UTF-8.
TCharacter FirstCharacter(std::string_view string) {
    constexpr TCharacter cInvalid{1, false};
    const auto lead = static_cast<unsigned char>(string.front());
    if (lead < 0x80)
        return {1, lead >= 0x20 && lead != 0x7f, lead};
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
    return {length, character >= 0xa0 && !IsHidden(character), character};
}

// `number` of a character, for a JSON string: beyond U+FFFF two escapes, a surrogate pair.
std::string EscapeOf(std::uint32_t number, EEscape how) {
    if (number <= 0xffff)
        return fmt::format("\\u{:04x}", number);
    if (how == EEscape::cToml)
        return fmt::format("\\U{:08x}", number);
    const std::uint32_t offset = number - 0x10000;
    return fmt::format("\\u{:04x}\\u{:04x}", 0xd800 + (offset >> 10U), 0xdc00 + (offset & 0x3ffU));
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

std::string ShowBeginning(std::string_view string, std::size_t most) {
    return Show(string.substr(0, most)).string + (string.size() > most ? "..." : "");
}

bool IsUtf8(std::string_view bytes) {
    while (!bytes.empty()) {
        const std::size_t length = FirstCharacter(bytes).length;
        if (length == 1 && static_cast<unsigned char>(bytes.front()) >= 0x80)
            return false;
        bytes.remove_prefix(length);
    }
    return true;
}

std::string EscapeControls(std::string_view json, EEscape how) {
    std::string escaped;
    escaped.reserve(json.size());
    const auto isPlain = [](unsigned char byte) { return byte < 0x7F; };
    while (!json.empty()) {
        // Nearly all of it is.
        const auto end = std::find_if_not(json.begin(), json.end(), isPlain);
        escaped.append(json.begin(), end);
        json.remove_prefix(static_cast<std::size_t>(end - json.begin()));
        if (json.empty())
            break;
        const TCharacter character = FirstCharacter(json);
        if (character.isReadable)
            escaped += json.substr(0, character.length);
        else
            escaped += EscapeOf(character.number, how);
        json.remove_prefix(character.length);
    }
    return escaped;
}

}  // namespace vxsched
