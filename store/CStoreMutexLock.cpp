#include "store/CStoreMutexLock.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>

#include <vxsched/Error.h>
#include "store/StoreKey.h"

namespace vxsched {

CStoreMutexLock::CStoreMutexLock(std::chrono::milliseconds lockTimeout) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point end = TClock::now() + lockTimeout;
    for (;;) {
        const int found = semget(StoreKey(), 1, 0);
        if (found == -1) {
            if (errno == ENOENT)
                return;
            throw SystemError("cannot open the store mutex", errno);
        }
        const auto left = std::max<TClock::duration>(end - TClock::now(), TClock::duration(0));
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec timeout{.tv_sec = seconds.count(),
                               .tv_nsec = std::chrono::nanoseconds(left - seconds).count()};
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
        if (semtimedop(found, &take, 1, &timeout) == 0) {
            set = found;
            return;
        }
        // The semaphore was removed while this waited; another process may have made a new one.
        if (errno == EIDRM || errno == EINVAL)
            continue;
        if (errno == EAGAIN) {
            const int holder = semctl(found, 0, GETPID);
            throw CError(EError::cBusy,
                         "the store mutex is held, last by process " + std::to_string(holder) +
                             ", and did not become free within " +
                             std::to_string(lockTimeout.count()) +
                             " ms; nothing was changed. A tick holds it for two seconds for each "
                             "launch; try again, or with a longer lock timeout");
        }
        if (errno != EINTR)
            throw SystemError("cannot take the store mutex", errno);
    }
}

CStoreMutexLock::~CStoreMutexLock() {
    if (set == -1)
        return;
    // Another process that loads the add-in sets the mutex free even while it is held; releasing it
    // again would let two processes in at once. While it is held, this process was the last to
    // operate on it.
    if (semctl(set, 0, GETPID) != getpid())
        return;
    sembuf release{.sem_num = 0, .sem_op = 1, .sem_flg = SEM_UNDO};
    semop(set, &release, 1);
}

}  // namespace vxsched
