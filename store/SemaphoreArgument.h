#pragma once

#include <sys/sem.h>

namespace vxsched {

// The last argument of semctl(), which the caller has to define: `val` for SETVAL, `buf` for
// IPC_STAT and IPC_SET.
union TSemaphoreArgument {
    int val;
    struct semid_ds* buf;
};

}  // namespace vxsched
