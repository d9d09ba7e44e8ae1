#include "store/CStoreMutexLock.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>

#include <vxsched/Error.h>
#include "base/SemaphoreRelease.h"
#include "store/CMutexHealer.h"
#include "store/StoreKey.h"

namespace vxsched {

// The length of one wait: what else may be done about the mutex is done in between.
static constexpr std::chrono::seconds cSlice(1);

// Where the writer lock is held, a set that is missing is made. -1 if there is none.
static int FindSet(const CWriterLock* writerLock) {
    const int found = semget(StoreKey(), 1, 0);
    if (found != -1)
        return found;
    if (errno != ENOENT)
        throw SystemError("cannot open the store mutex", errno);
    if (writerLock == nullptr)
        return -1;
    const bool isSuperuser = geteuid() == 0;
    return OpenOrMakeStoreMutex(isSuperuser ? std::optional(writerLock->Owner()) : std::nullopt).id;
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
    using TClock = std::chrono::steady_clock;
    const TClock::time_point end = TClock::now() + lockTimeout;
    CMutexHealer healer;
    std::string notHealed;
    for (;;) {
        const int found = FindSet(writerLock);
        if (found == -1)
            return;
        const auto left = std::max<TClock::duration>(end - TClock::now(), TClock::duration(0));
        const auto slice = std::min<TClock::duration>(left, cSlice);
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(slice);
        const timespec timeout{.tv_sec = seconds.count(),
                               .tv_nsec = std::chrono::nanoseconds(slice - seconds).count()};
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
        if (semtimedop(found, &take, 1, &timeout) == 0) {
            set = found;
            return;
        }
        // The semaphore was removed while this waited; another process may have made a new one.
        if (errno == EIDRM || errno == EINVAL)
            continue;
        if (errno == EAGAIN) {
            if (InitialiseAbandonedSet(found))
                continue;
            if (TClock::now() < end) {
                if (writerLock != nullptr)
                    notHealed = Heal(healer, *writerLock);
                continue;
            }
            const int holder = semctl(found, 0, GETPID);
            throw CError(EError::cBusy,
                         "the store mutex is held, last by process " + std::to_string(holder) +
                             ", and did not become free within " +
                             std::to_string(lockTimeout.count()) +
                             " ms; nothing was changed. A tick holds it for two seconds for each "
                             "launch; try again, or with a longer lock timeout" +
                             notHealed);
        }
        if (errno != EINTR)
            throw SystemError("cannot take the store mutex", errno);
    }
}

CStoreMutexLock::~CStoreMutexLock() {
    if (set == -1)
        return;
    // Another process that loads the add-in sets the mutex free even while it is held; releasing it
    // again would let two processes in at once.
    ReleaseIfTaken(set);
}

}  // namespace vxsched
