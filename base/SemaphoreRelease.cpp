#include "base/SemaphoreRelease.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <iterator>

// The system does not show what it would undo for a process, but it keeps that number within the
// range of a short, -32768 to 32767, and fails with ERANGE beyond. So 32769 is subtracted from it
// first, which only a number of at least 1 survives: one that stands for a semaphore taken. Then
// 32768 is added again. The value is brought back after each step by an operation without SEM_UNDO,
// but for the 1 that is the release.
int ReleaseIfTaken(int set) {
    constexpr short cHalf = 16384;
    constexpr auto cStep = [](short change, short flags) {
        return sembuf{.sem_num = 0, .sem_op = change, .sem_flg = flags};
    };
    // The step of 1 fails with ERANGE unless the number was at least 1.
    sembuf operations[] = {cStep(cHalf, SEM_UNDO),  cStep(-cHalf, 0),   cStep(cHalf, SEM_UNDO),
                           cStep(-cHalf, 0),        cStep(1, SEM_UNDO), cStep(cHalf, 0),
                           cStep(-cHalf, SEM_UNDO), cStep(cHalf, 0),    cStep(-cHalf, SEM_UNDO)};
    return semop(set, operations, std::size(operations));
}
