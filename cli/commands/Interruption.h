#pragma once

#include <sys/types.h>

namespace vxsched {

// What a signal that would end this command (SIGINT, SIGTERM, SIGHUP) does to its change; one
// object in a process. Until the change has begun, the signal ends the command as usual, which
// cancels the change. From then on the change is made, and the command continues to its end to
// report it. A change that was overwritten has to begin again, and can be cancelled until then.
// While a launched program is waited for, the signal ends the command, which first prints that the
// program keeps running.
class CInterruption {
public:
    CInterruption();
    ~CInterruption();  // prints that the change was made, if a signal came too late to cancel it
    CInterruption(const CInterruption&) = delete;
    CInterruption& operator=(const CInterruption&) = delete;

    // To be called when the change begins, when one that was overwritten is about to be made again,
    // and around the wait for the program that it launched.
    static void ChangeBegins();
    static void ChangeIsRetried();
    static void WaitsFor(pid_t program);
    static void WaitEnds();
};

}  // namespace vxsched
