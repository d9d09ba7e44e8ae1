#pragma once

#include <sys/sem.h>

namespace vxsched {

// The last argument of semctl(), which the caller has to define: `val` for SETVAL, `buf` for
// IPC_STAT, IPC_SET and SEM_STAT_ANY, `info` for SEM_INFO.
union TSemaphoreArgument {
    int val;
    struct semid_ds* buf;
    struct seminfo* info;
};

}  // namespace vxsched
