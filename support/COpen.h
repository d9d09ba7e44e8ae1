#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "VXC_Export.h"

struct VXC_FileHook;

// A file, buffered both ways: what fits into cBlockSize is read with one read, what fits into
// cLargestWrite is written with one write. Raw bytes, unsigned 32-bit values (4 bytes in the host's
// order) and strings (their 32-bit length, then their bytes, without a terminator).
//
// Every transfer moves all that was asked for or throws std::system_error, whose message has the
// operation and the path; the end of the file reached too early is such an error (ENODATA).
// Interrupted and partial transfers are carried on. Once a write has failed, what was still
// buffered is discarded, so that the destructor does not try again. For one thread at a time.
class VXC_EXPORT COpen {
public:
    static constexpr std::size_t cBlockSize = std::size_t{64} * 1024;

    // Large writes make large pieces in the page cache, and the system's copying then disturbs the
    // caller's walk over its data less often. The memory is taken when more than cBlockSize is to
    // be written; where there is none, the blocks stay smaller.
    static constexpr std::size_t cLargestWrite = std::size_t{1024} * 1024;

    // Opens `path` as POSIX open does with these flags and this mode; the descriptor is closed when
    // another program is started. IsValid() returns whether that worked; errno holds the reason.
    // Throws std::bad_alloc. A program may have it open another file: VXC_FileHook.h.
    COpen(const char* path, int flags, unsigned int mode);

    // Closes the file as Close() does, but never throws: an error of the last write is lost. Call
    // Close().
    ~COpen();

    COpen(const COpen&) = delete;
    COpen& operator=(const COpen&) = delete;

    bool IsValid() const;

    // `length` raw bytes from or to `data`. A negative length throws (EINVAL).
    void Read(void* data, int length);
    void Write(const void* data, int length);

    std::uint32_t ReadUnsigned();
    void WriteUnsigned(std::uint32_t value);

    // Replaces `text`. A length beyond the rest of a regular file throws before more than
    // cBlockSize is allocated; `text` is unchanged when anything is thrown. A string of 2^32 bytes
    // or more cannot be written (EFBIG).
    void ReadString(std::string& text);
    void WriteString(const std::string& text);

    // Writes what is buffered and closes the file, in any case; throws if either failed. Returns
    // the number of bytes it had left to write. On a file that is not open it does nothing and
    // returns 0.
    std::size_t Close();

private:
    // Returns buffered bytes, and buffers bytes that fit, without a system call.
    void ReadBytes(char* data, std::size_t length);
    void WriteBytes(const char* data, std::size_t length);
    void ReadAcrossBlocks(char* data, std::size_t length);
    void WriteAcrossBlocks(const char* data, std::size_t length);
    void ReadLongText(std::string& text, std::size_t length);

    std::size_t Fill();
    bool EnlargeBuffer();
    std::size_t Flush();
    void BeginReading();
    void BeginWriting();
    void CheckLengthOfText(std::size_t length);
    [[noreturn]] void FailToRead(const char* operation, int error);
    [[noreturn]] void Fail(const char* operation, int error);

    std::string path;
    int descriptor = -1;
    const VXC_FileHook* hook = nullptr;  // that opened the file, if one did
    int exceptions;                      // that were on their way when the file was opened
    bool hasFailed = false;              // some operation on the file
    bool writing = false;                // which of the two the buffer is used for
    std::size_t position = 0;            // of the next byte to hand out of what was read ahead
    std::size_t filled = 0;              // bytes that were read ahead
    std::size_t waiting = 0;             // bytes to be written
    std::size_t capacity = cBlockSize;
    std::unique_ptr<char[]> buffer;  // of that capacity
};
