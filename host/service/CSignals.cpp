#include "host/service/CSignals.h"

#include <sys/signalfd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

CSignals::CSignals() {
    // The parent may have had signals ignored, which survives exec; an ignored SIGCHLD would lose
    // the exit statuses of launched programs.
    for (int number = 1; number < NSIG; ++number)
        std::signal(number, SIG_DFL);
    sigset_t wanted;
    sigemptyset(&wanted);
    for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD})
        sigaddset(&wanted, number);
    sigset_t blocked = wanted;
    for (const int number : {SIGPIPE, SIGXFSZ})
        sigaddset(&blocked, number);
    // Replaces the inherited mask, in which the parent may have blocked other signals.
    sigprocmask(SIG_SETMASK, &blocked, nullptr);
    descriptor = CDescriptor(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!descriptor.IsOpen())
        throw std::system_error(errno, std::generic_category(),
                                "cannot create a signal descriptor");
}

std::optional<int> CSignals::Next() {
    signalfd_siginfo signal{};
    if (read(descriptor.Get(), &signal, sizeof signal) != sizeof signal)
        return std::nullopt;
    return static_cast<int>(signal.ssi_signo);
}
