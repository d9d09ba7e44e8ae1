// The log of the support library: its lines on standard error, and a sink that replaces it.

#include <VXC_Log.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Process.h"

static int gWrites = 0;
static int gInterruptions = 0;  // writes to standard error that fail first

// Called by the log on any thread. Fails with EINTR on standard error while gInterruptions is above
// 0, otherwise does what libc does.
extern "C" ssize_t write(int descriptor, const void* buffer, std::size_t size) {
    static auto* const system =
        reinterpret_cast<ssize_t (*)(int, const void*, std::size_t)>(dlsym(RTLD_NEXT, "write"));
    if (descriptor == STDERR_FILENO) {
        ++gWrites;
        if (gInterruptions > 0) {
            --gInterruptions;
            errno = EINTR;
            return -1;
        }
    }
    return system(descriptor, buffer, size);
}

// Calls `body` and returns what was written to standard error meanwhile.
template <typename Body>
static std::string StandardError(const Body& body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}

static void UseZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

TEST(Log, MessageIsOneLineWithItsTimeInOneWrite) {
    UseZone("Asia/Kathmandu");
    const std::string line = StandardError([] {
        gWrites = 0;
        VXC_LogMessage("what happened");
        EXPECT_EQ(gWrites, 1);
    });
    EXPECT_THAT(line,
                testing::MatchesRegex(
                    "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}\\+05:45 "
                    "what happened\n"));
}

TEST(Log, InterruptedWriteIsTriedAgain) {
    gInterruptions = 2;
    const std::string output = StandardError([] { VXC_LogMessage("whole"); });
    EXPECT_TRUE(output.ends_with(" whole\n")) << output;
    EXPECT_EQ(gInterruptions, 0);
}

TEST(Log, ZonesWestOfUtcHaveAMinus) {
    UseZone("<-0330>+3:30");
    EXPECT_THAT(StandardError([] { VXC_LogMessage("x"); }), testing::HasSubstr("-03:30 x\n"));
    UseZone("UTC");
    EXPECT_THAT(StandardError([] { VXC_LogMessage("x"); }), testing::HasSubstr("+00:00 x\n"));
}

TEST(Log, ControlCharactersBecomeBlanks) {
    EXPECT_THAT(StandardError([] { VXC_LogMessage("a\nb\r\tc\x1b[31m\x7f \xc3\xa4"); }),
                testing::HasSubstr(" a b  c [31m  \xc3\xa4\n"));
    EXPECT_THAT(StandardError([] { VXC_LogMessage(""); }), testing::MatchesRegex("[^ ]+ \n"));
}

TEST(Log, LinesOfThreadsDoNotMix) {
    const std::string output = StandardError([] {
        std::vector<std::thread> threads;
        for (char name = 'a'; name < 'e'; ++name)
            threads.emplace_back([name] {
                for (int iteration = 0; iteration < 200; ++iteration)
                    VXC_LogMessage(std::string(100, name));
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    std::size_t lines = 0;
    for (std::size_t position = 0; position < output.size(); ++lines) {
        const std::size_t end = output.find('\n', position);
        const std::string message = output.substr(end - 100, 100);
        ASSERT_EQ(message, std::string(100, message[0]));
        ASSERT_EQ(output[end - 101], ' ');
        position = end + 1;
    }
    EXPECT_EQ(lines, 800U);
}

TEST(Log, SinkGetsTheMessageAsItIsInsteadOfStandardError) {
    std::vector<std::string> messages;
    const std::string written = StandardError([&] {
        VXC_SetLogSink(
            [](const std::string& message, void* context) {
                static_cast<std::vector<std::string>*>(context)->push_back(message);
            },
            &messages);
        VXC_LogMessage("a\nb");
        VXC_SetLogSink(nullptr, nullptr);
    });
    EXPECT_EQ(written, "");
    EXPECT_EQ(messages, std::vector<std::string>({"a\nb"}));
    EXPECT_THAT(StandardError([] { VXC_LogMessage("back"); }), testing::HasSubstr(" back\n"));
}

TEST(Log, ExceptionOfTheSinkPassesAndTheLogGoesOn) {
    VXC_SetLogSink([](const std::string&, void*) { throw std::runtime_error("sink"); }, nullptr);
    EXPECT_THROW(VXC_LogMessage("a"), std::runtime_error);
    EXPECT_THROW(VXC_LogMessage("b"), std::runtime_error);
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_THAT(StandardError([] { VXC_LogMessage("back"); }), testing::HasSubstr(" back\n"));
}

TEST(Log, ClosedStandardErrorIsIgnored) {
    CForkedChild child([] {
        close(STDERR_FILENO);
        VXC_LogMessage("nobody hears");
        return 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
