#pragma once

// What a program does about the semaphores on which the add-in locks. The add-in opens its set once
// and never again: after another process has removed the set, it would continue unlocked.
struct TSemaphoreHandlers {
    // Returns the set to lock on instead of `removed`, which is gone; -1 if there is none, and the
    // lock operation fails. It must not throw.
    int (*replace)(int removed) noexcept;

    // Called about once a second while a lock operation waits. May be null. It must not throw.
    void (*onWait)() noexcept;
};

// From now on, follows the set on which the next lock operation is made: one operation of -1, which
// waits. A program calls this right before it loads the add-in, whose load locks. Lock operations
// on that set are made on its replacement once it is gone. A release is made on the set on which
// its thread last locked; if that is gone, the release fails, because on the replacement it would
// let two holders in at once. For the same reason it does nothing, and succeeds, if another process
// has set the value since, as a load of the add-in does. Both handlers run on the thread that
// locks.
void FollowNextLockedSet(const TSemaphoreHandlers& handlers);
