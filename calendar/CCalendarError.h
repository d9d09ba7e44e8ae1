// The error of an expression or a zone that cannot be used.

#pragma once

#include <stdexcept>

namespace vxsched {

// what() is one line for a person: the input, why it is refused, and what is allowed. It is safe to
// print, and short whatever the input is.
class CCalendarError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace vxsched
