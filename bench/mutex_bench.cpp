// Locking and unlocking the store mutex without contention, compared with a robust mutex in shared
// memory and a locked file. The system releases all three when their holder is killed.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <sync/CMutex.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <unistd.h>

static void StoreMutex(benchmark::State& state) {
    CMutex mutex("bench");
    bool locked = true;
    for (auto _ : state) {
        locked &= mutex.Lock();
        mutex.Unlock();
    }
    if (!locked || mutex.Lock(0) != LOCK_ACQUIRED)
        state.SkipWithError("the mutex was not locked");
}

static void RobustMutex(benchmark::State& state) {
    auto* const mutex =
        static_cast<pthread_mutex_t*>(mmap(nullptr, sizeof(pthread_mutex_t), PROT_READ | PROT_WRITE,
                                           MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    int failures = 0;
    for (auto _ : state) {
        failures += pthread_mutex_lock(mutex);
        failures += pthread_mutex_unlock(mutex);
    }
    if (failures != 0)
        state.SkipWithError("the mutex was not locked");
    pthread_mutex_destroy(mutex);
    munmap(mutex, sizeof *mutex);
}

static void LockedFile(benchmark::State& state) {
    const int file = open("lock", O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int failures = 0;
    for (auto _ : state) {
        failures += flock(file, LOCK_EX);
        failures += flock(file, LOCK_UN);
    }
    if (failures != 0)
        state.SkipWithError("the file was not locked");
    close(file);
}

BENCHMARK(StoreMutex)->Name("mutex/lock and unlock/library");
BENCHMARK(RobustMutex)->Name("mutex/lock and unlock/robust pthread");
BENCHMARK(LockedFile)->Name("mutex/lock and unlock/flock");
