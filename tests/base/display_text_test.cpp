// Strings made safe for a terminal.

#include <gtest/gtest.h>
#include "base/DisplayText.h"

#include <initializer_list>
#include <string>

using vxsched::EscapeControls;
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

static void ExpectReplaced(std::initializer_list<const char*> characters) {
    for (const char* const character : characters) {
        const std::string one = character;
        EXPECT_EQ(Show(one).string, cReplaced) << testing::PrintToString(one);
        EXPECT_EQ(Show("a" + one + "b").string, "a" + cReplaced + "b");
    }
}

// They would have a terminal show what follows in another order.
TEST(DisplayText, ReplacesBidirectionalControls) {
    ExpectReplaced({"\u200e", "\u200f", "\u061c", "\u202a", "\u202e", "\u2066", "\u2069"});
}

// Some programs begin a new line there.
TEST(DisplayText, ReplacesLineAndParagraphSeparators) {
    ExpectReplaced({"\u2028", "\u2029"});
}

TEST(DisplayText, ReplacesInvisibleCharacters) {
    ExpectReplaced({"\u00ad",     "\u034f",     "\u115f",     "\u1160",     "\u180e",
                    "\u200b",     "\u2060",     "\u2064",     "\u206a",     "\u206f",
                    "\ufeff",     "\ufff9",     "\ufffb",     "\U0001bca0", "\U0001d173",
                    "\U0001d17a", "\U000e0001", "\U000e0020", "\U000e007f", "\u2800",
                    "\u3164",     "\uffa0",     "\U000e0100", "\U000e01ef"});
}

TEST(DisplayText, KeepsWhatIsNextToTheReplaced) {
    for (const char* const other :
         {"\u00ac", "\u00ae", "\u034e", "\u0350",     "\u115e",     "\u1161",    "\u061b",
          "\u061d", "\u200a", "\u2010", "\u2027",     "\u202f",     "\u205f",    "\u2070",
          "\ufefe", "\uff01", "\ufffc", "\U0001bc9f", "\U0001d172", "\U0001d17b"})
        EXPECT_EQ(Show(other).string, other) << testing::PrintToString(other);
}

// Arabic, Hebrew, Persian with a non-joiner, Hindi with a joiner, a family of emoji.
TEST(DisplayText, KeepsTheLettersOfEveryScript) {
    for (const char* const word :
         {"\u0645\u0647\u0645\u0629", "\u05de\u05e9\u05d9\u05de\u05d4", "\u0645\u06cc\u200c\u062e",
          "\u0915\u094d\u200d\u0937", "\U0001f468\u200d\U0001f469\u200d\U0001f467"})
        EXPECT_EQ(Show(word).string, word);
}

// ---- In JSON ----------------------------------------------------------------------------------

TEST(DisplayText, JsonHasEscapesForWhatIsReplaced) {
    EXPECT_EQ(EscapeControls("{\"a\": \"\x7f \u0080 \u009f \u2028 \u202e \ufeff \u00e4 \u200c\"}"),
              R"({"a": "\u007f \u0080 \u009f \u2028 \u202e \ufeff )"
              "\u00e4 \u200c\"}");
    EXPECT_EQ(EscapeControls("\U000e0001\U0001d173\U0001f600"), R"(\udb40\udc01\ud834\udd73)"
                                                                "\U0001f600");
}

// Outside of the strings.
TEST(DisplayText, JsonKeepsItsLines) {
    EXPECT_EQ(EscapeControls("{\n  \"a\": 1\n}\n"), "{\n  \"a\": 1\n}\n");
}
