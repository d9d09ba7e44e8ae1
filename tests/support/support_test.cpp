// The smaller parts of the support library: pipes, the log, information flags, check sums, paths.

#include <CPopen.h>
#include <VXC_CRC32.h>
#include <VXC_File.h>
#include <VXC_Information.h>
#include <VXC_Log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Process.h"

// ---- Pipes
// ---------------------------------------------------------------------------------------------------------

static std::string ReadFrom(const char* command, int size = 1024) {
    CPopen pipe(command, "r");
    std::string buffer(static_cast<std::size_t>(size), '#');
    const int count = pipe.Read(buffer.data(), size);
    const std::string text = buffer.c_str();
    EXPECT_EQ(static_cast<std::size_t>(count), text.size());
    return text;
}

TEST(Popen, OutputIsATerminatedText) {
    EXPECT_EQ(ReadFrom("echo hello"), "hello\n");
    EXPECT_EQ(ReadFrom("echo one; echo two"), "one\ntwo\n");
}

TEST(Popen, NoOutputIsAnEmptyText) {
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

TEST(Popen, PipeThatCannotBeMadeIsNotValidAndReadsAsAnEmptyText) {
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
    for (int round = 0; round < 20; ++round) {
        const int before = gSignals;
        pthread_kill(reader.native_handle(), SIGUSR1);
        WaitUntil([&] { return gSignals > before; });
    }
    WriteFile("go", "hello");
    reader.join();
    EXPECT_EQ(text, "hello");
}

// ---- The log
// --------------------------------------------------------------------------------------------------------------

static int gWrites = 0;
static int gInterruptions = 0;  // writes to standard error that fail first

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

// What is written to standard error meanwhile.
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
    const std::string text = StandardError([] { VXC_LogMessage("whole"); });
    EXPECT_TRUE(text.ends_with(" whole\n")) << text;
    EXPECT_EQ(gInterruptions, 0);
}

TEST(Log, ZonesBehindHaveAMinus) {
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
    const std::string text = StandardError([] {
        std::vector<std::thread> threads;
        for (char name = 'a'; name < 'e'; ++name)
            threads.emplace_back([name] {
                for (int round = 0; round < 200; ++round)
                    VXC_LogMessage(std::string(100, name));
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    std::size_t lines = 0;
    for (std::size_t position = 0; position < text.size(); ++lines) {
        const std::size_t end = text.find('\n', position);
        const std::string message = text.substr(end - 100, 100);
        ASSERT_EQ(message, std::string(100, message[0]));
        ASSERT_EQ(text[end - 101], ' ');
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

// ---- Information
// -------------------------------------------------------------------------------------------------------------

TEST(Information, FlagIsReadBackAndAnUnknownOneLeavesTheValue) {
    int value = 7;
    EXPECT_FALSE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 7);
    VXC_SetInformation("flag", 1);
    VXC_SetInformation("other", -5);
    EXPECT_FALSE(VXC_GetInformation("Flag", value));
    EXPECT_TRUE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 1);
    VXC_SetInformation("flag", 0);
    EXPECT_TRUE(VXC_GetInformation("flag", value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(VXC_GetInformation("other", value));
    EXPECT_EQ(value, -5);
}

TEST(Information, ListenerIsToldOfEverySetUntilItIsReplaced) {
    std::vector<std::string> told;
    const auto listener = [](const std::string& name, int value, void* context) {
        static_cast<std::vector<std::string>*>(context)->push_back(name + '=' +
                                                                   std::to_string(value));
    };
    VXC_SetInformationListener(listener, &told);
    VXC_SetInformation("a", 1);
    VXC_SetInformation("a", 1);
    std::vector<std::string> others;
    VXC_SetInformationListener(listener, &others);
    VXC_SetInformation("b", 2);
    VXC_SetInformationListener(nullptr, nullptr);
    VXC_SetInformation("c", 3);
    EXPECT_EQ(told, std::vector<std::string>({"a=1", "a=1"}));
    EXPECT_EQ(others, std::vector<std::string>({"b=2"}));
}

TEST(Information, ExceptionOfTheListenerPassesWithTheFlagSet) {
    VXC_SetInformationListener(
        [](const std::string&, int, void*) { throw std::runtime_error("listener"); }, nullptr);
    EXPECT_THROW(VXC_SetInformation("a", 1), std::runtime_error);
    VXC_SetInformationListener(nullptr, nullptr);
    int value = 0;
    EXPECT_TRUE(VXC_GetInformation("a", value));
    EXPECT_EQ(value, 1);
}

TEST(Information, ThreadsMaySetAtTheSameTime) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([index] {
            for (int round = 0; round <= 200; ++round)
                VXC_SetInformation("flag " + std::to_string((index * 50 + round) % 7), round);
            VXC_SetInformation("thread " + std::to_string(index), index);
        });
    for (std::thread& thread : threads)
        thread.join();
    for (int index = 0; index < 4; ++index) {
        int value = -1;
        EXPECT_TRUE(VXC_GetInformation("thread " + std::to_string(index), value));
        EXPECT_EQ(value, index);
    }
}

// ---- Check sums
// --------------------------------------------------------------------------------------------------------------

TEST(CheckSum, IsTheCommonCrc32) {
    EXPECT_EQ(VXC_GenerateCRC32("123456789"), 0xCBF43926U);
    EXPECT_EQ(VXC_GenerateCRC32(""), 0U);
    EXPECT_EQ(VXC_GenerateCRC32("a"), 0xE8B7BE43U);
    EXPECT_EQ(VXC_GenerateCRC32(std::string(4, '\0')), 0x2144DF1CU);
    EXPECT_EQ(VXC_GenerateCRC32(std::string(4, '\xff')), 0xFFFFFFFFU);
    EXPECT_EQ(VXC_GenerateCRC32("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
    EXPECT_EQ(VXC_GenerateCRC32("Global\\1D1F6415-69BD-4438-B706-07D710576930"), 0xBC991DFBU);
}

// ---- Paths
// --------------------------------------------------------------------------------------------------------------------

struct TPath {
    const char* path;
    const char* directory;
    const char* name;
    const char* extension;  // null: left untouched
};
void PrintTo(const TPath& path, std::ostream* out) {
    *out << '"' << path.path << '"';
}

class Paths : public testing::TestWithParam<TPath> {};

TEST_P(Paths, AreSplit) {
    const TPath& path = GetParam();
    std::string directory(std::strlen(path.path) + 1, '#');
    std::array<char, VXC_File::cNameCapacity> name;
    std::array<char, VXC_File::cExtensionCapacity> extension;
    std::strcpy(extension.data(), "untouched");
    VXC_File::VXC_StripPathUrl(path.path, directory.data(), name.data(), extension.data());
    EXPECT_STREQ(directory.c_str(), path.directory);
    EXPECT_STREQ(name.data(), path.name);
    EXPECT_STREQ(extension.data(), path.extension == nullptr ? "untouched" : path.extension);
    VXC_File::VXC_StripPathUrl(path.path, nullptr, nullptr, nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Split, Paths,
    testing::Values(
        TPath{"/opt/tools/report.exe", "/opt/tools/", "report", ".exe"},
        TPath{"report.exe", "", "report", ".exe"}, TPath{"report", "", "report", nullptr},
        TPath{"C:\\tools\\report.EXE", "C:\\tools\\", "report", ".EXE"},
        TPath{"a\\b/c.d", "a\\b/", "c", ".d"}, TPath{"a/b\\c.d", "a/b\\", "c", ".d"},
        TPath{"a.tar.gz", "", "a.tar", ".gz"}, TPath{".profile", "", ".profile", nullptr},
        TPath{".profile.exe", "", ".profile", ".exe"}, TPath{"..exe", "", ".", ".exe"},
        TPath{"file.", "", "file.", nullptr}, TPath{"file.exe.", "", "file.exe.", nullptr},
        TPath{"..", "", "..", nullptr}, TPath{".", "", ".", nullptr}, TPath{"", "", "", nullptr},
        TPath{"/", "/", "", nullptr}, TPath{"/a.b/c", "/a.b/", "c", nullptr},
        TPath{"a.b\\c", "a.b\\", "c", nullptr}, TPath{"/a/b.c/", "/a/b.c/", "", nullptr},
        TPath{"http://host/a/page.html", "http://host/a/", "page", ".html"},
        TPath{"a b. c", "", "a b", ". c"}));

TEST(PathCapacity, NothingIsWrittenBeyondItHoweverLongThePath) {
    for (const std::size_t length : {126U, 127U, 128U, 254U, 255U, 256U, 257U, 1000U, 100'000U}) {
        const std::string path = "/" + std::string(length, 'n') + "." + std::string(length, 'e');
        std::array<char, 300> name;
        std::array<char, 300> extension;
        name.fill('#');
        extension.fill('#');
        VXC_File::VXC_StripPathUrl(path.c_str(), nullptr, name.data(), extension.data());
        EXPECT_EQ(name.data(), std::string(std::min<std::size_t>(length, 255), 'n'));
        EXPECT_EQ(extension.data(), "." + std::string(std::min<std::size_t>(length, 126), 'e'));
        EXPECT_EQ(std::string(name.data() + 256, 44), std::string(44, '#'));
        EXPECT_EQ(std::string(extension.data() + 128, 172), std::string(172, '#'));
    }
}
