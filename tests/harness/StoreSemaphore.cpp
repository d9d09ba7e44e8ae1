#include "StoreSemaphore.h"

#include <sys/ipc.h>
#include <sys/sem.h>

bool StoreSemaphoreExists() {
    return semget(cStoreKey, 1, 0) != -1;
}

int StoreSemaphoreValue() {
    const int id = semget(cStoreKey, 1, 0);
    return id == -1 ? -1 : semctl(id, 0, GETVAL);
}

int CountSemaphoreSets() {
    struct seminfo info {};
    union {
        int val;
        struct semid_ds* buf;
        unsigned short* array;
        struct seminfo* info;
    } argument{};
    argument.info = &info;
    return semctl(0, 0, SEM_INFO, argument) == -1 ? -1 : info.semusz;
}
