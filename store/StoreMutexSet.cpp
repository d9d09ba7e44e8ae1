#include "store/StoreMutexSet.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <chrono>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "store/SemaphoreArgument.h"
#include "store/StoreKey.h"

namespace vxsched {

namespace {

constexpr int cAccess = 0660;
constexpr std::chrono::milliseconds cMakersTime(100);

// 0 to 1 in one step, unless the value is not 0 any more. Without SEM_UNDO: the end of this process
// must not take the value away again.
bool GiveFirstValue(int set) {
    sembuf free[] = {{.sem_num = 0, .sem_op = 0, .sem_flg = IPC_NOWAIT},
                     {.sem_num = 0, .sem_op = 1, .sem_flg = IPC_NOWAIT}};
    return semop(set, free, 2) == 0;
}

// A set that was used has the time of that use, and one that was given a value has the process that
// gave it.
bool HasNoValue(int set) {
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    argument.buf = &status;
    return semctl(set, 0, IPC_STAT, argument) == 0 && status.sem_otime == 0 &&
           semctl(set, 0, GETVAL) == 0 && semctl(set, 0, GETPID) == 0;
}

bool TryToGiveTo(const TSetOwner& owner, int set) {
    struct semid_ds status {};
    TSemaphoreArgument argument{};
    argument.buf = &status;
    status.sem_perm.uid = owner.user;
    status.sem_perm.gid = owner.group;
    status.sem_perm.mode = cAccess;
    return semctl(set, 0, IPC_SET, argument) != -1;
}

void GiveTo(const TSetOwner& owner, int set) {
    if (!TryToGiveTo(owner, set))
        throw SystemError("cannot give the store mutex to the owner of the store", errno);
}

bool IsGone(int error) {
    return error == EIDRM || error == EINVAL;
}

}  // namespace

TStoreMutexSet OpenOrMakeStoreMutex(const std::optional<TSetOwner>& owner) {
    for (;;) {
        const int made = semget(StoreKey(), 1, IPC_CREAT | IPC_EXCL | cAccess);
        if (made != -1) {
            if (owner)
                GiveTo(*owner, made);
            // If the value is not 0, a load has set it meanwhile.
            if (!GiveFirstValue(made) && IsGone(errno))
                continue;
            return {made, true};
        }
        if (errno != EEXIST)
            throw SystemError("cannot make the store mutex", errno);
        const int found = semget(StoreKey(), 1, 0);
        if (found != -1) {
            InitialiseAbandonedSet(found, owner);
            return {found, false};
        }
        if (errno != ENOENT)
            throw SystemError("cannot open the store mutex", errno);
    }
}

bool IsSetAbandoned(int set) noexcept {
    const CDeadline deadline(cMakersTime);
    while (HasNoValue(set)) {
        if (!deadline.Pause())
            return true;
    }
    return false;
}

bool InitialiseAbandonedSet(int set, const std::optional<TSetOwner>& owner) noexcept {
    // Its maker may have been killed before it gave the set to the owner, too. A member of the store's
    // group may not do it for another user's set, and can use that as it is.
    return IsSetAbandoned(set) && (!owner || TryToGiveTo(*owner, set) || errno == EPERM) &&
           GiveFirstValue(set);
}

}  // namespace vxsched
