#include "runner/CNextRunner.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>

#include "runner/EndBySignal.h"

pid_t CNextRunner::Fork() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == -1)
        return -1;
    CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    copy = fork();
    link = copy == 0 ? std::move(theirs) : std::move(ours);
    return copy;
}

// For the other process's word, or its end.
void CNextRunner::Wait() {
    char word = 0;
    while (read(link.Get(), &word, 1) == -1 && errno == EINTR) {
    }
}

void CNextRunner::Begin() {
    static_cast<void>(send(link.Get(), "", 1, MSG_NOSIGNAL));
    Wait();
    link = CDescriptor();
}

void CNextRunner::WaitForBegin() {
    Wait();
}

void CNextRunner::Release() {
    link = CDescriptor();
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    const timespec atOnce{};
    if (sigtimedwait(&ending, nullptr, &atOnce) == SIGTERM)
        kill(copy, SIGTERM);
}

void CNextRunner::EndAsIt() {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGCHLD);
    sigprocmask(SIG_BLOCK, &awaited, nullptr);
    int status = 0;
    while (waitpid(copy, &status, WNOHANG) == 0) {
        int signal = 0;
        if (sigwait(&awaited, &signal) == 0 && signal == SIGTERM)
            kill(copy, SIGTERM);
    }
    if (WIFSIGNALED(status))
        EndBySignal(WTERMSIG(status));
    _exit(WEXITSTATUS(status));
}
