#include "store/CMutexHealer.h"

#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include <vxsched/Error.h>
#include "base/SemaphoreRelease.h"
#include "store/SemaphoreArgument.h"
#include "store/StoreMutexSet.h"

namespace vxsched {

namespace {

void SetFree(int set) {
    const TSemaphoreArgument argument{.val = 1};
    if (semctl(set, 0, SETVAL, argument) == -1 && errno != EINVAL && errno != EIDRM)
        throw SystemError("cannot set the store mutex free", errno);
}

// Takes all of a value above 1 at once, so that nobody takes a part of it while it is set to 1. The
// undo frees the mutex again if this process is killed before that. If somebody has changed the
// value meanwhile, releases what it took, as far as that still counts: after a load of the add-in
// it does not.
bool TakeAll(const TMutexState& state) {
    sembuf take{
        .sem_num = 0, .sem_op = static_cast<short>(-state.value), .sem_flg = IPC_NOWAIT | SEM_UNDO};
    if (semop(state.set, &take, 1) != 0)
        return false;
    if (semctl(state.set, 0, GETPID) == getpid() && semctl(state.set, 0, GETVAL) == 0)
        return true;
    for (int taken = state.value; taken > 0 && ReleaseIfTaken(state.set) == 0; --taken) {
    }
    return false;
}

// The time of the last use does not count here: the system also sets it at the end of each process
// that has waited in vain.
bool IsSame(const TMutexState& one, const TMutexState& other) {
    return one.set == other.set && one.value == other.value && one.lastProcess == other.lastProcess;
}

}  // namespace

CMutexHealer::EUse CMutexHealer::Observe() {
    const std::optional<TMutexState> now = InspectStoreMutex();
    if (!now || now->value == 1) {
        last = now;
        return cFree;
    }
    if (!last || !IsSame(*now, *last))
        since = TClock::now();
    last = now;
    return TClock::now() - since >= wait ? cUnchanged : cInUse;
}

CMutexHealer::TResult CMutexHealer::Heal(const CWriterLock& writerLock) {
    TResult result{.isHealed = false, .value = last->value, .holder = {}};
    // Nobody can hold a mutex that was never used, whoever may not be inspected.
    if (InitialiseAbandonedSet(last->set, writerLock.OwnerForSets())) {
        result.isHealed = true;
        return result;
    }
    result.holder = FindPossibleHolder(*last);
    if (result.holder) {
        result.isUsual = result.holder->reason == TPossibleHolder::cMayHold &&
                         result.holder->process == last->lastProcess;
        return result;
    }
    if (InspectStoreMutex() != last || (last->value > 1 && !TakeAll(*last)))
        return result;
    SetFree(last->set);
    result.isHealed = true;
    return result;
}

std::string DescribeHealed(const CMutexHealer::TResult& result) {
    if (result.value == 0)
        return "the store mutex was held by nobody and could not be taken: it is set free. A "
               "process that loads the add-in by itself leaves it so, or one that was killed when "
               "it had just made the mutex";
    return fmt::format(
        "the store mutex let {} processes in at once: it is set to let in one. A process "
        "that loads the add-in by itself leaves it so",
        result.value);
}

}  // namespace vxsched
