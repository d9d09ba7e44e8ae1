// The message of a CParseError: it repeats the argument and marks the offset of the error.

#include <fmt/format.h>
#include <gtest/gtest.h>
#include "base/CParseError.h"

#include <cstddef>
#include <string>

using namespace vxsched;

TEST(ParseError, MultiByteCharactersDoNotShiftTheCaret) {
    const std::string argument = "\xc3\xa4\xe2\x82\xac\xf0\x9f\x95\x92 x";  // of 2, 3 and 4 bytes
    EXPECT_STREQ(
        CParseError("time", argument, 10, "no").what(),
        ("cannot read the time \"" + argument + "\": no\n    " + argument + "\n        ^").c_str());
    EXPECT_EQ(CParseError("time", argument, 10, "no").Offset(), 10U);
}

TEST(ParseError, InvalidBytesAreShownAsReplacementCharacters) {
    const std::string replacement = "\xef\xbf\xbd";
    const std::string invalid[] = {
        "\n",
        "\x1b",
        "\x7f",
        std::string(1, '\0'),
        "\x80",              // a continuation byte alone
        "\xc3",              // cut off
        "\xc0\xaf",          // an overlong encoding of a slash
        "\xe0\x80\xaf",      // one of three bytes
        "\xf0\x82\x82\xac",  // an overlong encoding of the euro sign
        "\xed\xa0\x80",      // a surrogate
        "\xf4\x90\x80\x80",  // after the last code point
        "\xf8\x90\x80\x80",  // a first byte that does not exist
        "\xff",
    };
    for (const std::string& bytes : invalid) {
        std::string shown;
        for (std::size_t i = 0; i < bytes.size(); ++i)
            shown += replacement;
        EXPECT_STREQ(CParseError("time", bytes + "x", bytes.size(), "no").what(),
                     fmt::format("cannot read the time \"{0}x\": no\n    {0}x\n    {1}^", shown,
                                 std::string(bytes.size(), ' '))
                         .c_str())
            << testing::PrintToString(bytes);
    }
}

TEST(ParseError, ControlCharacterOfTwoBytesIsShownAsOneReplacement) {
    EXPECT_STREQ(CParseError("time", "\xc2\x9bx", 2, "no").what(),
                 "cannot read the time \"\xef\xbf\xbdx\": no\n    \xef\xbf\xbdx\n     ^");
}
