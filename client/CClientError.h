#pragma once

#include <stdexcept>
#include <string>

namespace vxsched {

// What kind of thing went wrong; the message says the rest.
enum class EError {
    cFailed,   // the system refused something; the message holds its reason
    cDamaged,  // the table cannot be read to its end
    cBusy,     // the store mutex was held by somebody else for too long
};

// The one exception that the client library throws. Its text says what went wrong, with which
// input, and what to do.
class CClientError : public std::runtime_error {
public:
    CClientError(EError kind, const std::string& message)
        : std::runtime_error(message), code(kind) {}

    EError Code() const { return code; }

private:
    EError code;
};

}  // namespace vxsched
