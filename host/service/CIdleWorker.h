#pragma once

#include <CEvent.h>

#include <atomic>
#include <thread>

// A thread that waits for the stop event, as the worker does between two ticks. For a host that has
// ticked once and waits for its programs: clients take a scheduling process without such a wait to
// be in the middle of a tick, and would put off their changes until it has ended.
class CIdleWorker {
public:
    // The worker has ended. The caller keeps the event alive. `onWake` is called at each signal of
    // the event and once a second; it must not throw. If the system has no thread, clients wait.
    CIdleWorker(CEvent& stopEvent, void (*onWake)());
    ~CIdleWorker();  // blocks for at most a second
    CIdleWorker(const CIdleWorker&) = delete;
    CIdleWorker& operator=(const CIdleWorker&) = delete;

private:
    CEvent& stopEvent;
    void (*const onWake)();
    std::atomic<bool> isStopping{false};
    std::thread thread;
};
