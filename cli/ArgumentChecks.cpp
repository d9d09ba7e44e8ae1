#include "cli/ArgumentChecks.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace vxsched {

// CLI::Range would print its bounds with six decimals, and accept NaN.
std::string CheckLockTimeout(const std::string& argument) {
    char* end = nullptr;
    const double seconds = std::strtod(argument.c_str(), &end);
    if (!argument.empty() && end == argument.c_str() + argument.size() && seconds >= 0 &&
        seconds <= 86400)
        return "";
    return fmt::format("expected a number of seconds from 0 to 86400, not \"{}\"", argument);
}

std::string CheckNumber(const std::string& argument) {
    constexpr int cMost = 1'000'000;
    int number = 0;
    const char* const end = argument.data() + argument.size();
    const auto [parsed, error] = std::from_chars(argument.data(), end, number);
    if (error == std::errc() && parsed == end && number >= 1 && number <= cMost)
        return "";
    return fmt::format("expected a number from 1 to {}, not \"{}\"", cMost, argument);
}

std::function<std::string(const std::string&)> OneOf(std::vector<std::string> words) {
    return [words = std::move(words)](const std::string& argument) -> std::string {
        if (std::find(words.begin(), words.end(), argument) != words.end())
            return "";
        return fmt::format("expected {} or {}, not \"{}\"",
                           fmt::join(words.begin(), words.end() - 1, ", "), words.back(), argument);
    };
}

}  // namespace vxsched
