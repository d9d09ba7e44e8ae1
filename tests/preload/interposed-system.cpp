// Put in front of a real program's system functions by LD_PRELOAD: a clock that stands, a sleep that
// does not, and no inotify, as the environment says.

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

extern "C" time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (const char* const played = std::getenv("PLAYED_TIME"))
        now.tv_sec = std::atol(played);
    if (out != nullptr)
        *out = now.tv_sec;
    return now.tv_sec;
}

extern "C" unsigned int sleep(unsigned int seconds) {
    if (std::getenv("PLAYED_SLEEP") != nullptr)
        return 0;
    static auto* const system =
        reinterpret_cast<unsigned int (*)(unsigned int)>(dlsym(RTLD_NEXT, "sleep"));
    return system(seconds);
}

extern "C" int inotify_init1(int flags) noexcept {
    if (std::getenv("PLAYED_NO_INOTIFY") != nullptr) {
        errno = EMFILE;
        return -1;
    }
    static auto* const system = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "inotify_init1"));
    return system(flags);
}
