#include "bench/StoreCalls.h"

#include <fcntl.h>
#include <scheduler/TaskFields.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

static int MakeSemaphore(int value) {
    const int id = semget(IPC_PRIVATE, 1, 0600);
    CheckCall(id != -1, "semget");
    semun argument{};
    argument.val = value;
    CheckCall(semctl(id, 0, SETVAL, argument) != -1, "semctl");
    return id;
}

static void Change(short by) {
    static const int id = MakeSemaphore(1);
    sembuf operation{.sem_num = 0, .sem_op = by, .sem_flg = SEM_UNDO};
    CheckCall(semop(id, &operation, 1) == 0, "semop");
}

CSemaphorePair::CSemaphorePair() {
    Change(-1);
}

CSemaphorePair::~CSemaphorePair() {
    Change(1);
}

bool TestSemaphore() {
    static const int id = MakeSemaphore(0);
    sembuf take[] = {{.sem_num = 0, .sem_op = -1, .sem_flg = IPC_NOWAIT},
                     {.sem_num = 0, .sem_op = 1, .sem_flg = 0}};
    return semop(id, take, 2) == 0;
}

void SignalSemaphore() {
    static const int id = MakeSemaphore(0);
    semun argument{};
    argument.val = 1;
    CheckCall(semctl(id, 0, SETVAL, argument) != -1, "semctl");
}

std::size_t StatTaskFile() {
    struct stat status {};
    CheckCall(stat(cTaskFile, &status) == 0, "stat");
    return static_cast<std::size_t>(status.st_size);
}

int OpenForReading() {
    const int descriptor = open(cTaskFile, O_RDWR | O_CLOEXEC);
    CheckCall(descriptor != -1, "open");
    return descriptor;
}

int OpenForWriting() {
    const int descriptor = open(cTaskFile, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    CheckCall(descriptor != -1, "open");
    return descriptor;
}

void CheckCall(bool succeeded, const char* call) {
    if (!succeeded)
        throw std::system_error(errno, std::generic_category(), call);
}
