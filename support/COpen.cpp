#include "COpen.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <limits>
#include <new>
#include <system_error>
#include <utility>

#include "VXC_FileHook.h"

static constinit std::atomic<const VXC_FileHook*> gFileHook{nullptr};

void VXC_SetFileHook(const VXC_FileHook* hook) {
    gFileHook = hook;
}

// A time is eight bytes: two instructions instead of a call.
static inline void Copy(char* to, const char* from, std::size_t length) {
    if (length == sizeof(std::uint64_t))
        std::memcpy(to, from, sizeof(std::uint64_t));
    else
        std::memcpy(to, from, length);
}

// The two that every small transfer goes through, once for each field of a table.

inline void COpen::ReadBytes(char* data, std::size_t length) {
    if (length == 0 || length > filled - position) {
        ReadAcrossBlocks(data, length);
        return;
    }
    Copy(data, buffer.get() + position, length);
    position += length;
}

inline void COpen::WriteBytes(const char* data, std::size_t length) {
    if (!writing || length > capacity - waiting) {
        WriteAcrossBlocks(data, length);
        return;
    }
    Copy(buffer.get() + waiting, data, length);
    waiting += length;
}

COpen::COpen(const char* openedPath, int flags, unsigned int mode)
    : path(openedPath), exceptions(std::uncaught_exceptions()), buffer(new char[cBlockSize]) {
    flags |= O_CLOEXEC;
    hook = gFileHook;
    do {
        descriptor = hook != nullptr ? hook->open(openedPath, flags, mode) : cVXC_OpenAsUsual;
        if (descriptor == cVXC_OpenAsUsual) {
            hook = nullptr;
            descriptor = open(openedPath, flags, mode);
        }
    } while (descriptor == -1 && errno == EINTR);
}

COpen::~COpen() {
    try {
        Close();
    } catch (const std::exception&) {
        // A caller that wants the error calls Close().
    }
}

bool COpen::IsValid() const {
    return descriptor != -1;
}

void COpen::Read(void* data, int length) {
    if (length < 0)
        Fail("read", EINVAL);
    ReadBytes(static_cast<char*>(data), static_cast<std::size_t>(length));
}

void COpen::Write(const void* data, int length) {
    if (length < 0)
        Fail("write", EINVAL);
    WriteBytes(static_cast<const char*>(data), static_cast<std::size_t>(length));
}

std::uint32_t COpen::ReadUnsigned() {
    std::uint32_t value = 0;
    ReadBytes(reinterpret_cast<char*>(&value), sizeof value);
    return value;
}

void COpen::WriteUnsigned(std::uint32_t value) {
    WriteBytes(reinterpret_cast<const char*>(&value), sizeof value);
}

void COpen::ReadString(std::string& text) {
    std::uint32_t length = 0;
    ReadBytes(reinterpret_cast<char*>(&length), sizeof length);
    if (length > filled - position) {
        ReadLongText(text, length);
        return;
    }
    text = std::string(buffer.get() + position, length);
    position += length;
}

// One that is not all in the buffer.
void COpen::ReadLongText(std::string& text, std::size_t length) {
    CheckLengthOfText(length);
    std::string result;
    // The length of a pipe or a device is unknown: memory is allocated as the bytes come.
    while (length > 0) {
        const std::size_t done = result.size();
        const std::size_t count = std::min(length, std::max(cBlockSize, done));
        result.resize(done + count);
        ReadBytes(result.data() + done, count);
        length -= count;
    }
    text.swap(result);
}

void COpen::WriteString(const std::string& text) {
    if (text.size() > std::numeric_limits<std::uint32_t>::max())
        Fail("write", EFBIG);
    const auto length = static_cast<std::uint32_t>(text.size());
    if (!writing || sizeof length + text.size() > capacity - waiting) {
        WriteAcrossBlocks(reinterpret_cast<const char*>(&length), sizeof length);
        WriteAcrossBlocks(text.data(), text.size());
        return;
    }
    char* const end = buffer.get() + waiting;
    std::memcpy(end, &length, sizeof length);
    text.copy(end + sizeof length, text.size());
    waiting += sizeof length + text.size();
}

std::size_t COpen::Close() {
    if (descriptor == -1)
        return 0;
    std::size_t flushed = 0;
    std::exception_ptr failure;
    try {
        flushed = Flush();
    } catch (const std::system_error&) {
        failure = std::current_exception();
    }
    // Closed whatever close returns, and never again: the descriptor may be another file's by then.
    const bool isComplete = !hasFailed && std::uncaught_exceptions() <= exceptions;
    const int result = hook != nullptr ? hook->close(descriptor, isComplete) : close(descriptor);
    const int error = errno;
    descriptor = -1;
    writing = false;
    position = filled = 0;
    if (failure)
        std::rethrow_exception(failure);
    if (result == -1 && error != EINTR)
        Fail("close", error);
    return flushed;
}

void COpen::ReadAcrossBlocks(char* data, std::size_t length) {
    BeginReading();
    while (length > 0) {
        if (position == filled && Fill() == 0)
            Fail("read", ENODATA);
        const std::size_t count = std::min(length, filled - position);
        std::memcpy(data, buffer.get() + position, count);
        position += count;
        data += count;
        length -= count;
    }
}

void COpen::WriteAcrossBlocks(const char* data, std::size_t length) {
    BeginWriting();
    while (length > 0) {
        if (waiting == capacity && !EnlargeBuffer())
            Flush();
        const std::size_t count = std::min(length, capacity - waiting);
        std::memcpy(buffer.get() + waiting, data, count);
        waiting += count;
        data += count;
        length -= count;
    }
}

// Reads the next block. Returns the number of bytes, 0 at the end of the file.
std::size_t COpen::Fill() {
    position = filled = 0;
    ssize_t count = 0;
    do {
        count = read(descriptor, buffer.get(), cBlockSize);
    } while (count == -1 && errno == EINTR);
    if (count == -1)
        FailToRead("read", errno);
    filled = static_cast<std::size_t>(count);
    return filled;
}

// Makes room for more than a block to be written. False when memory runs out.
bool COpen::EnlargeBuffer() {
    if (capacity == cLargestWrite)
        return false;
    std::unique_ptr<char[]> larger(new (std::nothrow) char[cLargestWrite]);
    if (!larger)
        return false;
    std::memcpy(larger.get(), buffer.get(), waiting);
    buffer = std::move(larger);
    capacity = cLargestWrite;
    return true;
}

// Writes what waits to be written. Returns the number of bytes.
std::size_t COpen::Flush() {
    const std::size_t length = waiting;
    waiting = 0;
    for (std::size_t done = 0; done < length;) {
        const ssize_t count = write(descriptor, buffer.get() + done, length - done);
        if (count >= 0)
            done += static_cast<std::size_t>(count);
        else if (errno != EINTR)
            Fail("write", errno);
    }
    return length;
}

void COpen::BeginReading() {
    if (descriptor == -1)
        Fail("read", EBADF);
    if (!writing)
        return;
    Flush();
    writing = false;
}

// Bytes that were read ahead were never returned: the file's own position goes back to where the
// reader is. A pipe or a terminal has no position; there the two directions have nothing to do with
// each other.
void COpen::BeginWriting() {
    if (descriptor == -1)
        Fail("write", EBADF);
    if (writing)
        return;
    const auto ahead = static_cast<off_t>(filled - position);
    if (ahead > 0 && lseek(descriptor, -ahead, SEEK_CUR) == -1 && errno != ESPIPE)
        Fail("seek", errno);
    position = filled = 0;
    writing = true;
}

// While the last read filled its block, a string of at most one block needs no check of the file's
// size: either the file continues, or the next read finds its end.
void COpen::CheckLengthOfText(std::size_t length) {
    if (filled == cBlockSize && length <= cBlockSize)
        return;
    const std::size_t ahead = filled - position;
    struct stat status {};
    if (fstat(descriptor, &status) == -1)
        FailToRead("stat", errno);
    if (!S_ISREG(status.st_mode))
        return;
    const off_t offset = lseek(descriptor, 0, SEEK_CUR);
    if (offset == -1)
        FailToRead("seek", errno);
    if (static_cast<off_t>(length - ahead) > status.st_size - offset)
        Fail("read", ENODATA);
}

// For what the file's bytes are not to blame for, unlike an end that comes too early.
void COpen::FailToRead(const char* operation, int error) {
    if (hook != nullptr)
        hook->readFailed(error);
    Fail(operation, error);
}

void COpen::Fail(const char* operation, int error) {
    hasFailed = true;
    throw std::system_error(error, std::generic_category(), std::string(operation) + ' ' + path);
}
