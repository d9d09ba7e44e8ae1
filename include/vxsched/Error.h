#pragma once

#include <stdexcept>
#include <string>

#include <vxsched/Public.h>

namespace vxsched {

// The kind of a failure, for a program to act on. The message has the details, for a person.
enum class EError {
    cFailed,       // a system call failed, or the add-in; the message has the reason
    cDamaged,      // the table cannot be read to its end, or loading it would hang a process
    cBusy,         // a wait for a lock or for the scheduling process timed out
    cRefused,      // a validation error, see Validation.h, or the state of the task forbids it
    cNotFound,     // the table has no task of that name
    cNoAccess,     // this user lacks the permission
    cNoScheduler,  // the change needs a scheduling process, and there is none that it can reach
    cUnknown,      // the change was begun, and whether the table has it could not be verified
};

// The exception that every function of the client library throws; besides it, only std::bad_alloc.
// Its message states what failed, on which input, why, and what to do. In the names and paths in it,
// control characters and bytes that are not UTF-8 are replaced by U+FFFD; a line end separates one
// reason from the next.
class VXSCHED_PUBLIC CError : public std::runtime_error {
public:
    CError(EError kind, const std::string& message) : std::runtime_error(message), code(kind) {}

    EError Code() const { return code; }

private:
    EError code;
};

// The error for a system call that failed with `error`, an errno: cNoAccess for EACCES, EPERM and
// EROFS, else cFailed. `what` states what failed on which input, as in "cannot read /a/file".
VXSCHED_PUBLIC CError SystemError(const std::string& what, int error);

}  // namespace vxsched
