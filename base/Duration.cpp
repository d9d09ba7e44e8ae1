#include "base/Duration.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

namespace vxsched {

using std::chrono::seconds;

namespace {

struct TUnit {
    seconds length;
    std::string_view words;  // each with a blank before and after it
};

using namespace std::chrono_literals;

constexpr TUnit cUnits[] = {
    {168h, " w week weeks "},
    {24h, " d day days "},
    {1h, " h hr hrs hour hours "},
    {1min, " m min mins minute minutes "},
    {1s, " s sec secs second seconds "},
};

// Each unit occurs at most once, so the sum of the largest numbers is far inside the range of
// seconds.
constexpr std::int64_t cLargestNumber = 1'000'000'000'000;

std::int64_t ValueOf(std::string_view digits) {
    std::int64_t value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return result.ec == std::errc() ? std::min(value, cLargestNumber) : cLargestNumber;
}

seconds ReadUnit(CParser& reader, std::string_view number) {
    if (reader.Next() == '.' || reader.Next() == ',')
        reader.Fail(reader.Offset(),
                    "only whole numbers are accepted; use a smaller unit for the rest");
    reader.SkipBlanks();
    const std::size_t offset = reader.Offset();
    const std::string word = reader.TakeWord();
    if (word.empty())
        reader.Fail(offset, fmt::format("expected a unit, as in {}h", number));
    for (const TUnit& unit : cUnits) {
        if (unit.words.find(' ' + word + ' ') != std::string_view::npos)
            return unit.length;
    }
    reader.Fail(offset, fmt::format("unknown unit \"{}\"; use h, d or w", word));
}

}  // namespace

seconds ReadDuration(CParser& reader, seconds smallest, std::string_view tooSmall) {
    seconds sum(0);
    seconds unitBefore = seconds::max();
    do {
        const std::size_t offset = reader.Offset();
        const std::string_view number = reader.TakeDigits();
        if (number.empty())
            reader.Fail(offset, "expected a number with a unit, such as 6h");
        const seconds unit = ReadUnit(reader, number);
        if (unit < smallest)
            reader.Fail(offset, tooSmall);
        if (unit >= unitBefore)
            reader.Fail(offset,
                        "the units must go from the largest to the smallest, each at most once");
        sum += ValueOf(number) * unit;
        unitBefore = unit;
        reader.SkipBlanks();
    } while (reader.IsAtDigit());
    return sum;
}

std::string FormatDuration(seconds duration) {
    std::string text;
    for (const TUnit& unit : cUnits) {
        if (const auto number = duration / unit.length; number != 0)
            text += std::to_string(number) + unit.words[1];
        duration %= unit.length;
    }
    return text;
}

}  // namespace vxsched
