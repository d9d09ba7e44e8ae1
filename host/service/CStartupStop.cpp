#include "host/service/CStartupStop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "host/ExitStatus.h"
#include "host/HostThread.h"

CStartupStop::CStartupStop() : end(eventfd(0, EFD_CLOEXEC)) {
    sigset_t wanted;
    sigemptyset(&wanted);
    sigaddset(&wanted, SIGTERM);
    sigaddset(&wanted, SIGINT);
    signals = CDescriptor(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
    try {
        thread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        // The main loop will read the signals.
    }
}

CStartupStop::~CStartupStop() {
    eventfd_write(end.Get(), 1);
    if (thread.joinable())
        thread.join();
}

void CStartupStop::Run() const {
    gIsHostThread = true;
    std::array<pollfd, 2> inputs = {{{.fd = signals.Get(), .events = POLLIN, .revents = 0},
                                     {.fd = end.Get(), .events = POLLIN, .revents = 0}}};
    while (poll(inputs.data(), inputs.size(), -1) == -1 && errno == EINTR) {
    }
    if (inputs[0].revents != 0 && inputs[1].revents == 0)
        _exit(cStopped);
}
