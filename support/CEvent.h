#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "VXC_Export.h"

// A named event across processes and threads: signalled or not. All objects of one name in one IPC
// namespace, in whichever process, are the same event.
//
// - A new event is not signalled. SetEvent() and ResetEvent() are idempotent.
// - Manual-reset (true): stays signalled until ResetEvent(); every waiter passes, none consumes the
//   signal. Auto-reset (false): one waiter consumes the signal. The flag belongs to the object, not
//   to the event: it says how this object waits.
// - The event lives as long as an object of its name does in any process. A killed process counts
//   as one that closed its objects; whoever opens an event that only killed processes had open finds
//   it not signalled.
// - It is kept in a System V semaphore set beside the store mutex, readable and writable for owner
//   and group, so one IPC namespace isolates both. A set that somebody removed from outside is made
//   anew, not signalled, by the next operation, and a wait in progress goes on with the new one.
// - What cannot be had (no permission, no semaphores left, the key taken by something else) throws
//   std::system_error, which names the event and the reason.
//
// Any thread may call anything but the destructor at any time. A child made by fork may use its
// copy of an object, but does not count as an opener of the event. Do not use it to hand data from
// thread to thread inside one process: a std::condition_variable is cheaper there.
class VXC_EXPORT CEvent {
public:
    CEvent(std::string name, bool manualReset);

    // The last object of a name, in whichever process, takes the event out of the system.
    virtual ~CEvent();

    CEvent(const CEvent&) = delete;
    CEvent& operator=(const CEvent&) = delete;

    // Waits until the event is signalled, at most `milliseconds`: 0 tests without blocking, a
    // negative time waits without limit. Non-zero when it was signalled (consumed, if this object
    // is auto-reset), 0 when the time ran out. Counts on the monotonic clock and goes on after a
    // signal handler ran.
    virtual int Wait(int milliseconds);

    void SetEvent();
    void ResetEvent();

    // Wait() in seconds.
    int WaitSignalOrTimeout(int seconds);

    // Who has to do with the event of a name at this moment, in whichever process.
    struct TUse {
        int openers = 0;  // objects that have it open
        int waiters = 0;  // threads that wait for it
    };

    // Looks without opening, making or changing anything. An event that does not exist, or that this
    // process may not read, has no users.
    static TUse UseOf(const std::string& name);

private:
    using TTimeout = std::optional<std::chrono::milliseconds>;  // none: without limit

    int WaitFor(TTimeout timeout);
    void SetState(int state);
    void Join();
    void Leave() noexcept;
    void Reopen(int failedId);
    [[noreturn]] void Fail(const char* operation, int error) const;

    const std::string name;
    const bool manualReset;
    const key_t key;
    const pid_t opener;  // the process that counts as having the event open
    std::mutex reopening;
    std::atomic<int> semId{-1};
};
