// An interposed semop() that resumes a wait after EINTR.

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "interpose/NextDefinition.h"

// Called by the add-in for the store mutex, on any thread that makes a tick or an exported call,
// and by the program. Unlike libc's it does not fail with EINTR but waits again. The kernel
// interrupts a wait not only for a signal handler, of which these programs have none, but also when
// the process is stopped and continued, frozen for a suspend of the machine, or attached to by a
// debugger. The add-in would go on without the mutex and release it all the same, which lets two
// processes in at once from then on. Result and errno are otherwise those of semop().
INTERPOSED int semop(int set, sembuf* operations, size_t count) noexcept {
    int result = 0;
    do {
        result = semtimedop(set, operations, count, nullptr);
    } while (result == -1 && errno == EINTR);
    return result;
}
