// Buffered files: the bytes on disk, the number of system calls, and the effect of each failure.

#include <COpen.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <system_error>
#include <thread>

#include "Process.h"

static constexpr char cPath[] = "a file";

// ---- Interposed system calls on the file ------------------------------------------------------

// Called by COpen and by the test, on the test's thread. They pass the call on to libc, shortened
// or failed with the errno of the plan.

struct TPlan {
    int calls = 0;
    std::size_t most = SIZE_MAX;  // bytes that one call transfers at most
    int interruptions = 0;        // EINTR so many times first
    int failAt = 0;               // the call, counted from 1, that fails
    int error = EIO;
};
static TPlan gReads;
static TPlan gWrites;
static TPlan gCloses;

static bool IsTheFile(int descriptor) {
    char path[4096];
    const ssize_t length =
        readlink(("/proc/self/fd/" + std::to_string(descriptor)).c_str(), path, sizeof path);
    return length > 0 && std::string(path, static_cast<std::size_t>(length)).ends_with(cPath);
}

// Whether the call fails; otherwise `size` is cut down to the plan's.
static bool Follow(TPlan& plan, std::size_t& size) {
    ++plan.calls;
    if (plan.interruptions > 0) {
        --plan.interruptions;
        errno = EINTR;
        return true;
    }
    if (plan.calls == plan.failAt) {
        errno = plan.error;
        return true;
    }
    size = std::min(size, plan.most);
    return false;
}

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (IsTheFile(descriptor) && Follow(gReads, size))
        return -1;
    return NextDefinition<ssize_t(int, void*, std::size_t)>("read")(descriptor, buffer, size);
}

extern "C" ssize_t write(int descriptor, const void* buffer, std::size_t size) {
    if (IsTheFile(descriptor) && Follow(gWrites, size))
        return -1;
    return NextDefinition<ssize_t(int, const void*, std::size_t)>("write")(descriptor, buffer,
                                                                           size);
}

extern "C" int close(int descriptor) {
    std::size_t ignored = 0;
    const bool fails = IsTheFile(descriptor) && Follow(gCloses, ignored);
    const int error = errno;
    const int result = NextDefinition<int(int)>("close")(descriptor);
    if (!fails)
        return result;
    errno = error;
    return -1;
}

static TPlan* gOpens = nullptr;

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    std::size_t ignored = 0;
    if (gOpens != nullptr && std::string(path) == cPath && Follow(*gOpens, ignored))
        return -1;
    return NextDefinition<int(const char*, int, ...)>("open")(path, flags, mode);
}

static int gFailSeek = 0;    // the error that every lseek fails with
static int gFailStatus = 0;  // and every fstat

extern "C" off_t lseek(int descriptor, off_t offset, int from) noexcept {
    if (gFailSeek == 0)
        return NextDefinition<off_t(int, off_t, int)>("lseek")(descriptor, offset, from);
    errno = gFailSeek;
    return -1;
}

extern "C" int fstat(int descriptor, struct stat* status) noexcept {
    if (gFailStatus == 0)
        return NextDefinition<int(int, struct stat*)>("fstat")(descriptor, status);
    errno = gFailStatus;
    return -1;
}

template <typename Call>
static void ExpectError(const Call& call, const std::string& operation, int error) {
    try {
        call();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& caught) {
        EXPECT_EQ(caught.code().value(), error) << caught.what();
        EXPECT_EQ(std::string(caught.what()).substr(0, operation.size() + 1 + std::strlen(cPath)),
                  operation + ' ' + cPath);
    }
}

static COpen ForWriting() {
    return COpen(cPath, O_RDWR | O_CREAT | O_TRUNC, 0644);
}
static COpen ForReading() {
    return COpen(cPath, O_RDONLY, 0);
}

#ifndef __SANITIZE_THREAD__  // whose memory is its own affair
// ---- Memory for a string of four gibibytes: one small block, mapped repeatedly ----------------

static constexpr std::size_t cHuge = std::size_t{1} << 32;
static constexpr std::size_t cBlock = std::size_t{1} << 26;

static void* gHuge = nullptr;

static void* MapHuge() {
    const int block = memfd_create("block", MFD_CLOEXEC);
    if (block == -1 || ftruncate(block, cBlock) != 0)
        throw std::bad_alloc();
    auto* const start = static_cast<char*>(mmap(
        nullptr, cHuge + cBlock, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    for (std::size_t offset = 0; offset <= cHuge; offset += cBlock) {
        if (mmap(start + offset, cBlock, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, block,
                 0) == MAP_FAILED)
            throw std::bad_alloc();
    }
    close(block);
    gHuge = start;
    return start;
}

static std::size_t gTooMuch = SIZE_MAX;  // from this size on there is no memory

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (size >= gTooMuch)
        throw std::bad_alloc();
    if (size > cHuge && size < cHuge + cBlock)
        return MapHuge();
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    if (memory != nullptr && memory == gHuge)
        munmap(memory, cHuge + cBlock);
    else
        std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    operator delete(memory);
}

#endif

// ---- Opening ----------------------------------------------------------------------------------

TEST(Open, FlagsAndModeAreThoseOfTheCall) {
    umask(022);
    ForWriting();
    struct stat status {};
    ASSERT_EQ(::stat(cPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644U);
    WriteFile(cPath, "content");
    { const COpen kept(cPath, O_RDWR, 0644); }
    EXPECT_EQ(ReadFile(cPath), "content");
    { const COpen cut(cPath, O_RDWR | O_TRUNC, 0644); }
    EXPECT_EQ(ReadFile(cPath), "");
    EXPECT_FALSE(COpen(cPath, O_RDWR | O_CREAT | O_EXCL, 0644).IsValid());
}

TEST(Open, FileThatCannotBeOpenedIsNotValidAndSetsErrno) {
    errno = 0;
    EXPECT_FALSE(COpen(cPath, O_RDWR, 0644).IsValid());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(COpen(".", O_RDWR, 0644).IsValid());
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(COpen("no directory/file", O_RDWR | O_CREAT, 0644).IsValid());
}

TEST(Open, NotInheritedByStartedPrograms) {
    const int lowest = open("/dev/null", O_RDONLY);
    close(lowest);
    const COpen file = ForWriting();
    EXPECT_EQ(fcntl(lowest, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Open, TransfersOnAFileThatIsNotOpenThrow) {
    COpen never(cPath, O_RDWR, 0);
    ExpectError([&] { never.Write("a", 1); }, "write", EBADF);
    ExpectError([&] { never.ReadUnsigned(); }, "read", EBADF);
    EXPECT_EQ(never.Close(), 0U);
    COpen closed = ForWriting();
    closed.Close();
    EXPECT_FALSE(closed.IsValid());
    ExpectError([&] { closed.WriteUnsigned(1); }, "write", EBADF);
}

// ---- What is on disk --------------------------------------------------------------------------

TEST(Open, ValuesAndStringsAreTheseBytes) {
    COpen file = ForWriting();
    file.WriteUnsigned(0x01020304);
    file.WriteString("text");
    file.WriteString("");
    file.Write("raw", 3);
    EXPECT_EQ(file.Close(), 4U + 8 + 4 + 3);
    EXPECT_EQ(ReadFile(cPath), std::string("\x04\x03\x02\x01\x04\0\0\0text\0\0\0\0raw", 19));
}

class OpenStrings : public testing::TestWithParam<std::size_t> {};

TEST_P(OpenStrings, ComeBackByteForByte) {
    std::string text;
    for (std::size_t index = 0; index < GetParam(); ++index)
        text += static_cast<char>(index * 7 + index / 256);
    COpen out = ForWriting();
    out.WriteString(text);
    out.WriteUnsigned(4294967295);
    out.Close();
    COpen in = ForReading();
    std::string read = "something before";
    in.ReadString(read);
    EXPECT_EQ(read, text);
    EXPECT_EQ(in.ReadUnsigned(), 4294967295U);
}

INSTANTIATE_TEST_SUITE_P(Lengths, OpenStrings,
                         testing::Values(0, 1, 256, 65531, 65532, 65533, 65535, 65536, 65537,
                                         131072, 1 << 20));

TEST(Open, OrdinaryTableTakesOneWriteAndOneRead) {
    COpen out = ForWriting();
    for (int index = 0; index < 500; ++index)
        out.WriteString("a text of some length, as a task has it");
    out.Close();
    EXPECT_EQ(gWrites.calls, 1);
    COpen in = ForReading();
    std::string text;
    for (int index = 0; index < 500; ++index)
        in.ReadString(text);
    in.Close();
    EXPECT_EQ(gReads.calls, 1);
}

TEST(Open, LargeTableTakesOneWriteForAMebibyte) {
    const std::string text(1 << 10, 'x');
    COpen out = ForWriting();
    for (int index = 0; index < 3000; ++index)
        out.WriteString(text);
    out.Close();
    EXPECT_EQ(gWrites.calls, 3);
    EXPECT_EQ(std::filesystem::file_size(cPath), 3000U * (4 + 1024));
}

TEST(Open, PartialAndInterruptedTransfersAreCarriedOn) {
    gWrites.most = 3;
    gWrites.interruptions = 2;
    COpen out = ForWriting();
    out.WriteString("a text of some length");
    out.Close();
    EXPECT_EQ(gWrites.calls, 2 + 9);
    gReads.most = 1;
    gReads.interruptions = 3;
    COpen in = ForReading();
    std::string text;
    in.ReadString(text);
    EXPECT_EQ(text, "a text of some length");
    EXPECT_EQ(gReads.calls, 3 + 25);
}

TEST(Open, ReadingAndWritingOneFileKeepTheirPlace) {
    WriteFile(cPath, "0123456789");
    COpen file(cPath, O_RDWR, 0);
    char two[2];
    file.Read(two, 2);
    file.Write("AB", 2);
    file.Read(two, 2);
    EXPECT_EQ(std::string(two, 2), "45");
    file.Write("C", 1);
    file.Close();
    EXPECT_EQ(ReadFile(cPath), "01AB45C789");
}

TEST(Open, TwoWayChannelHasNoPlaceToKeep) {
    ASSERT_EQ(mkfifo(cPath, 0600), 0);
    COpen file(cPath, O_RDWR, 0);
    file.Write("abcdef", 6);
    char two[2];
    file.Read(two, 2);
    EXPECT_EQ(std::string(two, 2), "ab");
    file.Write("gh", 2);
    EXPECT_EQ(file.Close(), 2U);
}

// ---- Failures ---------------------------------------------------------------------------------

TEST(Open, EndOfTheFileIsAnError) {
    WriteFile(cPath, "abc");
    COpen file = ForReading();
    char bytes[4];
    ExpectError([&] { file.Read(bytes, 4); }, "read", ENODATA);
    ExpectError([&] { ForReading().ReadUnsigned(); }, "read", ENODATA);
    WriteFile(cPath, "");
    ExpectError([&] { ForReading().Read(bytes, 1); }, "read", ENODATA);
    EXPECT_NO_THROW(ForReading().Read(bytes, 0));
}

TEST(Open, StringBeyondTheFileThrowsBeforeAnythingIsAllocatedAndLeavesTheString) {
    WriteFile(cPath, "\xff\xff\xff\xff only this");
    COpen file = ForReading();
    std::string text = "as it was";
    ExpectError([&] { file.ReadString(text); }, "read", ENODATA);
    EXPECT_EQ(text, "as it was");
    // By one byte only.
    WriteFile(cPath, std::string("\x05\0\0\0abcd", 8));
    ExpectError([&] { ForReading().ReadString(text); }, "read", ENODATA);
    WriteFile(cPath, std::string("\x05\0\0\0abcde", 9));
    ForReading().ReadString(text);
    EXPECT_EQ(text, "abcde");
}

TEST(Open, StringThatSpansBlocksIsMeasuredAgainstTheRestOfTheFile) {
    const std::string content = std::string(70'000, 'x');
    COpen out = ForWriting();
    out.WriteString(content);
    out.Close();
    std::filesystem::resize_file(cPath, 70'003);
    std::string text = "as it was";
    ExpectError([&] { ForReading().ReadString(text); }, "read", ENODATA);
    EXPECT_EQ(gReads.calls, 1) << "nothing more was read";
    EXPECT_EQ(text, "as it was");
}

TEST(Open, StringOfAChannelIsReadAsItComes) {
    ASSERT_EQ(mkfifo(cPath, 0600), 0);
    const std::string content(200'000, 'x');
    std::thread writer([&] {
        COpen out(cPath, O_WRONLY, 0);
        out.WriteString(content);
        out.WriteUnsigned(4294967295);
        out.Close();
    });
    COpen in(cPath, O_RDONLY, 0);
    std::string text;
    in.ReadString(text);
    EXPECT_EQ(text, content);
    // Then comes the length of a string of four gibibytes, and nothing after it.
    ExpectError([&] { in.ReadString(text); }, "read", ENODATA);
    EXPECT_EQ(text, content);
    writer.join();
}

TEST(Open, NegativeLengthsAreRefused) {
    COpen file = ForWriting();
    char byte = 0;
    ExpectError([&] { file.Read(&byte, -1); }, "read", EINVAL);
    ExpectError([&] { file.Write(&byte, -1); }, "write", EINVAL);
}

TEST(Open, FailedReadReportsTheOperationAndTheReason) {
    WriteFile(cPath, "abc");
    gReads.failAt = 1;
    char byte = 0;
    COpen file = ForReading();
    ExpectError([&] { file.Read(&byte, 1); }, "read", EIO);
    file.Read(&byte, 1);
    EXPECT_EQ(byte, 'a') << "the file is as it was";
}

TEST(Open, InterruptedOpenIsTriedAgain) {
    TPlan plan = {.interruptions = 3};
    gOpens = &plan;
    EXPECT_TRUE(ForWriting().IsValid());
    gOpens = nullptr;
    EXPECT_EQ(plan.calls, 4);
}

TEST(Open, FileThatCannotBeMeasuredOrPlacedIsAnError) {
    {
        COpen file = ForWriting();
        file.WriteString("text");
        file.WriteUnsigned(1000);  // as the length of a string that is missing
    }
    COpen file = ForReading();
    std::string text;
    file.ReadString(text);
    gFailStatus = EIO;
    ExpectError([&] { file.ReadString(text); }, "stat", EIO);
    gFailStatus = 0;

    COpen another = ForReading();
    another.ReadString(text);
    gFailSeek = EOVERFLOW;
    ExpectError([&] { another.ReadString(text); }, "seek", EOVERFLOW);

    COpen both(cPath, O_RDWR, 0);
    both.ReadUnsigned();
    ExpectError([&] { both.WriteUnsigned(1); }, "seek", EOVERFLOW);
    gFailSeek = 0;
    EXPECT_EQ(text, "text");
}

#ifndef __SANITIZE_THREAD__
#ifndef __SANITIZE_ADDRESS__  // it replaces the allocation function that fails here
TEST(Open, WithoutMemoryForLargeWritesThereAreMoreOfThem) {
    const std::string text(200'000, 'x');
    COpen file = ForWriting();
    gTooMuch = COpen::cLargestWrite;
    file.WriteString(text);
    file.Close();
    gTooMuch = SIZE_MAX;
    EXPECT_EQ(gWrites.calls, 4);
    EXPECT_EQ(ReadFile(cPath).substr(4), text);
}
#endif

TEST(Open, StringLongerThanItsLengthFieldIsRefused) {
    const std::string text(std::size_t{1} << 32, 'x');
    COpen file = ForWriting();
    ExpectError([&] { file.WriteString(text); }, "write", EFBIG);
    EXPECT_EQ(file.Close(), 0U);
}
#endif

TEST(Open, FailedWriteShowsInCloseWhichClosesAllTheSame) {
    gWrites.failAt = 1;
    gWrites.error = ENOSPC;
    COpen file = ForWriting();
    file.Write("abc", 3);
    ExpectError([&] { file.Close(); }, "write", ENOSPC);
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(gCloses.calls, 1);
    EXPECT_EQ(file.Close(), 0U);
}

TEST(Open, FailedWriteIsNotTriedAgainByTheDestructor) {
    gWrites.failAt = 1;
    {
        COpen file = ForWriting();
        ExpectError([&] { file.WriteString(std::string(1'100'000, 'x')); }, "write", EIO);
    }
    EXPECT_EQ(gWrites.calls, 1);
    EXPECT_EQ(ReadFile(cPath), "");
}

TEST(Open, WriteThatStopsPartWayKeepsWhatWasWritten) {
    gWrites.most = 10;
    gWrites.failAt = 3;
    {
        COpen file = ForWriting();
        file.Write("0123456789012345678901234567890123456789", 40);
        ExpectError([&] { file.Close(); }, "write", EIO);
    }
    EXPECT_EQ(ReadFile(cPath), "01234567890123456789");
}

TEST(Open, FailedCloseIsAnErrorAnInterruptedOneIsNot) {
    gCloses.failAt = 1;
    COpen file = ForWriting();
    ExpectError([&] { file.Close(); }, "close", EIO);
    EXPECT_FALSE(file.IsValid());
    gCloses = {.calls = 0, .most = SIZE_MAX, .interruptions = 1, .failAt = 0, .error = EIO};
    COpen other = ForWriting();
    other.Write("abc", 3);
    EXPECT_EQ(other.Close(), 3U);
    EXPECT_EQ(gCloses.calls, 1) << "never closed twice";
}

TEST(Open, DestructorWritesWhatIsLeftAndNeverThrows) {
    { ForWriting().Write("abc", 3); }
    EXPECT_EQ(ReadFile(cPath), "abc");
    gWrites.failAt = 2;
    EXPECT_NO_THROW({ ForWriting().Write("abc", 3); });
}

TEST(Open, FullDeviceFailsAtTheClose) {
    COpen file("/dev/full", O_RDWR, 0);
    file.WriteUnsigned(1);
    EXPECT_THROW(file.Close(), std::system_error);
}
