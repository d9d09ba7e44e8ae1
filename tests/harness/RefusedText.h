#pragma once

#include <gtest/gtest.h>
#include "cli/time/CParseError.h"

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>

// A text that cannot be read as a time or as a period, and the error that says so.

struct TRefused {
    const char* text;
    std::size_t offset;
    const char* reason;
};

inline void PrintTo(const TRefused& test, std::ostream* stream) {
    *stream << '"' << test.text << '"';
}

// The error that the call throws; none, and a failure, if it throws nothing.
template <typename Call>
std::optional<vxsched::CParseError> ErrorOf(const Call& call) {
    try {
        call();
    } catch (const vxsched::CParseError& error) {
        return error;
    }
    ADD_FAILURE() << "nothing was thrown";
    return std::nullopt;
}

// What the whole message must be for a text of ASCII characters.
inline std::string Message(const std::string& kind, const TRefused& test) {
    return "cannot read the " + kind + " \"" + test.text + "\": " + test.reason + "\n    " +
           test.text + "\n    " + std::string(test.offset, ' ') + '^';
}
