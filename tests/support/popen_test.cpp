// Pipes from and to commands: reading and closing.

#include <CPopen.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <string>
#include <thread>

#include "Process.h"

static std::string ReadFrom(const char* command, int size = 1024) {
    CPopen pipe(command, "r");
    std::string buffer(static_cast<std::size_t>(size), '#');
    const int count = pipe.Read(buffer.data(), size);
    const std::string text = buffer.c_str();
    EXPECT_EQ(static_cast<std::size_t>(count), text.size());
    return text;
}

TEST(Popen, OutputIsATerminatedString) {
    EXPECT_EQ(ReadFrom("echo hello"), "hello\n");
    EXPECT_EQ(ReadFrom("echo one; echo two"), "one\ntwo\n");
}

TEST(Popen, NoOutputIsAnEmptyString) {
    EXPECT_EQ(ReadFrom("true"), "");
}

TEST(Popen, AtMostOneLessThanTheSizeIsRead) {
    EXPECT_EQ(ReadFrom("echo 0123456789", 5), "0123");
    EXPECT_EQ(ReadFrom("echo 0123456789", 11), "0123456789");
    EXPECT_EQ(ReadFrom("echo 0123456789", 1), "");
    EXPECT_EQ(ReadFrom("head -c 100000 /dev/zero | tr '\\0' x").size(), 1023U);
}

TEST(Popen, OutputThatComesInPiecesIsGathered) {
    ASSERT_EQ(mkfifo("go", 0600), 0);
    CPopen pipe("echo first; cat go; echo last", "r");
    std::thread later([] { WriteFile("go", "second\n"); });
    char buffer[100];
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), 18);
    EXPECT_STREQ(buffer, "first\nsecond\nlast\n");
    later.join();
}

TEST(Popen, ReadAgainGoesOnAndThenGivesTheEnd) {
    CPopen pipe("echo 0123456789", "r");
    char buffer[7];
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), 6);
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), 5);
    EXPECT_STREQ(buffer, "6789\n");
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(Popen, SizeBelowOneTouchesNothing) {
    CPopen pipe("echo hello", "r");
    char byte = '#';
    EXPECT_EQ(pipe.Read(&byte, 0), 0);
    EXPECT_EQ(pipe.Read(&byte, -5), 0);
    EXPECT_EQ(byte, '#');
}

TEST(Popen, CloseGivesTheWaitStatusOnce) {
    CPopen pipe("exit 3", "r");
    EXPECT_TRUE(pipe.IsValid());
    const int status = pipe.Close();
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_FALSE(pipe.IsValid());
    EXPECT_EQ(pipe.Close(), -1);
}

TEST(Popen, DestructionClosesAndWaits) {
    { const CPopen pipe("echo done > 'the file'", "r"); }
    EXPECT_EQ(ReadFile("the file"), "done\n");
}

TEST(Popen, PipeIsNotInheritedByOtherPrograms) {
    const int lowest = open("/dev/null", O_RDONLY);
    close(lowest);
    const CPopen pipe("cat", "w");
    EXPECT_EQ(fcntl(lowest, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST(Popen, PipeThatCannotBeMadeIsNotValidAndReadsAsAnEmptyString) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{.rlim_cur = 3, .rlim_max = limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    CPopen pipe("echo hello", "r");
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_FALSE(pipe.IsValid());
    char buffer[8] = "before";
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), -1);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(pipe.Close(), -1);
}

TEST(Popen, ReadFromACommandThatIsWrittenToFails) {
    CPopen pipe("cat", "w");
    char buffer[8] = "before";
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), -1);
    EXPECT_STREQ(buffer, "");
}

static int gReadsUntilFailure = -1;

// Called by CPopen and by the test, on the test's thread. Fails with EIO after
// gReadsUntilFailure reads, otherwise does what libc does.
extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    static auto* const system =
        reinterpret_cast<ssize_t (*)(int, void*, std::size_t)>(dlsym(RTLD_NEXT, "read"));
    if (gReadsUntilFailure < 0 || gReadsUntilFailure-- > 0)
        return system(descriptor, buffer, size);
    errno = EIO;
    return -1;
}

TEST(Popen, OutputBeforeAFailedReadIsDelivered) {
    CPopen pipe("echo hello", "r");
    gReadsUntilFailure = 1;
    char buffer[64];
    EXPECT_EQ(pipe.Read(buffer, sizeof buffer), 6);
    EXPECT_STREQ(buffer, "hello\n");
    EXPECT_EQ(gReadsUntilFailure, -1);
}

static std::atomic<int> gSignals{0};
static void OnSignal(int /*number*/) {
    ++gSignals;
}

TEST(Popen, ReadGoesOnAfterASignalHandlerRan) {
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGUSR1, &action, nullptr);
    ASSERT_EQ(mkfifo("go", 0600), 0);
    std::string text;
    std::thread reader([&] { text = ReadFrom("cat go"); });
    for (int iteration = 0; iteration < 20; ++iteration) {
        const int before = gSignals;
        pthread_kill(reader.native_handle(), SIGUSR1);
        WaitUntil([&] { return gSignals > before; });
    }
    WriteFile("go", "hello");
    reader.join();
    EXPECT_EQ(text, "hello");
}
