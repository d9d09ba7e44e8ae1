#include "runner/Pause.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <random>

using std::chrono::milliseconds;

static constexpr milliseconds cLongestPause = std::chrono::hours(1);
static constexpr double cJitter = 0.25;

milliseconds PauseAfter(int attempt, std::chrono::seconds backoff, double random) {
    milliseconds plain = backoff;
    for (int doubled = 1; doubled < attempt && plain < cLongestPause; ++doubled)
        plain *= 2;
    const auto varied = std::min(plain, cLongestPause) * (1 - cJitter + 2 * cJitter * random);
    return std::min(std::chrono::round<milliseconds>(varied), cLongestPause);
}

double MakeRandom() {
    std::random_device device;
    return std::uniform_real_distribution<double>(0, 1)(device);
}

std::optional<uid_t> Pause(milliseconds time) {
    using TClock = std::chrono::steady_clock;
    const TClock::time_point end = TClock::now() + time;
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    for (;;) {
        const auto left = std::max(end - TClock::now(), TClock::duration::zero());
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        const timespec limit{.tv_sec = seconds.count(),
                             .tv_nsec = std::chrono::nanoseconds(left - seconds).count()};
        siginfo_t signal{};
        if (sigtimedwait(&ending, &signal, &limit) == SIGTERM)
            return signal.si_uid;
        if (errno != EINTR)
            return {};
    }
}
