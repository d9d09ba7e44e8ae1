// Regular files and nothing else: what is no file is refused at once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "Process.h"
#include "base/RegularFile.h"

namespace fs = std::filesystem;

static int ErrorOfOpen(const char* path, int flags) {
    const CDescriptor file = OpenRegularFile(path, flags);
    const int error = errno;
    return file.IsOpen() ? 0 : error;
}

TEST(RegularFile, IsReadToItsEnd) {
    for (const std::size_t size : {0UL, 1UL, 65'536UL, 200'000UL}) {
        WriteFile("file", std::string(size, 'x'));
        std::string bytes = "former";
        EXPECT_TRUE(ReadRegularFile("file", size, bytes));
        EXPECT_EQ(bytes, std::string(size, 'x'));
    }
}

TEST(RegularFile, WhoseSizeIsUnknownIsReadToItsEnd) {
    std::string bytes;
    EXPECT_TRUE(ReadRegularFile("/proc/self/cmdline", 1 << 20, bytes));
    EXPECT_EQ(bytes, ReadFile("/proc/self/cmdline"));
    EXPECT_FALSE(ReadRegularFile("/proc/self/cmdline", 1, bytes));
    EXPECT_EQ(errno, EFBIG);
}

TEST(RegularFile, BeyondTheLimitIsNotRead) {
    WriteFile("file", "12345");
    std::string bytes;
    EXPECT_FALSE(ReadRegularFile("file", 4, bytes));
    EXPECT_EQ(errno, EFBIG);
    fs::resize_file("file", 1ULL << 42);
    EXPECT_FALSE(ReadRegularFile("file", 1 << 20, bytes));
    EXPECT_EQ(errno, EFBIG);
}

TEST(RegularFile, IsCreatedAsOpenDoes) {
    EXPECT_EQ(ErrorOfOpen("file", O_RDWR), ENOENT);
    EXPECT_TRUE(OpenRegularFile("file", O_RDWR | O_CREAT, 0600).IsOpen());
    EXPECT_EQ(fs::status("file").permissions(), fs::perms{0600});
}

TEST(RegularFile, IsNoPipeDeviceOrDirectory) {
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    for (const int flags : {O_RDONLY, O_WRONLY, O_RDWR, O_RDWR | O_CREAT | O_TRUNC}) {
        EXPECT_EQ(ErrorOfOpen("pipe", flags), cNotAFile) << flags;
        EXPECT_EQ(ErrorOfOpen("/dev/null", flags), cNotAFile) << flags;
        EXPECT_EQ(ErrorOfOpen(".", flags), EISDIR) << flags;
    }
    fs::create_symlink("pipe", "link");
    std::string bytes;
    EXPECT_FALSE(ReadRegularFile("link", 100, bytes));
    EXPECT_EQ(errno, cNotAFile);
}
