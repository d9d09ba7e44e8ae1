#pragma once

#include <array>
#include <thread>

#include "base/CDescriptor.h"

namespace vxsched {

// Puts a pipe in place of the terminals among standard output and error, for programs of another
// user's that inherit these: a program with the descriptor of a terminal can type input into it. A
// thread copies what comes through the pipe to the terminal, byte for byte, until the object is
// destroyed, which writes what is left; programs that keep the pipe open longer are not waited for.
// Without a terminal it does nothing. For one thread; throws CError (cFailed).
class CTerminalPipe {
public:
    CTerminalPipe();
    ~CTerminalPipe();
    CTerminalPipe(const CTerminalPipe&) = delete;
    CTerminalPipe& operator=(const CTerminalPipe&) = delete;

    // Gives this process its terminals back, once the programs have inherited the pipe.
    void TakeTerminals();

private:
    void Copy() const;

    std::array<CDescriptor, 2> terminals;  // of standard output and error; closed if it is none
    CDescriptor input;                     // of the pipe
    CDescriptor end;                       // its other end is closed when the object is destroyed
    CDescriptor endSignal;                 // that other end
    std::thread copier;
};

}  // namespace vxsched
