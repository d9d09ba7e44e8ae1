#include "sync/CMutex.h"

#include <VXC_CRC32.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <exception>

// The thread sanitizer does not know that a semaphore orders the threads that pass it.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define VANTRIX_THREAD_SANITIZER
#endif
#elif defined(__SANITIZE_THREAD__)
#define VANTRIX_THREAD_SANITIZER
#endif
#ifdef VANTRIX_THREAD_SANITIZER
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#else
static void __tsan_acquire(void* /*address*/) {}
static void __tsan_release(void* /*address*/) {}
#endif

// The caller of semctl has to declare this type.
union semun {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

static constexpr int cAccess = 0660;

static sembuf Operation(short change) {
    return {.sem_num = 0, .sem_op = change, .sem_flg = SEM_UNDO};
}

static int OpenSemaphore(key_t key, bool& owner) {
    int id = semget(key, 1, IPC_CREAT | IPC_EXCL | cAccess);
    if (id == -1) {
        if (errno != EEXIST)
            throw std::exception();
        id = semget(key, 1, cAccess);
        owner = false;
        if (id == -1)
            throw std::exception();
    }
    return id;
}

// In both cases: a set that existed is set free even while a process holds it, so that a
// newly loaded process never waits for a holder that is stuck.
static void SetFree(int id) {
    semun free{};
    free.val = 1;
    if (semctl(id, 0, SETVAL, free) == -1)
        throw std::exception();
}

// The exception is meant to meet the noexcept.
// NOLINTNEXTLINE(bugprone-exception-escape)
CMutex::CMutex(const char* name) noexcept {
    const auto key = static_cast<key_t>(VXC_GenerateCRC32(name));
    semId = OpenSemaphore(key, owner);
    SetFree(semId);
}

CMutex::~CMutex() {
    if (isLocked())
        CMutex::Unlock();
    semctl(semId, 0, IPC_RMID);
}

int CMutex::Lock(unsigned long timeout) {
    sembuf take = Operation(-1);
    errno = 0;
    if (timeout == ULONG_MAX) {
        if (semop(semId, &take, 1) == -1)
            return LOCK_FAILED;
    } else {
        // The seconds come from the low 32 bits alone, the nanoseconds from the whole timeout, modulo
        // 2^64: of what does not fit, most becomes a time that the system rejects, and the rest a
        // shorter wait.
        const long seconds = static_cast<std::int32_t>(static_cast<std::uint32_t>(timeout)) / 1000;
        const unsigned long rest = timeout - static_cast<unsigned long>(seconds) * 1000;
        const timespec time{.tv_sec = seconds, .tv_nsec = static_cast<long>(rest * 1'000'000)};
        if (semtimedop(semId, &take, 1, &time) == -1)
            return errno == EAGAIN ? LOCK_TIMEOUT : LOCK_FAILED;
    }
    __tsan_acquire(this);
    locked.store(true, std::memory_order_relaxed);
    return LOCK_ACQUIRED;
}

// Through the virtual table, so that a derived lock needs to replace one operation only.
bool CMutex::Lock() {
    return Lock(ULONG_MAX) != LOCK_FAILED;
}

int CMutex::Unlock() {
    sembuf give = Operation(1);
    __tsan_release(this);
    const int result = semop(semId, &give, 1);
    if (result == -1)
        locked.store(false, std::memory_order_relaxed);
    return result;
}
