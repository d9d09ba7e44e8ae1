#include "StoreSemaphore.h"

#include <CEvent.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>

bool StoreSemaphoreExists() {
    return semget(cStoreKey, 1, 0) != -1;
}

int StoreSemaphoreValue() {
    const int id = semget(cStoreKey, 1, 0);
    return id == -1 ? -1 : semctl(id, 0, GETVAL);
}

bool WorkerIsIdle() {
    const int id = semget(cStopKey, 0, 0);
    return id != -1 && semctl(id, 0, GETNCNT) > 0;
}

union TArgument {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
    struct seminfo* info;
};

int MakeStoreMutex() {
    const int id = semget(cStoreKey, 1, IPC_CREAT | 0660);
    TArgument free{.val = 1};
    EXPECT_EQ(semctl(id, 0, SETVAL, free), 0);
    return id;
}

int CountSemaphoreSets() {
    struct seminfo info {};
    TArgument argument{};
    argument.info = &info;
    return semctl(0, 0, SEM_INFO, argument) == -1 ? -1 : info.semusz;
}

int TheOnlySet() {
    struct semid_ds status {};
    TArgument argument{};
    argument.buf = &status;
    for (int index = 0; index < 1000; ++index) {
        const int id = semctl(index, 0, SEM_STAT, argument);
        if (id != -1)
            return id;
    }
    return -1;
}

key_t KeyOfTheOnlySet() {
    struct semid_ds status {};
    TArgument argument{};
    argument.buf = &status;
    semctl(TheOnlySet(), 0, IPC_STAT, argument);
    return status.sem_perm.__key;
}

void TakeTheKeyOfEvent(const char* name) {
    key_t key = 0;
    {
        const CEvent event(name, false);
        key = KeyOfTheOnlySet();
    }
    semget(key, 1, IPC_CREAT | 0600);
}
