// The file of a run's output: what it keeps, and what a reader gets of it meanwhile.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "ClientError.h"
#include "Process.h"
#include "runs/COutputFile.h"
#include "runs/COutputReader.h"

static constexpr char cPath[] = "output";

using vxsched::COutputReader;

// The output from byte `begin` on: each byte depends on its number only.
static std::string Pattern(std::uint64_t begin, std::uint64_t end) {
    std::string bytes;
    for (std::uint64_t number = begin; number < end; ++number)
        bytes += static_cast<char>('a' + (number / 7 + number) % 26);
    return bytes;
}

static std::string ReadAll(COutputReader& reader) {
    std::string all;
    for (std::string bytes = reader.Next(); !bytes.empty(); bytes = reader.Next())
        all += bytes;
    return all;
}

static std::string ReadAll() {
    COutputReader reader(cPath);
    return ReadAll(reader);
}

class OutputFile : public testing::Test {
protected:
    OutputFile() { std::filesystem::remove(cPath); }
};

TEST_F(OutputFile, KeepsTheWholeOutputAsPlainText) {
    COutputFile file(cPath, 100);
    EXPECT_EQ(ReadAll(), "");
    file.Append("one\n");
    file.Append("");
    file.Append("two\n");
    EXPECT_EQ(ReadAll(), "one\ntwo\n");
    EXPECT_EQ(file.Count(), 8U);
    EXPECT_EQ(file.Error(), "");
    const std::string content = ReadFile(cPath);
    EXPECT_EQ(content.substr(content.find('\n') + 1), "one\ntwo\n");
}

TEST_F(OutputFile, KeepsTheLastBytesHoweverManyAreWritten) {
    for (const std::size_t step : {1U, 3U, 10U, 11U, 25U, 1000U}) {
        std::filesystem::remove(cPath);
        COutputFile file(cPath, 10);
        std::uint64_t count = 0;
        while (count < 1000) {
            file.Append(Pattern(count, count + step));
            count += step;
            ASSERT_EQ(ReadAll(), Pattern(count > 10 ? count - 10 : 0, count)) << step;
            ASSERT_LE(std::filesystem::file_size(cPath), cOutputHeaderSize + 10);
        }
        EXPECT_EQ(file.Count(), count);
    }
}

TEST_F(OutputFile, ReaderGetsWhatIsNewAndHowMuchWasLostMeanwhile) {
    COutputFile file(cPath, 10);
    COutputReader reader(cPath);
    file.Append(Pattern(0, 6));
    EXPECT_EQ(ReadAll(reader), Pattern(0, 6));
    file.Append(Pattern(6, 12));
    EXPECT_EQ(ReadAll(reader), Pattern(6, 12));
    EXPECT_EQ(reader.Lost(), 0U);
    file.Append(Pattern(12, 40));
    EXPECT_EQ(reader.Next(), Pattern(30, 40));
    EXPECT_EQ(reader.Lost(), 18U);
    EXPECT_EQ(reader.Next(), "");
    EXPECT_EQ(reader.Lost(), 0U);
}

// The writer overwrites what the reader is about to read, again and again.
TEST_F(OutputFile, ReaderGetsNoByteThatIsBeingOverwritten) {
    constexpr std::uint64_t cEnd = 3'000'000;
    COutputFile file(cPath, 10'000);
    std::atomic<bool> isReading{false};
    std::thread writer([&] {
        while (!isReading)
            std::this_thread::yield();
        for (std::uint64_t count = 0; count < cEnd; count += 1'000)
            file.Append(Pattern(count, count + 1'000));
    });
    COutputReader reader(cPath);
    std::uint64_t next = 0;
    isReading = true;
    while (next < cEnd) {
        const std::string bytes = reader.Next();
        next += reader.Lost();
        ASSERT_EQ(bytes, Pattern(next, next + bytes.size())) << next;
        next += bytes.size();
    }
    writer.join();
    EXPECT_EQ(next, cEnd);
}

TEST_F(OutputFile, IsForItsOwnerAloneWhateverTheUmask) {
    CForkedChild child([] {
        umask(0777);
        COutputFile(cPath, 10).Append("secret");
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    struct stat status {};
    ASSERT_EQ(stat(cPath, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(OutputFile, OverwritesNothingThatExists) {
    WriteFile("other", "kept");
    std::filesystem::create_symlink("other", cPath);
    COutputFile file(cPath, 10);
    file.Append("output");
    EXPECT_EQ(file.Error(), "File exists");
    EXPECT_EQ(file.Count(), 6U);
    EXPECT_EQ(ReadFile("other"), "kept");
    std::filesystem::remove(cPath);
    ASSERT_EQ(mkfifo(cPath, 0600), 0);
    EXPECT_EQ(COutputFile(cPath, 10).Error(), "File exists");
    EXPECT_NE(ErrorOf(vxsched::EError::cFailed, [] { COutputReader reader(cPath); }), "");
}

TEST_F(OutputFile, KeepsWhatThereWasRoomForAndCountsTheOthers) {
    CForkedChild child([] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{.rlim_cur = cOutputHeaderSize + 15, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        COutputFile file(cPath, 100);
        file.Append("0123456789");
        file.Append("0123456789");
        file.Append("012");
        return file.Count() == 23 && file.Error() == "File too large" ? 42 : 1;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(ReadAll(), "0123456789");
}

// Its writer was killed while it overwrote the oldest bytes.
TEST_F(OutputFile, OfAKilledWriterHasTheBytesThatWereNotBeingOverwritten) {
    WriteFile(cPath, EncodeOutputHeader({.size = 10, .written = 12, .claimed = 15}) + "klXXXfghij");
    EXPECT_EQ(ReadAll(), "fghijkl");
}

TEST_F(OutputFile, ThatIsNoneOrDamagedIsRefused) {
    const std::string good = EncodeOutputHeader({.size = 10, .written = 3, .claimed = 3});
    ASSERT_EQ(good.size(), cOutputHeaderSize);
    for (const std::string& header :
         {std::string(), std::string("text\n"), good.substr(1), good.substr(0, 100),
          EncodeOutputHeader({.size = 0, .written = 3, .claimed = 3}),
          EncodeOutputHeader({.size = 10, .written = 3, .claimed = 2}),
          std::string(cOutputHeaderSize, '9'), std::string(cOutputHeaderSize, '\0')}) {
        WriteFile(cPath, header + "abc");
        EXPECT_NE(ErrorOf(vxsched::EError::cFailed, [] { ReadAll(); }), "") << header;
    }
    WriteFile(cPath, EncodeOutputHeader({.size = 10, .written = 8, .claimed = 8}) + "cut");
    EXPECT_EQ(ReadAll(), "cut");
}
