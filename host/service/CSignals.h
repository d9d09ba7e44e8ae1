#pragma once

#include <optional>

#include "base/CDescriptor.h"

// The signals that the host handles, as a descriptor to read from.
//
// The host has no signal handlers: one that ran on the worker would interrupt its wait for the
// store mutex, and the add-in would continue without the lock. So the signals that the host handles
// are blocked on every thread and read from a descriptor. SIGPIPE and SIGXFSZ are blocked as well,
// which turns a write to a closed pipe or beyond a size limit into an error. All others have their
// default disposition. Launched programs inherit none of this, see host/programs/Launch.cpp.
class CSignals {
public:
    // To be constructed before the process has a second thread, since threads inherit the mask.
    // Throws std::system_error.
    CSignals();

    // Readable when Next() has a signal.
    int Descriptor() const { return descriptor.Get(); }

    // Returns the number of the next pending signal, nothing when there is none. Does not block.
    std::optional<int> Next();

private:
    CDescriptor descriptor;
};
