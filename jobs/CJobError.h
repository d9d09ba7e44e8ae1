#pragma once

#include <stdexcept>

namespace vxsched {

// A command line that the runner does not understand; what() is one line for a person, short and safe
// to print: what is wrong, with which word, and what to do.
class CJobError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace vxsched
