#include "interpose/SemaphoreWait.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <ctime>

#include "base/SemaphoreRelease.h"
#include "interpose/NextDefinition.h"

namespace {

constexpr int cNoSet = -1;
// Of one wait; the same as CStoreMutexLock's, so that a wedged mutex is found as soon by either.
constexpr timespec cSlice{.tv_sec = 1, .tv_nsec = 0};

TSemaphoreHandlers gHandlers{nullptr, nullptr};  // set before another thread locks
std::atomic<bool> gIsFollowing{false};
std::atomic<int> gFollowed{cNoSet};     // as the add-in knows it
std::atomic<int> gCurrent{cNoSet};      // it, or its latest replacement
thread_local int gLastLocked = cNoSet;  // by this thread: the followed set or a replacement

bool IsLock(const sembuf& operation) {
    return operation.sem_op == -1 && (operation.sem_flg & IPC_NOWAIT) == 0;
}

// True for a lock on the followed set, which the first lock determines.
bool LocksFollowed(int set, const sembuf& operation) {
    int none = cNoSet;
    if (!IsLock(operation))
        return false;
    if (gFollowed.compare_exchange_strong(none, set))
        gCurrent = set;
    return gFollowed == set;
}

int Wait(int set, sembuf* operations, size_t count) {
    int result = 0;
    do {
        result = semtimedop(set, operations, count, nullptr);
    } while (result == -1 && errno == EINTR);
    return result;
}

int WaitInSlices(int set, sembuf* operation) {
    for (;;) {
        const int result = semtimedop(set, operation, 1, &cSlice);
        if (result == 0 || (errno != EINTR && errno != EAGAIN))
            return result;
        if (errno == EAGAIN && gHandlers.onWait != nullptr)
            gHandlers.onWait();
    }
}

int LockFollowed(sembuf* operation) {
    for (int set = gCurrent;;) {
        if (WaitInSlices(set, operation) == 0) {
            gLastLocked = set;
            return 0;
        }
        if (errno != EINVAL && errno != EIDRM)
            return -1;
        const int error = errno;
        set = gHandlers.replace(set);
        if (set == cNoSet) {
            errno = error;
            return -1;
        }
        gCurrent = set;
    }
}

// A load of the add-in in another process sets the mutex free under its holder; a second release
// would let two in at once.
int ReleaseFollowed() {
    const int result = ReleaseIfTaken(gLastLocked);
    return result == -1 && errno == ERANGE ? 0 : result;
}

}  // namespace

void FollowNextLockedSet(const TSemaphoreHandlers& handlers) {
    gHandlers = handlers;
    gFollowed = cNoSet;
    gCurrent = cNoSet;
    gIsFollowing = true;
}

// Called by the add-in for the store mutex, on any thread that makes a tick or an exported call,
// and by the program. Unlike libc's it does not fail with EINTR but waits again. The kernel
// interrupts a wait not only for a signal handler, of which these programs have none, but also when
// the process is stopped and continued, frozen for a suspend of the machine, or attached to by a
// debugger. The add-in would go on without the mutex and release it all the same, which lets two
// processes in at once from then on. A set that is followed is replaced once it is gone, see
// FollowNextLockedSet(). Result and errno are otherwise those of semop().
INTERPOSED int semop(int set, sembuf* operations, size_t count) noexcept {
    if (!gIsFollowing || count != 1)
        return Wait(set, operations, count);
    if (LocksFollowed(set, *operations))
        return LockFollowed(operations);
    if (operations->sem_op == 1 && set == gFollowed && gLastLocked != cNoSet)
        return ReleaseFollowed();
    return Wait(set, operations, count);
}
