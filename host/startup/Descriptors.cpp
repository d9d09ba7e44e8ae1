#include "host/startup/Descriptors.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstring>

#include "host/CHostError.h"

// A running host has some seventeen open, opens at most four more at a time, and has up to eight
// clients that pass one each (CControlSocket); the libraries that it loads, and the add-in, have a
// share of the others.
static constexpr rlim_t cNeeded = 56;

static rlimit Limits() {
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    return limits;
}

// The soft limit with which enough descriptors are free: those below it that are not inherited.
static rlim_t SufficientLimit(rlim_t soft) {
    rlim_t free = 0;
    for (rlim_t descriptor = 0; descriptor < soft && free < cNeeded; ++descriptor)
        free += fcntl(static_cast<int>(descriptor), F_GETFD) == -1 ? 1 : 0;
    return soft + cNeeded - free;
}

std::string WhyTooFewDescriptors() {
    const rlimit limits = Limits();
    const rlim_t sufficient = SufficientLimit(limits.rlim_cur);
    if (sufficient <= limits.rlim_max)
        return "";
    return fmt::format(
        "the hard limit on open files is {}, and this process needs {}. Raise it (ulimit -Hn, "
        "LimitNOFILE= of the unit).",
        limits.rlim_max, sufficient);
}

void ReserveDescriptors() {
    if (const std::string reason = WhyTooFewDescriptors(); !reason.empty())
        throw CHostError(cFailed, reason);
    rlimit limits = Limits();
    const rlim_t sufficient = SufficientLimit(limits.rlim_cur);
    if (sufficient == limits.rlim_cur)
        return;
    limits.rlim_cur = sufficient;
    if (setrlimit(RLIMIT_NOFILE, &limits) == -1)
        throw CHostError(cFailed,
                         fmt::format("cannot raise the soft limit on open files to {}: {}. Raise "
                                     "it before the start (ulimit -Sn).",
                                     sufficient, std::strerror(errno)));
}
