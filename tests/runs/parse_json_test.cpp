// Parsing JSON from a file or a person, within limits.

#include <gtest/gtest.h>
#include "runs/ParseJson.h"

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>

static std::string Nested(int levels) {
    const auto count = static_cast<std::size_t>(levels);
    return std::string(count, '[') + std::string(count, ']');
}

TEST(ParseJson, RefusesMoreLevelsThanItsLimit) {
    EXPECT_EQ(ParseJson(Nested(cMostJsonLevels)).dump(), Nested(cMostJsonLevels));
    EXPECT_THROW(ParseJson(Nested(cMostJsonLevels + 1)), CJsonTooDeep);
    EXPECT_THROW(ParseJson(std::string(cMostJsonLevels + 1, '[')), CJsonTooDeep);
    EXPECT_THROW(ParseJson("[\"\\\"\", " + Nested(cMostJsonLevels) + ']'), CJsonTooDeep);
}

TEST(ParseJson, CountsTheOpenLevelsOnly) {
    std::string list = "[{}";
    for (int number = 0; number < 2 * cMostJsonLevels; ++number)
        list += ",{\"a\":[]}";
    list += ']';
    EXPECT_EQ(ParseJson(list).dump(), list);
}

TEST(ParseJson, TakesNoBracketInAStringForALevel) {
    const std::string many(cMostJsonLevels + 1, '[');
    for (const std::string& string : {many, "\\\"" + many, "\\\\\",\"" + many, "\\u005b{" + many})
        EXPECT_NO_THROW(ParseJson("[\"" + string + "\"]")) << string;
}

TEST(ParseJson, ReportsAnErrorOfTheInput) {
    for (const char* const input : {"", "[", "]", "[\"\\", "]]]][", "{\"a\":1}}"})
        EXPECT_THROW(ParseJson(input), nlohmann::json::parse_error) << input;
}

// A search of the list for each of its objects would take minutes.
TEST(ParseJson, ParsesAListOfAMillionObjects) {
    std::string list = "[{}";
    for (int number = 1; number < 1'000'000; ++number)
        list += ",{}";
    EXPECT_EQ(ParseJson(list + ']').size(), 1'000'000U);
}
