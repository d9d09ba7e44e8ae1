#include "base/RegularFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>

static constexpr std::size_t cBlock = 1 << 16;

static CDescriptor Failed(int error) {
    errno = error;
    return CDescriptor();
}

// Leaves the file's size in `size`.
static CDescriptor Open(const char* path, int flags, mode_t mode, std::uint64_t& size) {
    // O_NONBLOCK has no effect on a regular file.
    CDescriptor file(open(path, flags | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, mode));
    if (!file.IsOpen())
        // Of a socket, and of a FIFO without a reader that is opened for writing.
        return Failed(errno == ENXIO ? cNotAFile : errno);
    struct stat status {};
    if (fstat(file.Get(), &status) == -1)
        return Failed(errno);
    if (!S_ISREG(status.st_mode))
        return Failed(S_ISDIR(status.st_mode) ? EISDIR : cNotAFile);
    size = static_cast<std::uint64_t>(status.st_size);
    return file;
}

CDescriptor OpenRegularFile(const char* path, int flags, mode_t mode) {
    std::uint64_t ignored = 0;
    return Open(path, flags, mode, ignored);
}

static bool TooLarge() {
    errno = EFBIG;
    return false;
}

bool ReadRegularFile(const std::string& path, std::uint64_t most, std::string& bytes) {
    std::uint64_t size = 0;
    const CDescriptor file = Open(path.c_str(), O_RDONLY, 0, size);
    if (!file.IsOpen())
        return false;
    if (size > most)
        return TooLarge();
    // One byte more than the size, so that the first read() finds the end.
    bytes.resize(size + 1);
    std::size_t length = 0;
    ssize_t count = 0;
    while ((count = read(file.Get(), bytes.data() + length, bytes.size() - length)) != 0) {
        if (count == -1 && errno != EINTR)
            return false;
        length += count > 0 ? static_cast<std::size_t>(count) : 0;
        if (length > most)
            return TooLarge();
        if (length == bytes.size())
            bytes.resize(length + cBlock);
    }
    bytes.resize(length);
    return true;
}
