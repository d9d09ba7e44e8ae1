#include "base/RegularFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>

#include "base/CDeadline.h"

// What is read at least of a file that has more than its size says, as those of /proc.
static constexpr std::size_t cBlock = 1 << 12;

static CDescriptor Failed(int error) {
    errno = error;
    return CDescriptor();
}

// Waits while another process holds a lease of the file, which is for milliseconds; the kernel ends
// one that lasts longer than 45 s.
static CDescriptor OpenAny(const char* path, int flags, mode_t mode) {
    const CDeadline deadline(std::chrono::minutes(1));
    for (;;) {
        // O_NONBLOCK has no effect on a regular file that nobody holds a lease of.
        CDescriptor file(open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
        if (file.IsOpen() || errno != EWOULDBLOCK)
            return file;
        if (!deadline.Pause(std::chrono::milliseconds(1)))
            return Failed(EWOULDBLOCK);
    }
}

CDescriptor OpenRegularFile(const char* path, int flags, mode_t mode) {
    CDescriptor file = OpenAny(path, flags, mode);
    if (!file.IsOpen())
        // Of a socket, and of a FIFO without a reader that is opened for writing.
        return Failed(errno == ENXIO ? cNotAFile : errno);
    struct stat status {};
    if (fstat(file.Get(), &status) == -1)
        return Failed(errno);
    if (!S_ISREG(status.st_mode))
        return Failed(S_ISDIR(status.st_mode) ? EISDIR : cNotAFile);
    return file;
}

static bool TooLarge() {
    errno = EFBIG;
    return false;
}

bool ReadRegularFile(const std::string& path, std::uint64_t most, std::string& bytes) {
    const CDescriptor file = OpenRegularFile(path.c_str(), O_RDONLY);
    return file.IsOpen() && ReadRegularFile(file.Get(), most, bytes);
}

bool ReadRegularFile(int descriptor, std::uint64_t most, std::string& bytes) {
    struct stat status {};
    if (fstat(descriptor, &status) == -1)
        return false;
    if (static_cast<std::uint64_t>(status.st_size) > most)
        return TooLarge();
    // One byte more than the size, so that the first read() finds the end.
    bytes.resize(static_cast<std::size_t>(status.st_size) + 1);
    std::size_t length = 0;
    ssize_t count = 0;
    while ((count = read(descriptor, bytes.data() + length, bytes.size() - length)) != 0) {
        if (count == -1 && errno != EINTR)
            return false;
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (length > most)
            return TooLarge();
        if (length == bytes.size())
            bytes.resize(std::max(2 * length, cBlock));
    }
    bytes.resize(length);
    return true;
}
