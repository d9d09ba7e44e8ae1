// Random and corrupted arguments: each is parsed as a time or period, or refused with a message
// that is safe to print.

#include <gtest/gtest.h>
#include "base/CParseError.h"
#include "cli/time/PeriodFormat.h"
#include "cli/time/TimeFormat.h"

#include <algorithm>
#include <cstddef>
#include <random>
#include <string>
#include <vector>

#include "SampleTimes.h"

using namespace vxsched;

// The message must have three lines and no control characters.
static void ExpectPrintableMessage(const CParseError& error, const std::string& argument) {
    const std::string message = error.what();
    SCOPED_TRACE(testing::PrintToString(argument));
    ASSERT_LE(error.Offset(), argument.size());
    ASSERT_EQ(std::count(message.begin(), message.end(), '\n'), 2);
    ASSERT_EQ(message.back(), '^');
    ASSERT_TRUE(std::none_of(message.begin(), message.end(), [](char character) {
        return static_cast<unsigned char>(character) < 0x20 && character != '\n';
    }));
}

// Returns whether the argument was parsed.
template <typename Parse>
static bool IsParsedOrRefused(const std::string& argument, const Parse& parse) {
    try {
        parse();
        return true;
    } catch (const CParseError& error) {
        ExpectPrintableMessage(error, argument);
        return false;
    }
}

TEST(AnyArgument, IsParsedOrRefusedWithAPrintableMessage) {
    const CZone zone("Australia/Lord_Howe");
    const std::vector<std::string> pieces = {
        "2026",  "11",       "02",  "30",       "29",  "24", "00", "5",   "99999999999999999999",
        "-",     ":",        "+",   "T",        "Z",   " ",  ".",  "@",   "in",
        "today", "tomorrow", "now", "once",     "h",   "d",  "w",  "min", "s",
        "fri",   "noon",     "x",   "\xc3\xa4", "\xff"};
    std::mt19937 random(20261121);
    const auto below = [&](std::size_t limit) { return random() % limit; };
    int times = 0;
    int periods = 0;
    for (int iteration = 0; iteration < 20000; ++iteration) {
        std::string argument;
        for (std::size_t left = below(9); left > 0; --left) {
            if (iteration % 2 == 0)
                argument += pieces[below(pieces.size())];
            else
                argument += static_cast<char>(below(256));
        }
        times += IsParsedOrRefused(argument, [&] { ParseTime(argument, Utc(cNow)); }) ? 1 : 0;
        periods += IsParsedOrRefused(argument, [&] { ParsePeriod(argument); }) ? 1 : 0;
        ASSERT_FALSE(HasFailure());
    }
    // Some arguments must have been valid.
    EXPECT_GT(times, 0);
    EXPECT_GT(periods, 0);
}

// Every argument that differs from a valid one in one byte, and every truncated one.
TEST(AnyArgument, CloseToAValidOneIsParsedOrRefusedWithAPrintableMessage) {
    const CZone zone("Europe/Berlin");
    for (const std::string valid :
         {"2026-11-21 14:30:15+01:00", "tomorrow 02:00", "in 1d 12h", "@1795267800", "14:30:15"}) {
        for (std::size_t offset = 0; offset < valid.size(); ++offset) {
            std::string argument = valid;
            for (int byte = 0; byte < 256; ++byte) {
                argument[offset] = static_cast<char>(byte);
                IsParsedOrRefused(argument, [&] { ParseTime(argument, Utc(cNow)); });
                IsParsedOrRefused(argument, [&] { ParsePeriod(argument); });
            }
            argument = valid.substr(0, offset);
            IsParsedOrRefused(argument, [&] { ParseTime(argument, Utc(cNow)); });
            ASSERT_FALSE(HasFailure());
        }
    }
}
