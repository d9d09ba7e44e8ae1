// The message about a text that cannot be read, which shows the text and marks a place in it.

#include <gtest/gtest.h>
#include "cli/time/CParseError.h"

#include <cstddef>
#include <string>

using namespace vxsched;

TEST(TextError, MultiByteCharactersInFrontDoNotShiftTheCaret) {
    const std::string text = "\xc3\xa4\xe2\x82\xac\xf0\x9f\x95\x92 x";  // of 2, 3 and 4 bytes
    EXPECT_STREQ(
        CParseError("time", text, 10, "no").what(),
        ("cannot read the time \"" + text + "\": no\n    " + text + "\n        ^").c_str());
    EXPECT_EQ(CParseError("time", text, 10, "no").Offset(), 10U);
}

TEST(TextError, WhatIsNoTextIsShownAsReplacementCharacters) {
    const std::string replacement = "\xef\xbf\xbd";
    const std::string none[] = {
        "\n",
        "\x1b",
        "\x7f",
        std::string(1, '\0'),
        "\x80",              // a following byte alone
        "\xc3",              // cut off
        "\xc0\xaf",          // a longer way to write a slash
        "\xe0\x80\xaf",      // one longer still
        "\xf0\x82\x82\xac",  // and one of the euro sign
        "\xc2\x9b",          // a control sequence's beginning, in one character
        "\xed\xa0\x80",      // a surrogate
        "\xf4\x90\x80\x80",  // beyond the last character
        "\xf8\x90\x80\x80",  // with a first byte that there is not
        "\xff",
    };
    for (const std::string& bytes : none) {
        std::string shown;
        for (std::size_t i = 0; i < bytes.size(); ++i)
            shown += replacement;
        EXPECT_STREQ(CParseError("time", bytes + "x", bytes.size(), "no").what(),
                     ("cannot read the time \"" + shown + "x\": no\n    " + shown + "x\n    " +
                      std::string(bytes.size(), ' ') + '^')
                         .c_str())
            << testing::PrintToString(bytes);
    }
}
