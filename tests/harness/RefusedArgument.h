#pragma once

#include <gtest/gtest.h>
#include "base/CParseError.h"

#include <cstddef>
#include <optional>
#include <ostream>
#include <string>

// An argument that cannot be parsed as a time or as a period, and the error that it causes.

struct TRefused {
    const char* text;
    std::size_t offset;
    const char* reason;
};

inline void PrintTo(const TRefused& test, std::ostream* stream) {
    *stream << '"' << test.text << '"';
}

// The error that the call throws. Fails the test and returns none if it throws nothing.
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

// The complete message that an argument of ASCII characters must cause.
inline std::string Message(const std::string& kind, const TRefused& test) {
    return "cannot read the " + kind + " \"" + test.text + "\": " + test.reason + "\n    " +
           test.text + "\n    " + std::string(test.offset, ' ') + '^';
}
