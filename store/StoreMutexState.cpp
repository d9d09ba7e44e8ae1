#include "store/StoreMutexState.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include <vxsched/Error.h>
#include "store/SemaphoreArgument.h"
#include "store/StoreKey.h"

namespace vxsched {

std::optional<TMutexState> InspectStoreMutex() {
    const int set = semget(StoreKey(), 1, 0);
    if (set == -1) {
        if (errno == ENOENT)
            return {};
        throw SystemError("cannot open the store mutex", errno);
    }
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    argument.buf = &status;
    const int value = semctl(set, 0, GETVAL);
    if (value == -1 || semctl(set, 0, IPC_STAT, argument) == -1)
        throw SystemError("cannot read the state of the store mutex", errno);
    return TMutexState{value, semctl(set, 0, GETPID), TTime(std::chrono::seconds(status.sem_otime)),
                       set};
}

}  // namespace vxsched
