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
        const timespec rest{.tv_sec = seconds.count(),
                            .tv_nsec = std::chrono::nanoseconds(left - seconds).count()};
        sembuf take{.sem_num = 0, .sem_op = -1, .sem_flg = SEM_UNDO};
        if (semtimedop(found, &take, 1, &rest) == 0) {
            set = found;
            return;
        }
        // Its last user has gone meanwhile; somebody else may have made a new one.
        if (errno == EIDRM || errno == EINVAL)
            continue;
        if (errno == EAGAIN) {
            const int holder = semctl(found, 0, GETPID);
            throw CError(EError::cBusy,
                         "the store mutex is held, last by process " + std::to_string(holder) +
                             ", and did not become free within " +
                             std::to_string(lockTimeout.count()) +
                             " ms; nothing was changed. A start of a task holds it for two "
                             "seconds; try again");
        }
        if (errno != EINTR)
            throw SystemError("cannot take the store mutex", errno);
    }
}

CStoreMutexLock::~CStoreMutexLock() {
    if (set == -1)
        return;
    // A load of the library by somebody else may have set it free meanwhile, and giving it back as
    // well would let two in at once. While it is held nobody but its holder has worked on it.
    if (semctl(set, 0, GETPID) != getpid())
        return;
    sembuf give{.sem_num = 0, .sem_op = 1, .sem_flg = SEM_UNDO};
    semop(set, &give, 1);
}

}  // namespace vxsched
