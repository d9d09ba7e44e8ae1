// Replaces parts of the system for a real program (LD_PRELOAD), as environment variables select:
// FAKE_TIME freezes the clock at that second, SKIP_SLEEP makes sleep return at once, NO_INOTIFY
// makes inotify unavailable.
//
// The symbols below are called by the program and the add-in, on whichever thread. Without its
// variable each does what libc does.

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

// Never fails and leaves errno alone.
extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (const char* const fake = std::getenv("FAKE_TIME"))
        now.tv_sec = std::atol(fake);
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

// Returns 0, as after a complete sleep.
extern "C" unsigned int sleep(unsigned int seconds) {
    if (std::getenv("SKIP_SLEEP") != nullptr)
        return 0;
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
