#pragma once

#include <optional>

#include "base/CDescriptor.h"

// The signals that the host wants to know of, as something to read.
//
// The host has no signal handler at all: one that ran on the worker would cut short its wait for the
// store mutex, and the add-in would go on without it. What the host wants to know is blocked on every
// thread and read from a descriptor; a write to a closed pipe or beyond a size limit is blocked too
// and so becomes an error. All else keeps its default. Started programs inherit none of this: see
// ProgramStart.cpp.
class CSignals {
public:
    // To be made before the process has a second thread.
    CSignals();

    // Readable when Next() has one.
    int Descriptor() const { return descriptor.Get(); }

    // The number of the next signal that came. Never waits.
    std::optional<int> Next();

private:
    CDescriptor descriptor;
};
