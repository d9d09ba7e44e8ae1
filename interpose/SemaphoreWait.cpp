// A semop of the program's own, exported, so that the add-in's waits for the store mutex come here. The
// system ends such a wait early not only for a signal handler, of which these programs have none, but
// also when the process is stopped and continued, frozen while the machine sleeps, or looked at by
// a debugger. The add-in would go on without the mutex and give it back all the same, which lets two
// in at once from then on. So the wait is taken up again.

#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>

#include "interpose/NextDefinition.h"

INTERPOSED int semop(int set, sembuf* operations, size_t count) noexcept {
    int result = 0;
    do {
        result = semtimedop(set, operations, count, nullptr);
    } while (result == -1 && errno == EINTR);
    return result;
}
