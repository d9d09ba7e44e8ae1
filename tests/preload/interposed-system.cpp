// Replaces parts of the system for a real program (LD_PRELOAD), as environment variables select:
// FAKE_TIME freezes the system clock at that second, or at the one that the file of that path has,
// STOP_IN_SLEEP makes sleep stop the process
// (SIGSTOP) first, NO_INOTIFY makes inotify unavailable, REFUSE_LAUNCHES makes launches fail while a
// file of that name exists; the file gets a byte for each. ENDLESS_MINUTES makes waits of 30 s and
// more for a semaphore endless, as the worker's between two ticks. SHORT_REPLY_WAITS makes waits of
// 10 to 20 s for a descriptor end at once, as those for an answer of the host. FILE_SYSTEM is the number
// of the file system that every path is on.
//
// The symbols below are called by the program and the add-in, on whichever thread. Without its
// variable each does what libc does.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

static long FakeTime(const char* fake) {
    if (*fake != '/')
        return std::atol(fake);
    char text[32] = {};
    const int file = open(fake, O_RDONLY | O_CLOEXEC);
    if (file == -1 || read(file, text, sizeof text - 1) <= 0)
        std::abort();
    close(file);
    return std::atol(text);
}

// Fails as libc's does.
extern "C" int clock_gettime(clockid_t clock, timespec* out) noexcept {
    const char* const fake = std::getenv("FAKE_TIME");
    const bool isSystemClock = clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE;
    if (fake == nullptr || !isSystemClock)
        return static_cast<int>(syscall(SYS_clock_gettime, clock, out));
    *out = {.tv_sec = FakeTime(fake), .tv_nsec = 0};
    return 0;
}

// Never fails and leaves errno alone.
extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

// Returns 0, as after a complete sleep.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (std::getenv("STOP_IN_SLEEP") != nullptr)
        kill(getpid(), SIGSTOP);
    static auto* const system =
        reinterpret_cast<unsigned int (*)(unsigned int)>(dlsym(RTLD_NEXT, "sleep"));
    return system(seconds);
}

// Fails with EMFILE, as when the user's limit of inotify instances is reached.
extern "C" int inotify_init1(int flags) noexcept {
    if (std::getenv("NO_INOTIFY") != nullptr) {
        errno = EMFILE;
        return -1;
    }
    static auto* const system = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "inotify_init1"));
    return system(flags);
}

// Returns EAGAIN, as when the user's limit of processes is reached.
extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    const char* const file = std::getenv("REFUSE_LAUNCHES");
    const int refusals = file == nullptr ? -1 : open(file, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (refusals != -1) {
        if (write(refusals, ".", 1) != 1)
            std::abort();
        close(refusals);
        return EAGAIN;
    }
    static auto* const system =
        reinterpret_cast<decltype(&posix_spawn)>(dlsym(RTLD_NEXT, "posix_spawn"));
    return system(process, path, actions, attributes, arguments, environment);
}

// Fails as libc's does.
extern "C" int semtimedop(int set, sembuf* operations, size_t count,
                          const timespec* timeout) noexcept {
    static auto* const system =
        reinterpret_cast<decltype(&semtimedop)>(dlsym(RTLD_NEXT, "semtimedop"));
    const bool isLong = timeout != nullptr && timeout->tv_sec >= 30;
    const bool isEndless = isLong && std::getenv("ENDLESS_MINUTES") != nullptr;
    return system(set, operations, count, isEndless ? nullptr : timeout);
}

// Fails as libc's does.
extern "C" int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout,
                     const sigset_t* signals) {
    static auto* const system = reinterpret_cast<decltype(&ppoll)>(dlsym(RTLD_NEXT, "ppoll"));
    const bool isLong = timeout != nullptr && timeout->tv_sec >= 10 && timeout->tv_sec < 20;
    const bool isShort = isLong && std::getenv("SHORT_REPLY_WAITS") != nullptr;
    const timespec none{};
    return system(descriptors, count, isShort ? &none : timeout, signals);
}

// Fails as libc's does.
extern "C" int statfs(const char* path, struct statfs* status) noexcept {
    static auto* const system =
        reinterpret_cast<int (*)(const char*, struct statfs*)>(dlsym(RTLD_NEXT, "statfs"));
    const int result = system(path, status);
    if (const char* const number = std::getenv("FILE_SYSTEM"); number != nullptr && result == 0)
        status->f_type = std::strtol(number, nullptr, 16);
    return result;
}
