// Writing all of some bytes, in as many calls as it takes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>

#include "Process.h"
#include "base/CDescriptor.h"
#include "base/WriteAll.h"

// More than a pipe or a socket takes at once.
static const std::string cMany(3'000'000, 'x');

static std::string ReadAll(int descriptor) {
    std::string bytes;
    char block[4096];
    for (ssize_t count = 0; (count = read(descriptor, block, sizeof block)) > 0;)
        bytes.append(block, static_cast<std::size_t>(count));
    return bytes;
}

TEST(WriteAll, TakesSeveralCalls) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
    std::string received;
    std::thread reader([&] { received = ReadAll(ends[0]); });
    EXPECT_TRUE(WriteAll(ends[1], cMany));
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(received, cMany);
}

TEST(WriteAll, SendsToASocketInSeveralCalls) {
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    std::string received;
    std::thread reader([&] { received = ReadAll(ends[0]); });
    EXPECT_TRUE(SendAll(ends[1], cMany));
    close(ends[1]);
    reader.join();
    close(ends[0]);
    EXPECT_EQ(received, cMany);
}

TEST(WriteAll, WritesAtAPlaceAndLeavesThePositionAlone) {
    WriteFile("file", "0123456789");
    const CDescriptor file(open("file", O_RDWR | O_CLOEXEC));
    EXPECT_TRUE(WriteAllAt(file.Get(), "abc", 4));
    EXPECT_TRUE(WriteAllAt(file.Get(), "", 100));
    EXPECT_EQ(lseek(file.Get(), 0, SEEK_CUR), 0);
    EXPECT_EQ(ReadFile("file"), "0123abc789");
}

TEST(WriteAll, FailureIsThatOfTheCall) {
    const CDescriptor full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    EXPECT_FALSE(WriteAllAt(full.Get(), "bytes", 5));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(WriteAll(full.Get(), "bytes"));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_TRUE(WriteAll(full.Get(), ""));
    // SIGPIPE would end this process.
    std::array<int, 2> ends{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    close(ends[0]);
    EXPECT_FALSE(SendAll(ends[1], "bytes"));
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}
