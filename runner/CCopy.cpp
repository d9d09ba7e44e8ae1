#include "runner/CCopy.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

static constexpr int cStall = 1000;  // milliseconds
// Of a line's room, so that a long name leaves some for the line.
static constexpr std::size_t cLongestPrefix = 256;
static constexpr std::size_t cLongestCharacter = 4;  // bytes, of UTF-8

// A description of its own, since others write to standard output as well and expect to block. None
// for a socket, and for a file, whose position would not be shared.
static CDescriptor OpenTarget() {
    struct stat status {};
    if (fstat(STDOUT_FILENO, &status) == -1 || S_ISREG(status.st_mode))
        return CDescriptor();
    return CDescriptor(open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

static ssize_t WriteNow(const CDescriptor& target, std::string_view bytes) {
    if (target.IsOpen())
        return write(target.Get(), bytes.data(), bytes.size());
    const ssize_t count =
        send(STDOUT_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return count == -1 && errno == ENOTSOCK ? write(STDOUT_FILENO, bytes.data(), bytes.size())
                                            : count;
}

CCopy::CCopy(const std::string& linePrefix)
    : target(OpenTarget()), prefix(linePrefix.substr(0, cLongestPrefix)), isByLine(true) {}

CCopy::CCopy() : target(OpenTarget()), isByLine(false) {}

void CCopy::Write(std::string_view bytes) {
    if (!isByLine)
        return Send(bytes);
    AppendLines(shown.Add(bytes));
}

void CCopy::Finish() {
    AppendLines(shown.End());
    EndLine();
}

void CCopy::AppendLines(std::string_view text) {
    for (const char byte : text) {
        // No character is cut in two.
        const bool isCharacter = (static_cast<unsigned char>(byte) & 0xc0U) != 0x80U;
        if (isCharacter && line.size() >= PIPE_BUF - cLongestCharacter)
            EndLine();
        if (line.empty())
            line = prefix;
        line += byte;
        if (byte == '\n')
            EndLine();
    }
}

void CCopy::EndLine() {
    if (line.empty())
        return;
    if (line.back() != '\n')
        line += '\n';
    Send(line);
    line.clear();
}

// In parts that a pipe with room takes whole. What the reader does not take is left out.
void CCopy::Send(std::string_view bytes) {
    while (!bytes.empty()) {
        pollfd output{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        isStalled = poll(&output, 1, isStalled ? 0 : cStall) <= 0;
        if (isStalled)
            return;
        const ssize_t count = WriteNow(target, bytes.substr(0, PIPE_BUF));
        isStalled = count == -1 && errno == EAGAIN;
        if (count <= 0)
            return;
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
}
