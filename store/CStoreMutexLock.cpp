#include "store/CStoreMutexLock.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "base/SemaphoreRelease.h"
#include "store/CMutexHealer.h"
#include "store/MakeError.h"
#include "store/StoreKey.h"
#include "store/StoreMutexSet.h"

namespace vxsched {

// The length of one wait: what else may be done about the mutex is done in between.
static constexpr timespec cSlice{.tv_sec = 1, .tv_nsec = 0};

static std::optional<TSetOwner> OwnerForSets(const CWriterLock* writerLock) {
    return writerLock != nullptr ? writerLock->OwnerForSets() : std::nullopt;
}

// Where the writer lock is held, a set that is missing is made. -1 if there is none.
static int FindSet(const CWriterLock* writerLock) {
    const int found = semget(StoreKey(), 1, 0);
    if (found != -1)
        return found;
    if (errno != ENOENT)
        throw SystemError("cannot open the store mutex", errno);
    if (writerLock == nullptr)
        return -1;
    return OpenOrMakeStoreMutex(writerLock->OwnerForSets()).id;
}

// Sets a wedged mutex free. Returns why not, or nothing.
static std::string Heal(CMutexHealer& healer, const CWriterLock& writerLock) {
    if (healer.Observe() != CMutexHealer::cUnchanged)
        return "";
    const CMutexHealer::TResult result = healer.Heal(writerLock);
    return result.holder && !result.isUsual ? "; " + Describe(*result.holder) : "";
}

CStoreMutexLock::CStoreMutexLock(std::chrono::milliseconds lockTimeout,
                                 const CWriterLock* writerLock) {
    const CDeadline deadline(lockTimeout);
    CMutexHealer healer;
    std::string notHealed;
    for (;;) {
        const int found = FindSet(writerLock);
        if (found == -1)
            return;
        // Before the wait: the end of a process that has waited in vain counts as a use of the set.
        InitialiseAbandonedSet(found);
        const timespec left = deadline.TimeLeft();
        const timespec timeout = left.tv_sec < cSlice.tv_sec ? left : cSlice;
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
        if (semtimedop(found, &take, 1, &timeout) == 0) {
            set = found;
            return;
        }
        // The semaphore was removed while this waited; another process may have made a new one.
        if (errno == EIDRM || errno == EINVAL)
            continue;
        if (errno == EAGAIN) {
            if (InitialiseAbandonedSet(found, OwnerForSets(writerLock)))
                continue;
            if (!deadline.HasPassed()) {
                if (writerLock != nullptr)
                    notHealed = Heal(healer, *writerLock);
                continue;
            }
            const int holder = semctl(found, 0, GETPID);
            throw MakeError(EError::cBusy,
                            "the store mutex is held, last by process {}, and did not become free "
                            "within {} ms{}",
                            holder, lockTimeout.count(), notHealed);
        }
        if (errno != EINTR)
            throw SystemError("cannot take the store mutex", errno);
    }
}

bool CStoreMutexLock::IsLost() const {
    return set != -1 && (semctl(set, 0, GETVAL) != 0 || semctl(set, 0, GETPID) != getpid());
}

CStoreMutexLock::~CStoreMutexLock() {
    if (set == -1)
        return;
    // Another process that loads the add-in sets the mutex free even while it is held; releasing it
    // again would let two processes in at once.
    ReleaseIfTaken(set);
}

}  // namespace vxsched
