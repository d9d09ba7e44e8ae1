// The file of the run history: its size limit, and records that cannot be written.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <list>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <utility>

#include "ExitedRun.h"
#include "FakeMonotonicClock.h"
#include "Process.h"
#include "base/CDescriptor.h"
#include "runs/CRunHistory.h"
#include "runs/RunRecord.h"

static constexpr char cHistory[] = "files/history.jsonl";
static constexpr char cOlder[] = "files/history.jsonl.1";

// Appends a warning to the file "log".
static void Warn(const std::string& message) {
    std::ofstream("log", std::ios::app) << message << '\n';
}

class RunHistory : public testing::Test {
protected:
    RunHistory() {
        std::filesystem::create_directory("files");
        std::filesystem::remove(cHistory);
        std::filesystem::remove(cOlder);
        std::filesystem::remove("log");
    }
    static std::string NumberedLine(int number) { return JsonLine(Numbered(number)); }
    static TRunRecord Numbered(int number) {
        TRunRecord record = Exited();
        record.process = 1000 + number;
        return record;
    }
};

TEST_F(RunHistory, KeepsALineARecordInTheirOrder) {
    CRunHistory history(1 << 20, Warn);
    history.Add(Numbered(1));
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1) + NumberedLine(2));
    EXPECT_FALSE(std::filesystem::exists(cOlder));
}

TEST_F(RunHistory, IsMovedAwayBeforeItWouldOutgrowItsSize) {
    CRunHistory history(2 * NumberedLine(1).size(), Warn);
    for (int number = 1; number <= 5; ++number)
        history.Add(Numbered(number));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(5));
    EXPECT_EQ(ReadFile(cOlder), NumberedLine(3) + NumberedLine(4));
}

TEST_F(RunHistory, RecordLargerThanTheSizeIsKeptAlone) {
    CRunHistory history(10, Warn);
    history.Add(Numbered(1));
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(2));
    EXPECT_EQ(ReadFile(cOlder), NumberedLine(1));
}

// Each line has the writer as its program, and its place in the writer's order as its process. Of the
// `count` lines of each writer, only first ones are gone.
static void ExpectLastLines(const std::string& lines, int count) {
    std::map<std::string, int> read;
    std::istringstream stream(lines);
    for (std::string line; std::getline(stream, line);) {
        const std::optional<TRunRecord> record = ReadJsonLine(line);
        ASSERT_TRUE(record) << line;
        const auto last = read.try_emplace(record->program, record->process - 1).first;
        ASSERT_EQ(record->process, ++last->second) << line;
    }
    for (const auto& [writer, last] : read)
        EXPECT_EQ(last, count) << writer;
}

// Processes that write at once. The history is rotated before it has more than `mostLines`.
static void WriteFromEightProcesses(int lines, std::size_t mostLines) {
    std::list<CForkedChild> writers;
    for (const char writer : std::string("12345678")) {
        writers.emplace_back([=] {
            TRunRecord record = Exited();
            record.program = writer;
            record.process = lines;
            CRunHistory history(mostLines * JsonLine(record).size(), Warn);
            for (record.process = 1; record.process <= lines; ++record.process)
                history.Add(record);
            return 0;
        });
    }
    for (CForkedChild& writer : writers)
        EXPECT_EQ(writer.Wait(), 0);
    EXPECT_FALSE(std::filesystem::exists("log")) << ReadFile("log");
}

TEST_F(RunHistory, LosesAndTearsNoLineOfEightProcesses) {
    WriteFromEightProcesses(12'500, 60'000);
    const std::string lines = ReadFile(cOlder) + ReadFile(cHistory);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 100'000);
    ExpectLastLines(lines, 12'500);
}

// Only older lines are gone.
TEST_F(RunHistory, IsRotatedByEightProcessesAtOnce) {
    WriteFromEightProcesses(500, 40);
    const std::string lines = ReadFile(cOlder) + ReadFile(cHistory);
    EXPECT_GT(std::count(lines.begin(), lines.end(), '\n'), 40);
    ExpectLastLines(lines, 500);
}

// How often a process has the history open.
static std::size_t OpenHistories(pid_t process) {
    std::size_t count = 0;
    const std::string directory = "/proc/" + std::to_string(process) + "/fd";
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::error_code closedMeanwhile;
        if (std::filesystem::read_symlink(entry, closedMeanwhile).filename() == "history.jsonl")
            ++count;
    }
    return count;
}

// A second rotation would drop the lines of the first.
TEST_F(RunHistory, IsRotatedOnceByEightProcessesThatFindItFull) {
    std::string full;
    for (int number = 1; number <= 9; ++number)
        full += NumberedLine(number);
    WriteFile(cHistory, full);
    const CDescriptor holder(open(cHistory, O_RDONLY));
    ASSERT_EQ(flock(holder.Get(), LOCK_EX), 0);
    std::list<CForkedChild> writers;
    for (int number = 11; number <= 18; ++number) {
        writers.emplace_back([&full, number] {
            return CRunHistory(full.size(), Warn).Add(Numbered(number)) ? 0 : 1;
        });
        // Besides the holder's; or it has waited for too long, and has written without the lock.
        WaitUntil(
            [&] { return OpenHistories(writers.back().Id()) == 2 || ReadFile(cHistory) != full; });
    }
    ASSERT_EQ(flock(holder.Get(), LOCK_UN), 0);
    for (CForkedChild& writer : writers)
        EXPECT_EQ(writer.Wait(), 0);
    const std::string lines = ReadFile(cOlder) + ReadFile(cHistory);
    EXPECT_EQ(lines.substr(0, full.size()), full);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 9 + 8);
}

// A process that is stopped while it writes.
TEST_F(RunHistory, LockThatIsNotReleasedIsWaitedForOnceAndKeepsNoRecordOut) {
    WriteFile(cHistory, NumberedLine(1));
    CDescriptor holder(open(cHistory, O_RDONLY));
    ASSERT_EQ(flock(holder.Get(), LOCK_EX), 0);
    CRunHistory history(NumberedLine(1).size(), Warn);
    const CFakeMonotonicClock clock;
    history.Add(Numbered(2));
    const auto waited = clock.slept;
    EXPECT_GE(waited, std::chrono::seconds(1));
    history.Add(Numbered(3));
    EXPECT_EQ(clock.slept, waited);
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1) + NumberedLine(2) + NumberedLine(3));
    holder = CDescriptor();
    history.Add(Numbered(4));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(4));
    EXPECT_FALSE(std::filesystem::exists("log")) << ReadFile("log");
}

// Whenever the writer has waited, its file has been rotated twice, and so removed.
TEST_F(RunHistory, RecordIsKeptHoweverOftenTheHistoryIsRotatedMeanwhile) {
    WriteFile(cHistory, "");
    CDescriptor holder;
    const auto rotate = [&] {
        std::filesystem::rename(cHistory, cOlder);
        CDescriptor next(open(cHistory, O_RDWR | O_CREAT | O_EXCL, 0600));
        ASSERT_EQ(flock(next.Get(), LOCK_EX), 0);
        holder = std::move(next);
    };
    rotate();
    CRunHistory history(1 << 20, Warn);
    CFakeMonotonicClock clock;
    int waits = 0;
    clock.onSleep = [&] {
        if (++waits < 500) {
            rotate();
            rotate();
        } else {
            holder = CDescriptor();
        }
    };
    EXPECT_TRUE(history.Add(Numbered(1)));
    EXPECT_EQ(ReadFile(cOlder) + ReadFile(cHistory), NumberedLine(1));
    EXPECT_FALSE(std::filesystem::exists("log"));
}

TEST_F(RunHistory, SizeOfZeroKeepsNone) {
    CRunHistory history(0, Warn);
    history.Add(Numbered(1));
    EXPECT_FALSE(std::filesystem::exists(cHistory));
}

TEST_F(RunHistory, MovedAwayItBeginsAnew) {
    CRunHistory history(1 << 20, Warn);
    history.Add(Numbered(1));
    std::filesystem::rename(cHistory, "files/saved");
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(2));
}

TEST_F(RunHistory, RecordIsNotJoinedToWhatAPowerFailureHasLeftOfALine) {
    WriteFile(cHistory, NumberedLine(1) + std::string(20, '\0'));
    CRunHistory history(1 << 20, Warn);
    history.Add(Numbered(2));
    history.Sync();
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1) + std::string(20, '\0') + '\n' + NumberedLine(2));
    EXPECT_FALSE(std::filesystem::exists("log"));
}

TEST_F(RunHistory, NorIfTheLockIsNotReleased) {
    WriteFile(cHistory, NumberedLine(1) + "{\"version\":1");
    const CDescriptor holder(open(cHistory, O_RDONLY));
    ASSERT_EQ(flock(holder.Get(), LOCK_EX), 0);
    CRunHistory history(1 << 20, Warn);
    const CFakeMonotonicClock clock;
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1) + "{\"version\":1\n" + NumberedLine(2));
}

TEST_F(RunHistory, RecordThatDoesNotFitLeavesNoHalfOfItselfAndIsLogged) {
    CRunHistory history(1 << 20, Warn);
    history.Add(Numbered(1));
    CForkedChild child([] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{.rlim_cur = NumberedLine(1).size() + 10, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        CRunHistory(1 << 20, Warn).Add(Numbered(2));
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1));
    EXPECT_NE(ReadFile("log").find("cannot write to files/history.jsonl: "), std::string::npos);
}

TEST_F(RunHistory, PipeInItsPlaceTakesNoRecordAndIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(cHistory, 0644), 0);
    CForkedChild child([] {
        CRunHistory(1 << 20, Warn).Add(Numbered(1));
        const CDescriptor reader(open(cHistory, O_RDONLY | O_NONBLOCK));
        CRunHistory(1 << 20, Warn).Add(Numbered(2));
        char byte = 0;
        return read(reader.Get(), &byte, 1) == 1 ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    const std::string log = ReadFile("log");
    EXPECT_NE(log.find("files/history.jsonl: it is not a file, or a FIFO without a reader; lost"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("files/history.jsonl: it is not a file; lost"), std::string::npos) << log;
}
