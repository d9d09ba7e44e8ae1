#include "runs/ParseJson.h"

#include <nlohmann/json.hpp>
#include <string>

using TJson = nlohmann::ordered_json;

CJsonTooDeep::CJsonTooDeep()
    : std::runtime_error("it is nested deeper than " + std::to_string(cMostJsonLevels) +
                         " levels") {}

// Up to the first error in `json`, this finds the strings and levels that the parser finds.
static bool IsTooDeep(std::string_view json) {
    int levels = 0;
    bool isInString = false;
    for (std::size_t offset = 0; offset < json.size(); ++offset) {
        const char byte = json[offset];
        if (isInString && byte == '\\')
            ++offset;
        else if (byte == '"')
            isInString = !isInString;
        else if (!isInString && (byte == '[' || byte == '{') && ++levels > cMostJsonLevels)
            return true;
        else if (!isInString && (byte == ']' || byte == '}'))
            --levels;
    }
    return false;
}

TJson ParseJson(std::string_view string) {
    // Not by a callback of the parser: with one, it searches the whole list for each of its objects.
    if (IsTooDeep(string))
        throw CJsonTooDeep();
    return TJson::parse(string);
}
