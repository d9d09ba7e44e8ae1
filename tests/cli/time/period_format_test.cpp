// Parsing and formatting periods: the hours of accepted arguments, the message and the offset for
// refused ones, and that a formatted period is parsed to the same value.

#include <gtest/gtest.h>
#include "cli/time/PeriodFormat.h"

#include <cstdint>
#include <map>
#include <string>

#include "RefusedArgument.h"

using namespace vxsched;

namespace {

class RefusedPeriod : public testing::TestWithParam<TRefused> {};

}  // namespace

TEST(ParsePeriod, IsInHours) {
    const std::map<std::string, std::uint32_t> tests = {{"once", 0},
                                                        {" Once ", 0},
                                                        {"6h", 6},
                                                        {"1h", 1},
                                                        {"1d", 24},
                                                        {"2w", 336},
                                                        {"1d12h", 36},
                                                        {"1d 12h", 36},
                                                        {" 6 h ", 6},
                                                        {"6 hours", 6},
                                                        {"1 hour", 1},
                                                        {"2 hrs", 2},
                                                        {"1 hr", 1},
                                                        {"2 days", 48},
                                                        {"1 day", 24},
                                                        {"2 weeks", 336},
                                                        {"1 week", 168},
                                                        {"1w2d3h", 219},
                                                        {"1W 2D 3H", 219},
                                                        {"0w6h", 6},
                                                        {"1193046h", 1193046},
                                                        {"7101w3d6h", 1193046},
                                                        {"007h", 7}};
    for (const auto& [argument, hours] : tests)
        EXPECT_EQ(ParsePeriod(argument), hours) << argument;
}

TEST_P(RefusedPeriod, ReportsTheReasonAndTheOffset) {
    const auto error = ErrorOf([] { ParsePeriod(GetParam().text); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->Offset(), GetParam().offset);
    EXPECT_EQ(error->what(), Message("period", GetParam()));
}

static const char cZeroPeriod[] =
    "a period must not be zero; use once for a task that runs a single time";
static const char cLongest[] = "the longest period is 1193046h";

INSTANTIATE_TEST_SUITE_P(
    Argument, RefusedPeriod,
    testing::Values(
        TRefused{"", 0, "it is empty; expected 6h, 1d, 2w or once"},
        TRefused{"  ", 2, "it is empty; expected 6h, 1d, 2w or once"},
        TRefused{"6", 1, "expected a unit, as in 6h"},
        TRefused{"0", 1, "expected a unit, as in 0h"},
        TRefused{"1d12", 4, "expected a unit, as in 12h"},
        TRefused{"90m", 0, "a period must be a whole number of hours"},
        TRefused{"60min", 0, "a period must be a whole number of hours"},
        TRefused{"60 minutes", 0, "a period must be a whole number of hours"},
        TRefused{"3600s", 0, "a period must be a whole number of hours"},
        TRefused{"1h30m", 2, "a period must be a whole number of hours"},
        TRefused{"1.5h", 1, "only whole numbers are accepted; use a smaller unit for the rest"},
        TRefused{"0h", 0, cZeroPeriod}, TRefused{" 0d0h", 1, cZeroPeriod},
        TRefused{"-6h", 0, "a period cannot be negative"},
        TRefused{" -6h", 1, "a period cannot be negative"},
        TRefused{"+6h", 0, "expected a number with a unit, such as 6h"},
        TRefused{"1193047h", 0, cLongest}, TRefused{"49711d", 0, cLongest},
        TRefused{"4294967296h", 0, cLongest}, TRefused{"7102w", 0, cLongest},
        TRefused{"99999999999999999999w", 0, cLongest},
        TRefused{"144115188075855872w", 0, cLongest},
        TRefused{"daily", 0, "expected 6h, 1d, 2w or once"},
        TRefused{"onces", 0, "expected 6h, 1d, 2w or once"},
        TRefused{"once 6h", 5, "unexpected input after the period"},
        TRefused{"6h once", 3, "unexpected input after the period"},
        TRefused{"6h,", 2, "unexpected input after the period"},
        TRefused{"2y", 1, "unknown unit \"y\"; use h, d or w"},
        TRefused{"12h1d", 3,
                 "the units must go from the largest to the smallest, each at most once"}));

TEST(FormatPeriod, TakesTheLargestUnitThatDivides) {
    const std::map<std::uint32_t, std::string> tests = {{0, "once"},
                                                        {1, "1h"},
                                                        {6, "6h"},
                                                        {23, "23h"},
                                                        {24, "1d"},
                                                        {25, "25h"},
                                                        {36, "36h"},
                                                        {144, "6d"},
                                                        {168, "1w"},
                                                        {192, "8d"},
                                                        {336, "2w"},
                                                        {169, "169h"},
                                                        {1193046, "1193046h"},
                                                        {4294967295, "4294967295h"}};
    for (const auto& [hours, formatted] : tests)
        EXPECT_EQ(FormatPeriod(hours), formatted);
}

TEST(FormatPeriod, IsReadBackAsTheSamePeriod) {
    for (std::uint32_t hours = 0; hours <= 1193046; hours += hours < 2000 ? 1 : 997)
        ASSERT_EQ(ParsePeriod(FormatPeriod(hours)), hours);
    EXPECT_EQ(ParsePeriod(FormatPeriod(1193046)), 1193046U);
}
