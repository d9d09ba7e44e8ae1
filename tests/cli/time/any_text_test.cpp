// Whatever is typed as a time or as a period is read, or refused with a message that is safe to print.

#include <gtest/gtest.h>
#include "cli/time/CParseError.h"
#include "cli/time/PeriodFormat.h"
#include "cli/time/TimeFormat.h"

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "TextTimes.h"

using namespace vxsched;

// A refusal of any text is a message of three lines that is safe to print.
static void ExpectSoundMessage(const CParseError& error, const std::string& text) {
    const std::string message = error.what();
    SCOPED_TRACE(testing::PrintToString(text));
    ASSERT_LE(error.Offset(), text.size());
    ASSERT_EQ(std::count(message.begin(), message.end(), '\n'), 2);
    ASSERT_EQ(message.back(), '^');
    ASSERT_TRUE(std::none_of(message.begin(), message.end(), [](char character) {
        return static_cast<unsigned char>(character) < 0x20 && character != '\n';
    }));
}

// Returns whether the text was read.
template <typename Parse>
static bool IsReadOrRefusedSoundly(const std::string& text, const Parse& parse) {
    try {
        parse();
        return true;
    } catch (const CParseError& error) {
        ExpectSoundMessage(error, text);
        return false;
    }
}

TEST(AnyText, IsReadOrRefusedWithASoundMessage) {
    const CZone zone("Australia/Lord_Howe");
    const std::vector<std::string> pieces = {
        "2026",  "11",       "02",  "30",   "29", "24", "00", "5",   "99999999999999999999",
        "-",     ":",        "+",   "T",    "Z",  " ",  ".",  "@",   "in",
        "today", "tomorrow", "now", "once", "h",  "d",  "w",  "min", "s",
        "x",     "\xc3\xa4", "\xff"};
    std::mt19937 random(20261121);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    int times = 0;
    int periods = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string text;
        for (std::size_t left = below(9); left > 0; --left) {
            if (round % 2 == 0)
                text += pieces[below(pieces.size())];
            else
                text += static_cast<char>(below(256));
        }
        times += IsReadOrRefusedSoundly(text, [&] { ParseTime(text, Utc(cNow)); }) ? 1 : 0;
        periods += IsReadOrRefusedSoundly(text, [&] { ParsePeriod(text); }) ? 1 : 0;
        ASSERT_FALSE(HasFailure());
    }
    // Both ways are taken.
    EXPECT_GT(times, 0);
    EXPECT_GT(periods, 0);
}

// Every text that differs from a good one in one byte, and every one that is cut off.
TEST(AnyText, NextToAGoodOneIsReadOrRefusedWithASoundMessage) {
    const CZone zone("Europe/Berlin");
    for (const std::string good :
         {"2026-11-21 14:30:15+01:00", "tomorrow 02:00", "in 1d 12h", "@1795267800", "14:30:15"}) {
        for (std::size_t place = 0; place < good.size(); ++place) {
            std::string text = good;
            for (int byte = 0; byte < 256; ++byte) {
                text[place] = static_cast<char>(byte);
                IsReadOrRefusedSoundly(text, [&] { ParseTime(text, Utc(cNow)); });
                IsReadOrRefusedSoundly(text, [&] { ParsePeriod(text); });
            }
            text = good.substr(0, place);
            IsReadOrRefusedSoundly(text, [&] { ParseTime(text, Utc(cNow)); });
            ASSERT_FALSE(HasFailure());
        }
    }
}
