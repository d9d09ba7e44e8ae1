#include "cli/commands/CTerminalPipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <string_view>

#include <vxsched/Error.h>
#include "base/WriteAll.h"

namespace vxsched {

namespace {

constexpr std::array<int, 2> cOutputs = {STDOUT_FILENO, STDERR_FILENO};

struct TPipe {
    CDescriptor input;
    CDescriptor output;
};

TPipe MakePipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1)
        throw SystemError("cannot make a pipe for the program's output", errno);
    return {CDescriptor(ends[0]), CDescriptor(ends[1])};
}

}  // namespace

CTerminalPipe::CTerminalPipe() {
    TPipe data = MakePipe();
    TPipe stop = MakePipe();
    input = std::move(data.input);
    end = std::move(stop.input);
    endSignal = std::move(stop.output);
    fcntl(input.Get(), F_SETFL, O_NONBLOCK);
    for (std::size_t index = 0; index < terminals.size(); ++index) {
        const int output = cOutputs.at(index);
        if (isatty(output) == 0)
            continue;
        terminals.at(index) = CDescriptor(fcntl(output, F_DUPFD_CLOEXEC, 3));
        dup2(data.output.Get(), output);
    }
    copier = std::thread([this] { Copy(); });
}

CTerminalPipe::~CTerminalPipe() {
    TakeTerminals();
    endSignal = CDescriptor();
    copier.join();
}

void CTerminalPipe::TakeTerminals() {
    for (std::size_t index = 0; index < terminals.size(); ++index) {
        if (terminals.at(index).IsOpen())
            dup2(terminals.at(index).Get(), cOutputs.at(index));
    }
}

// On a thread of its own.
void CTerminalPipe::Copy() const {
    const int terminal = terminals[0].IsOpen() ? terminals[0].Get() : terminals[1].Get();
    std::array<char, 1 << 16> block{};
    std::optional<std::size_t> left;  // in the pipe, once the copying is to end
    while (left != 0) {
        std::array<pollfd, 2> ready{pollfd{.fd = input.Get(), .events = POLLIN, .revents = 0},
                                    pollfd{.fd = end.Get(), .events = POLLIN, .revents = 0}};
        if (!left && poll(ready.data(), ready.size(), -1) > 0 && ready[1].revents != 0) {
            // A program that keeps writing would never let the pipe become empty.
            int available = 0;
            ioctl(input.Get(), FIONREAD, &available);
            left = static_cast<std::size_t>(available);
            continue;
        }
        const ssize_t count =
            read(input.Get(), block.data(), std::min(block.size(), left.value_or(block.size())));
        if (count == 0 || (count == -1 && (left || errno != EAGAIN)))
            return;
        if (count == -1)
            continue;
        WriteAll(terminal, std::string_view(block.data(), static_cast<std::size_t>(count)));
        if (left)
            *left -= static_cast<std::size_t>(count);
    }
}

}  // namespace vxsched
