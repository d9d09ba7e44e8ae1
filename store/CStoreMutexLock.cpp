#include "store/CStoreMutexLock.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "store/StoreKey.h"

namespace vxsched {

CStoreMutexLock::CStoreMutexLock(std::chrono::milliseconds lockTimeout) {
    const CDeadline deadline(lockTimeout);
    for (;;) {
        const int found = semget(StoreKey(), 1, 0);
        if (found == -1) {
            if (errno == ENOENT)
                return;
            throw SystemError("cannot open the store mutex", errno);
        }
        const timespec timeout = deadline.TimeLeft();
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
