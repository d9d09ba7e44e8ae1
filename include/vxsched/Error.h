#pragma once

#include <stdexcept>
#include <string>

#include <vxsched/Public.h>

namespace vxsched {

// What kind of thing went wrong; the message says the rest.
enum class EError {
    cFailed,       // the system refused something; the message holds its reason
    cDamaged,      // the table cannot be read to its end, or would harm who loads it
    cBusy,         // somebody else was at it for too long; nothing was changed
    cRefused,      // something speaks against the change: see Objections.h
    cNotFound,     // there is no task of that name
    cNoAccess,     // this user may not
    cNoScheduler,  // tasks are due and there is no scheduling process to start them
};

// The one exception that the client library throws. Its text says what went wrong, with which
// input, and what to do.
class VXSCHED_PUBLIC CError : public std::runtime_error {
public:
    CError(EError kind, const std::string& message) : std::runtime_error(message), code(kind) {}

    EError Code() const { return code; }

private:
    EError code;
};

// For a call of the system that failed with `error` (an errno): cNoAccess where it is a matter of
// rights, else cFailed. `what` says what could not be done, with which input.
VXSCHED_PUBLIC CError SystemError(const std::string& what, int error);

}  // namespace vxsched
