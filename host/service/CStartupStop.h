#pragma once

#include <thread>

#include "base/CDescriptor.h"

// Ends the process on SIGTERM or SIGINT while the host starts up, when its main loop does not read
// signals yet: the startup waits for locks that others hold, for as long as they do. The process
// exits with cStopped without any cleaning up, as after a kill, which the next startup expects.
//
// A thread of its own waits for the signals, which are blocked (see CSignals). If it cannot be
// started, a stop waits for the end of the startup.
class CStartupStop {
public:
    CStartupStop();
    // Ends the thread; later signals are left to the main loop.
    ~CStartupStop();
    CStartupStop(const CStartupStop&) = delete;
    CStartupStop& operator=(const CStartupStop&) = delete;

private:
    void Run() const;

    CDescriptor signals;
    CDescriptor end;  // an eventfd
    std::thread thread;
};
