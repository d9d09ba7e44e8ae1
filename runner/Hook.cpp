#include "runner/Hook.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/CDescriptor.h"
#include "base/SignalName.h"
#include "base/WriteAll.h"
#include "runner/Execute.h"

using TClock = std::chrono::steady_clock;

// Has this process read it. False with errno.
static bool SetInput(const std::string& input) {
    const CDescriptor file(memfd_create("input", MFD_CLOEXEC));
    return file.IsOpen() && WriteAllAt(file.Get(), input, 0) &&
           dup2(file.Get(), STDIN_FILENO) != -1;
}

// False if it has to be killed.
static bool WaitForHook(pid_t process, TClock::time_point end, int& status) {
    sigset_t awaited;
    sigemptyset(&awaited);
    sigaddset(&awaited, SIGTERM);
    sigaddset(&awaited, SIGCHLD);
    sigprocmask(SIG_BLOCK, &awaited, nullptr);
    while (waitpid(process, &status, WNOHANG) == 0) {
        const auto left = std::max(end - TClock::now(), TClock::duration::zero());
        const auto seconds = std::chrono::floor<std::chrono::seconds>(left);
        const timespec limit{.tv_sec = seconds.count(),
                             .tv_nsec = std::chrono::nanoseconds(left - seconds).count()};
        const int signal = sigtimedwait(&awaited, nullptr, &limit);
        if (signal == SIGTERM || (signal == -1 && errno == EAGAIN))
            return false;
    }
    return true;
}

std::string RunHook(const std::string& command, const TExecution& execution,
                    const std::string& input, std::chrono::milliseconds limit) {
    const CDescriptor nowhere(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (!nowhere.IsOpen() || !SetInput(input))
        return fmt::format("cannot start it: {}", std::strerror(errno));
    const std::vector<std::string> words = {"/bin/sh", "-c", command};
    pid_t process = 0;
    const TExecuted executed =
        Execute(execution, words[0].c_str(), PointersTo(words).data(), nowhere.Get(), &process);
    if (executed.error != 0)
        return Describe(executed, execution, words[0]);
    int status = 0;
    if (!WaitForHook(process, TClock::now() + limit, status)) {
        kill(-process, SIGKILL);
        waitpid(process, nullptr, 0);
        return "it did not end in time, and was killed";
    }
    if (WIFSIGNALED(status))
        return fmt::format("it was killed by {}", SignalName(WTERMSIG(status)));
    return WEXITSTATUS(status) == 0 ? "" : fmt::format("it exited with {}", WEXITSTATUS(status));
}
