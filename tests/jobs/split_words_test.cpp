// Words of a line, as a shell splits it.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include "jobs/SplitWords.h"

#include <string>
#include <vector>

#include "Process.h"
#include "base/ShellWord.h"
#include "jobs/CJobError.h"

using testing::ElementsAre;
using testing::HasSubstr;
using vxsched::SplitWords;

TEST(SplitWords, AreThoseOfAShell) {
    for (const std::string line :
         {"a b", "  a\tb  c ", "'a b' \"c d\"", "a'b'c\"d\"e", "'' \"\" x", R"(a\ b \'c\" \\)",
          R"("a\"b\\c\$d\`e\f")", R"('a\b' "it's" 'say "x"')", "a\\\nb \"c\\\nd\"", "'line\nbreak'",
          R"("\n\t\\n")"}) {
        CProgram shell({"/bin/sh", "-c", "printf '%s\\0' " + line});
        ASSERT_EQ(shell.Wait(), 0);
        std::string joined;
        for (const std::string& word : SplitWords(line))
            joined += word + '\0';
        EXPECT_EQ(joined, shell.Output()) << line;
    }
}

TEST(SplitWords, ExpandNothing) {
    EXPECT_THAT(
        SplitWords("$HOME `id` *.c ~root a|b >c ; & # !x {a,b}"),
        ElementsAre("$HOME", "`id`", "*.c", "~root", "a|b", ">c", ";", "&", "#", "!x", "{a,b}"));
}

TEST(SplitWords, AreSeparatedByBlanksAndLineBreaks) {
    EXPECT_THAT(SplitWords(""), ElementsAre());
    EXPECT_THAT(SplitWords(" \n\t"), ElementsAre());
    EXPECT_THAT(SplitWords("a\nb"), ElementsAre("a", "b"));
}

TEST(SplitWords, GiveEachWordBackThatWasQuoted) {
    for (int character = 1; character < 256; ++character) {
        const std::string word = "a" + std::string(2, static_cast<char>(character)) + "b";
        EXPECT_THAT(SplitWords(vxsched::ShellWord(word) + " c"), ElementsAre(word, "c"));
    }
}

TEST(SplitWords, OfALineThatBreaksOffAreAnError) {
    for (const auto& [line, reason] : {std::pair{"a 'b", "the quote ' at byte 3 is not closed"},
                                       {"a \"b\\\"", "the quote \" at byte 3 is not closed"},
                                       {"a \"b\\", "the quote \" at byte 3 is not closed"},
                                       {"a\\", "the last character is a single backslash"}}) {
        try {
            SplitWords(line);
            ADD_FAILURE() << line;
        } catch (const vxsched::CJobError& error) {
            EXPECT_THAT(error.what(), HasSubstr(reason));
        }
    }
}
