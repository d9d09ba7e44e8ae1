#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <string>

#include "VXC_Export.h"

// A named event across processes and threads: signalled or not. All objects of one name in one IPC
// namespace, in all processes, are the same event.
//
// - A new event is not signalled. SetEvent() and ResetEvent() are idempotent.
// - Manual-reset (true): stays signalled until ResetEvent(); every waiter passes, none consumes the
//   signal. Auto-reset (false): one waiter consumes the signal. The flag belongs to the object, not
//   to the event: it determines how this object waits.
// - The event lives as long as an object of its name does in any process. A killed process counts
//   as one that closed its objects; an event that only killed processes had open is not signalled
//   for the next process that opens it.
// - It is kept in a System V semaphore set like the store mutex's, readable and writable for owner
//   and group, so one IPC namespace isolates both. A set that was removed from outside is
//   created again, not signalled, by the next operation, and a wait in progress goes on with it.
// - An event that cannot be opened (no permission, no semaphores left, the key taken by something
//   else) throws std::system_error, whose message has the event and the reason.
//
// Any thread may call anything but the destructor at any time. A child made by fork may use its
// copy of an object, but does not count as an opener of the event. Do not use it to pass data from
// thread to thread inside one process: a std::condition_variable is cheaper there.
class VXC_EXPORT CEvent {
public:
    CEvent(std::string name, bool manualReset);

    // The last object of a name, in any process, removes the event from the system.
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

    // The current users of an event, in all processes.
    struct TUse {
        int openers = 0;  // objects that have it open
        int waiters = 0;  // threads that wait for it
        int set = -1;     // its semaphores; -1: the event does not exist
    };

    // Counts the users without opening, creating or changing anything. An event that does not
    // exist, or that this process may not read, has no users.
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
