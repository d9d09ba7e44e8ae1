#include "units/UnitText.h"

#include <fmt/format.h>

namespace vxsched {

namespace {

// A file name has 255 bytes; ".service" is the longer suffix.
constexpr std::size_t cMostName = 255 - 8;
constexpr std::string_view cNamePrefix = "vantrix-";

std::string Quoted(std::string_view word, bool hasVariables) {
    std::string quoted = "\"";
    for (const char one : word) {
        if (one == '"' || one == '\\')
            quoted += '\\';
        else if (one == '%' || (one == '$' && hasVariables))
            quoted += one;
        if (static_cast<unsigned char>(one) < ' ')
            quoted += fmt::format("\\x{:02x}", static_cast<unsigned>(one));
        else
            quoted += one;
    }
    return quoted + '"';
}

bool IsPlain(char one) {
    return (one >= 'a' && one <= 'z') || (one >= 'A' && one <= 'Z') || (one >= '0' && one <= '9') ||
           one == '-' || one == '_' || one == '.';
}

}  // namespace

std::string UnitValue(std::string_view value) {
    std::string written;
    for (const char one : value)
        written += one == '%' ? "%%" : std::string(1, one);
    return written;
}

std::string UnitWord(std::string_view word) {
    return Quoted(word, false);
}

std::string UnitArgument(std::string_view argument) {
    return Quoted(argument, true);
}

std::string UnitName(std::string_view task) {
    std::string name(cNamePrefix);
    for (const char one : task)
        name += IsPlain(one) ? std::string(1, one)
                             : fmt::format("\\x{:02x}", static_cast<unsigned char>(one));
    return name.size() > cMostName ? "" : name;
}

}  // namespace vxsched
