#pragma once

#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string_view>

// The levels of arrays and objects that a JSON value may have. Ours have four.
inline constexpr int cMostJsonLevels = 64;

// A JSON value has more levels.
class CJsonTooDeep : public std::runtime_error {
public:
    CJsonTooDeep();
};

// Parses JSON from a file or a person. Copying and writing a value recurse once for each level, so a
// value of too many levels is refused before it exists: throws CJsonTooDeep, besides
// nlohmann::json::exception. Any thread may call it.
nlohmann::ordered_json ParseJson(std::string_view string);
