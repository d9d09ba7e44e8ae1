// The run records of the host: what one holds as text, and the file that they are kept in.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/CHostLog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include "base/CDescriptor.h"
#include "base/IsoTime.h"
#include "runs/CRunHistory.h"
#include "runs/RunRecord.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>

#include "HostProgram.h"
#include "Process.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::sys_seconds;

static constexpr char cHistory[] = "files/history.jsonl";
static constexpr char cOlder[] = "files/history.jsonl.1";

static TRunRecord Exited() {
    TRunRecord record;
    record.outcome = TRunRecord::cExited;
    record.task = "nightly";
    record.due = sys_seconds(seconds(1'700'000'000));
    record.program = "/bin/program";
    record.parameter = "--all";
    record.process = 4711;
    record.started = TMoment(milliseconds(1'700'000'001'250));
    record.ended = TMoment(milliseconds(1'700'000'003'007));
    record.number = 3;
    record.usage = {.user = std::chrono::microseconds(1'500'000),
                    .system = std::chrono::microseconds(250'000),
                    .peakMemory = 2048};
    return record;
}

// ---- One record
// ------------------------------------------------------------------------------------------------

TEST(RunRecord, OfAnExitHasTimesStatusAndUsage) {
    EXPECT_EQ(
        JsonLine(Exited()),
        R"({"version":1,"outcome":"exited","name":"nightly","due":"2023-11-14T22:13:20.000Z",)"
        R"("program":"/bin/program","parameter":"--all","started":"2023-11-14T22:13:21.250Z",)"
        R"("ended":"2023-11-14T22:13:23.007Z","status":3,"user":1.5,"system":0.25,)"
        R"("peakMemory":2048,"process":4711})"
        "\n");
}

TEST(RunRecord, OfADeathHasTheSignalInPlaceOfTheStatus) {
    TRunRecord record = Exited();
    record.outcome = TRunRecord::cKilled;
    record.number = 9;
    const std::string line = JsonLine(record);
    EXPECT_NE(line.find(R"("outcome":"killed")"), std::string::npos) << line;
    EXPECT_NE(line.find(R"("signal":9,"user":1.5)"), std::string::npos) << line;
    EXPECT_EQ(line.find("status"), std::string::npos) << line;
}

TEST(RunRecord, OfAFailedStartHasTheErrorAndNoProcess) {
    TRunRecord record = Exited();
    record.outcome = TRunRecord::cNotStarted;
    record.process = 0;
    record.ended = record.started;
    record.error = "No such file or directory";
    EXPECT_EQ(JsonLine(record),
              R"({"version":1,"outcome":"not started","name":"nightly",)"
              R"("due":"2023-11-14T22:13:20.000Z","program":"/bin/program","parameter":"--all",)"
              R"("started":"2023-11-14T22:13:21.250Z","ended":"2023-11-14T22:13:21.250Z",)"
              R"("error":"No such file or directory"})"
              "\n");
}

TEST(RunRecord, OfAMissedStartSaysWhatBecameOfTheTask) {
    TRunRecord record;
    record.task = "nightly";
    record.due = sys_seconds(seconds(0));
    record.program = "/bin/program";
    record.outcome = TRunRecord::cMovedOn;
    EXPECT_EQ(
        JsonLine(record),
        R"({"version":1,"outcome":"missed","name":"nightly","due":"1970-01-01T00:00:00.000Z",)"
        R"("task":"moved on","program":"/bin/program","parameter":""})"
        "\n");
    record.outcome = TRunRecord::cRemovedUnrun;
    EXPECT_NE(JsonLine(record).find(R"("task":"removed unrun")"), std::string::npos);
}

TEST(RunRecord, OfAProgramLeftRunningHasNoEnd) {
    TRunRecord record = Exited();
    record.outcome = TRunRecord::cLeftRunning;
    record.ended.reset();
    EXPECT_EQ(JsonLine(record),
              R"({"version":1,"outcome":"left running","name":"nightly",)"
              R"("due":"2023-11-14T22:13:20.000Z","program":"/bin/program","parameter":"--all",)"
              R"("started":"2023-11-14T22:13:21.250Z","process":4711})"
              "\n");
}

TEST(RunRecord, WhatCannotBeToldIsNull) {
    TRunRecord record = Exited();
    record.task.reset();
    record.due.reset();
    EXPECT_NE(JsonLine(record).find(R"("name":null,"due":null)"), std::string::npos);
    // No calendar has the year.
    record.due = sys_seconds(seconds(std::numeric_limits<std::int64_t>::max()));
    EXPECT_NE(JsonLine(record).find(R"("due":null)"), std::string::npos);
}

TEST(RunRecord, StaysOneLineOfJsonWhateverItsTextsHold) {
    TRunRecord record = Exited();
    record.task = "line\nbreak \"quoted\" \\ and \xC3\xA4 and \xFF";
    EXPECT_NE(JsonLine(record).find("\"name\":\"line\\nbreak \\\"quoted\\\" \\\\ and "
                                    "\xC3\xA4 and \xEF\xBF\xBD\""),
              std::string::npos)
        << JsonLine(record);
    EXPECT_EQ(JsonLine(record).find('\n'), JsonLine(record).size() - 1);
}

// ---- Read back ----------------------------------------------------------------------------------

TEST(RunRecord, IsReadBackAsItWasWritten) {
    for (const TRunRecord::EOutcome outcome :
         {TRunRecord::cExited, TRunRecord::cKilled, TRunRecord::cUnknown, TRunRecord::cLeftRunning,
          TRunRecord::cNotStarted, TRunRecord::cMovedOn, TRunRecord::cRemovedUnrun}) {
        TRunRecord record = Exited();
        record.outcome = outcome;
        record.error = outcome == TRunRecord::cNotStarted ? "No such file" : "";
        if (outcome != TRunRecord::cExited && outcome != TRunRecord::cKilled) {
            record.number = 0;
            record.usage = {};
        }
        EXPECT_EQ(ReadJsonLine(JsonLine(record)), record) << JsonLine(record);
        record.task.reset();
        record.due.reset();
        record.started.reset();
        record.ended.reset();
        record.process = 0;
        EXPECT_EQ(ReadJsonLine(JsonLine(record)), record) << JsonLine(record);
    }
}

TEST(RunRecord, TextsThatAreNotUnicodeAreReadAsTheyWereRecorded) {
    TRunRecord record = Exited();
    record.task = "caf\xE9";
    EXPECT_EQ(ReadJsonLine(JsonLine(record))->task, RecordedText("caf\xE9"));
    EXPECT_EQ(RecordedText("caf\xE9"), "caf\xEF\xBF\xBD");
    EXPECT_EQ(RecordedText("\xC3\xA4\n\""), "\xC3\xA4\n\"");
}

TEST(RunRecord, FieldsOfALaterHostArePassedOver) {
    std::string line = JsonLine(Exited());
    line.replace(line.find('}'), 1, R"(,"more":[1,2]})");
    EXPECT_EQ(ReadJsonLine(line), Exited());
}

TEST(RunRecord, NothingElseIsReadAsOne) {
    const std::string line = JsonLine(Exited());
    for (std::size_t length = 0; length < line.size() - 1; ++length)
        ASSERT_EQ(ReadJsonLine(line.substr(0, length)), std::nullopt) << length;
    for (const char* other : {"null", "[]", "1", "{}", R"({"version":1})"})
        EXPECT_EQ(ReadJsonLine(other), std::nullopt) << other;
    std::string version = line;
    version.replace(version.find("1"), 1, "2");
    EXPECT_EQ(ReadJsonLine(version), std::nullopt);
    std::string kind = line;
    kind.replace(kind.find("\"/bin/program\""), 14, "7");
    EXPECT_EQ(ReadJsonLine(kind), std::nullopt);
}

TEST(Times, AreReadBackAsTheyWereWritten) {
    for (const std::int64_t number : {0LL, -1LL, 951'782'400'005LL, -62'200'000'000'123LL,
                                      253'402'300'800'000LL, 9'000'000'000'000'000LL}) {
        const TMoment moment{milliseconds(number)};
        EXPECT_EQ(ReadUtcTime(UtcTime(moment)), moment) << UtcTime(moment);
    }
    for (const char* other :
         {"", "2026", "2026-11-20T13:30:05.123", "2026-11-20T13:30:05Z", "2026-13-20T13:30:05.123Z",
          "2026-11-20T13:30:05.123Zx", "99999999999999-11-20T13:30:05.123Z"})
        EXPECT_EQ(ReadUtcTime(other), std::nullopt) << other;
}

TEST(Times, AreWrittenInUtcWithMilliseconds) {
    EXPECT_EQ(UtcTime(TMoment(milliseconds(-1))), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(UtcTime(TMoment(milliseconds(951'782'400'005))), "2000-02-29T00:00:00.005Z");
}

TEST(Times, LocalOnesHaveTheirOffset) {
    setenv("TZ", "Asia/Kolkata", 1);
    tzset();
    EXPECT_EQ(LocalTime(TMoment(milliseconds(951'782'400'005))), "2000-02-29T05:30:00.005+05:30");
    setenv("TZ", "America/St_Johns", 1);
    tzset();
    EXPECT_EQ(LocalTime(TMoment(milliseconds(951'782'400'005))), "2000-02-28T20:30:00.005-03:30");
    unsetenv("TZ");
    tzset();
}

// ---- The log
// ---------------------------------------------------------------------------------------------------

TEST(HostLog, LinesThatNobodyTakesAreCountedAndKeepNobodyWaiting) {
    CForkedChild child([] {
        int ends[2];
        if (pipe2(ends, O_NONBLOCK) != 0)
            return 1;
        const std::string block(4096, 'x');
        while (write(ends[1], block.data(), block.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDERR_FILENO);
        for (const char* const line : {"one", "two", "three"})
            LogInfo(line);
        const auto takeAll = [&] {
            std::string all(1 << 20, '\0');
            const ssize_t count = read(ends[0], all.data(), all.size());
            all.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
            return all;
        };
        takeAll();
        LogInfo("four");
        const std::string lines = takeAll();
        return lines.find("vxschedd: 3 line(s) lost") < lines.find("vxschedd: four\n") ? 42 : 2;
    });
    EXPECT_EQ(child.Wait(), 42);
}

// ---- The file
// --------------------------------------------------------------------------------------------------

class RunHistory : public testing::Test {
protected:
    RunHistory() {
        std::filesystem::create_directory("files");
        std::filesystem::remove(cHistory);
        std::filesystem::remove(cOlder);
    }
    static std::string NumberedLine(int number) { return JsonLine(Numbered(number)); }
    static TRunRecord Numbered(int number) {
        TRunRecord record = Exited();
        record.process = 1000 + number;
        return record;
    }
};

TEST_F(RunHistory, KeepsALineARecordInTheirOrder) {
    CRunHistory history(1 << 20, LogWarning);
    history.Add(Numbered(1));
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1) + NumberedLine(2));
    EXPECT_FALSE(std::filesystem::exists(cOlder));
}

TEST_F(RunHistory, IsMovedAwayBeforeItWouldOutgrowItsSize) {
    CRunHistory history(2 * NumberedLine(1).size(), LogWarning);
    for (int number = 1; number <= 5; ++number)
        history.Add(Numbered(number));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(5));
    EXPECT_EQ(ReadFile(cOlder), NumberedLine(3) + NumberedLine(4));
}

TEST_F(RunHistory, RecordLargerThanTheSizeIsKeptAlone) {
    CRunHistory history(10, LogWarning);
    history.Add(Numbered(1));
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(2));
    EXPECT_EQ(ReadFile(cOlder), NumberedLine(1));
}

TEST_F(RunHistory, SizeOfZeroKeepsNone) {
    CRunHistory history(0, LogWarning);
    history.Add(Numbered(1));
    EXPECT_FALSE(std::filesystem::exists(cHistory));
}

TEST_F(RunHistory, MovedAwayItBeginsAnew) {
    CRunHistory history(1 << 20, LogWarning);
    history.Add(Numbered(1));
    std::filesystem::rename(cHistory, "files/saved");
    history.Add(Numbered(2));
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(2));
}

TEST_F(RunHistory, RecordThatDoesNotFitLeavesNoHalfOfItselfAndIsLogged) {
    CRunHistory history(1 << 20, LogWarning);
    history.Add(Numbered(1));
    CForkedChild child([] {
        CHostLog::Instance().WriteTo("log");
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{.rlim_cur = NumberedLine(1).size() + 10, .rlim_max = RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
        CRunHistory(1 << 20, LogWarning).Add(Numbered(2));
        return 0;
    });
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(ReadFile(cHistory), NumberedLine(1));
    EXPECT_NE(ReadFile("log").find("cannot write to files/history.jsonl: "), std::string::npos);
}

TEST_F(RunHistory, PipeInItsPlaceTakesNoRecordAndIsNotWaitedFor) {
    ASSERT_EQ(mkfifo(cHistory, 0644), 0);
    CForkedChild child([] {
        CHostLog::Instance().WriteTo("log of a pipe");
        CRunHistory(1 << 20, LogWarning).Add(Numbered(1));
        const CDescriptor reader(open(cHistory, O_RDONLY | O_NONBLOCK));
        CRunHistory(1 << 20, LogWarning).Add(Numbered(2));
        char byte = 0;
        return read(reader.Get(), &byte, 1) == 1 ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
    const std::string log = ReadFile("log of a pipe");
    EXPECT_NE(log.find("files/history.jsonl: it is no file, or a pipe that nobody reads; lost"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("files/history.jsonl: it is no file; lost"), std::string::npos) << log;
}
