// Strings made safe for a terminal.

#include <gtest/gtest.h>
#include "base/DisplayText.h"

#include <string>

using vxsched::Show;

static const std::string cReplaced = "\xef\xbf\xbd";

TEST(DisplayText, KeepsWhatIsReadable) {
    for (const char* const string :
         {"", "plain", "\xc3\xa4rger", "\xe2\x82\xac", "\xf0\x9f\x98\x80"})
        EXPECT_EQ(Show(string).string, string);
    EXPECT_EQ(Show("\xc3\xa4rger").columns, 5U);
}

TEST(DisplayText, ReplacesControlCharacters) {
    for (const char* const control :
         {"\n", "\r", "\t", "\033", "\x7f", "\xc2\x80", "\xc2\x9b", "\xc2\x9f"})
        EXPECT_EQ(Show(control).string, cReplaced) << testing::PrintToString(control);
    EXPECT_EQ(Show("\xc2\xa0").string, "\xc2\xa0");
}

TEST(DisplayText, ReplacesBytesThatAreNotUtf8) {
    for (const char* const byte : {"\x80", "\x9b", "\xc0", "\xff"})
        EXPECT_EQ(Show(byte).string, cReplaced) << testing::PrintToString(byte);
}

// They would have a terminal show the rest of a line in another order.
TEST(DisplayText, ReplacesBidirectionalControls) {
    for (const char* const control :
         {"\xe2\x80\xaa", "\xe2\x80\xae", "\xe2\x81\xa6", "\xe2\x81\xa9"})
        EXPECT_EQ(Show(control).string, cReplaced) << testing::PrintToString(control);
    for (const char* const other : {"\xe2\x80\xa9", "\xe2\x80\xaf", "\xe2\x81\xa5", "\xe2\x81\xaa"})
        EXPECT_EQ(Show(other).string, other) << testing::PrintToString(other);
}
