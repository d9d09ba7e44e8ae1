#include "client/CChangeProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include <vxsched/Error.h>
#include "base/CDeadline.h"
#include "base/SignalName.h"
#include "base/Spawn.h"
#include "base/WriteAll.h"
#include "client/Fields.h"
#include "client/LibraryDirectory.h"
#include "store/Layout.h"
#include "store/MakeError.h"

namespace vxsched {

CChangeProcess::CChangeProcess(const TRequest& request, int output) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == -1)
        throw SystemError("cannot make a socket pair for the change process", errno);
    socket = CDescriptor(ends[0]);
    CDescriptor processEnd(ends[1]);
    std::string program = LibraryDirectory() + '/' + cChangeProgramFile;
    std::array<char*, 2> arguments = {program.data(), nullptr};
    // Above those that the process gets, so that none of these overwrites it.
    const CDescriptor passed(
        request.hasOutput ? fcntl(output, F_DUPFD_CLOEXEC, cOutputDescriptor + 1) : -1);
    if (request.hasOutput && !passed.IsOpen())
        throw SystemError("cannot pass the output to the change process", errno);
    CSpawnActions actions;
    actions.Duplicate(processEnd.Get(), STDIN_FILENO);
    // Nothing of the caller's terminal or pipes is for the change process, or for what it launches.
    actions.Open(STDOUT_FILENO, "/dev/null", O_WRONLY);
    actions.Open(STDERR_FILENO, "/dev/null", O_WRONLY);
    // The superuser's descriptors are not for the owner of a store, whose process this may be.
    if (request.hasOutput)
        actions.Duplicate(passed.Get(), cOutputDescriptor);
    actions.CloseFrom(request.hasOutput ? cOutputDescriptor + 1 : cOutputDescriptor);
    // A session of its own, so that Ctrl-C at the caller's terminal does not end it half-way.
    CSpawnAttributes attributes;
    attributes.LeadSession();
    const int error = posix_spawn(&process, program.c_str(), actions.Get(), attributes.Get(),
                                  arguments.data(), environ);
    processEnd = CDescriptor();
    if (error != 0)
        throw SystemError("cannot start " + program, error);
    std::string bytes;
    PutField(bytes, Encode(request));
    // If the process has ended, Next() reports that.
    SendAll(socket.Get(), bytes);
}

CChangeProcess::~CChangeProcess() {
    socket = CDescriptor();
    if (process != -1) {
        Kill();
        WaitForEnd();
    }
}

void CChangeProcess::Go() const {
    SendAll(socket.Get(), "g");
}

void CChangeProcess::Kill() const {
    kill(process, SIGKILL);
}

std::optional<TMessage> CChangeProcess::Next(std::chrono::milliseconds limit) {
    const CDeadline deadline(limit);
    for (;;) {
        std::string_view left = received;
        const std::optional<std::string_view> kind = TakeField(left);
        if (const auto content = kind ? TakeField(left) : std::nullopt) {
            TMessage message{std::string(*kind), std::string(*content)};
            received.erase(0, received.size() - left.size());
            return message;
        }
        pollfd input{.fd = socket.Get(), .events = POLLIN, .revents = 0};
        const timespec timeLeft = deadline.TimeLeft();
        const int ready = ppoll(&input, 1, &timeLeft, nullptr);
        if (ready == 0)
            throw MakeError(EError::cBusy, "the change process sent no message for {} ms",
                            limit.count());
        std::array<char, 1 << 16> block{};
        const ssize_t count = ready == -1 ? -1 : read(socket.Get(), block.data(), block.size());
        if (count > 0)
            received.append(block.data(), static_cast<std::size_t>(count));
        else if (count == 0 || errno != EINTR)
            return {};
    }
}

std::string CChangeProcess::WaitForEnd() {
    int status = 0;
    while (waitpid(process, &status, 0) == -1 && errno == EINTR) {
    }
    process = -1;
    if (WIFSIGNALED(status))
        return "was killed by " + SignalName(WTERMSIG(status));
    return fmt::format("exited with status {}", WEXITSTATUS(status));
}

}  // namespace vxsched
