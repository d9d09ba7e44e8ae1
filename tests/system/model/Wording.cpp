#include "Wording.h"

#include <cstdio>

std::string Quoted(const std::string& value) {
    static constexpr std::size_t cShown = 48;
    std::string quoted = "\"";
    for (std::size_t index = 0; index < value.size(); ++index) {
        if (value.size() > 2 * cShown && index == cShown) {
            index = value.size() - cShown;
            quoted += "\"..." + std::to_string(value.size()) + " bytes...\"";
        }
        const char character = value[index];
        if (character >= ' ' && character <= '~' && character != '"' && character != '\\') {
            quoted += character;
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x",
                          static_cast<unsigned int>(static_cast<unsigned char>(character)));
            quoted += escaped;
        }
    }
    return quoted + '"';
}

std::string Worded(const std::optional<std::string>& value) {
    return value ? Quoted(*value) : "null";
}

std::string Worded(bool answer) {
    return answer ? "true" : "false";
}

std::string Worded(std::int64_t value) {
    return std::to_string(value);
}

std::string Worded(const TRow& row) {
    return '{' + Quoted(row.name) + ", next " + std::to_string(row.next) + ", last " +
           std::to_string(row.last) + ", period " + std::to_string(row.period) + ", " +
           Quoted(row.program) + ", " + Quoted(row.parameters) + ", paused " +
           std::to_string(row.paused) + '}';
}

std::string Worded(const TRows& rows) {
    std::string words;
    for (const TRow& row : rows)
        words += "\n        " + Worded(row);
    return words;
}

std::string Worded(const TPlace& place) {
    switch (place.kind) {
        case TPlace::cNoDirectory:
            return "no directory";
        case TPlace::cNothing:
            return "no file";
        case TPlace::cDirectory:
            return "a directory";
        case TPlace::cFile:
            break;
    }
    return Quoted(place.bytes);
}

std::string Worded(const std::vector<std::string>& happened) {
    std::string words;
    for (const std::string& line : happened)
        words += "\n        " + Quoted(line);
    return words;
}
