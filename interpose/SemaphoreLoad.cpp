#include "interpose/SemaphoreLoad.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>

#include "base/SemaphoreRelease.h"
#include "interpose/NextDefinition.h"

// The caller of semctl() has to declare this type.
union semun {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

static constexpr int cNoSet = -1;

static std::atomic<int> gHeld{cNoSet};

void ReleaseAtLoad(int set) {
    gHeld = set;
}

// Called by the add-in for the store mutex and for its events, and by the program. Result and errno
// are those of libc's function.
INTERPOSED int semctl(int set, int number, int command, ...) noexcept {
    static auto* const next = NextDefinition<int(int, int, int, ...)>("semctl");
    std::va_list arguments;
    va_start(arguments, command);
    const semun argument = va_arg(arguments, semun);
    va_end(arguments);
    int held = set;
    if (command != SETVAL || argument.val != 1 || !gHeld.compare_exchange_strong(held, cNoSet))
        return next(set, number, command, argument);
    if (ReleaseIfTaken(set) == -1)
        return errno == ERANGE ? 0 : -1;
    // The mutex let several in, and this process was one of them.
    return next(set, 0, GETVAL) > 1 ? next(set, number, command, argument) : 0;
}
