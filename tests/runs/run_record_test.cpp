// Run records: their lines of JSON, and reading these back.

#include <gtest/gtest.h>
#include "runs/RunRecord.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "ExitedRun.h"

using std::chrono::seconds;
using std::chrono::sys_seconds;

// ---- One record -------------------------------------------------------------------------------

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

TEST(RunRecord, OfAFailedLaunchHasTheErrorAndNoProcess) {
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

TEST(RunRecord, OfAMissedDueTimeHasWhatBecameOfTheTask) {
    TRunRecord record;
    record.task = "nightly";
    record.due = sys_seconds(seconds(0));
    record.program = "/bin/program";
    record.outcome = TRunRecord::cRescheduled;
    EXPECT_EQ(
        JsonLine(record),
        R"({"version":1,"outcome":"missed","name":"nightly","due":"1970-01-01T00:00:00.000Z",)"
        R"("task":"rescheduled","program":"/bin/program","parameter":""})"
        "\n");
    record.outcome = TRunRecord::cRemoved;
    EXPECT_NE(JsonLine(record).find(R"("task":"removed")"), std::string::npos);
    record.outcome = TRunRecord::cLaunchUnknownRemoved;
    EXPECT_NE(JsonLine(record).find(R"("outcome":"launch unknown",)"), std::string::npos);
    EXPECT_NE(JsonLine(record).find(R"("task":"removed")"), std::string::npos);
}

// A terminal that shows the file obeys nothing in it.
TEST(RunRecord, HasNoControlCharacterInItsLine) {
    TRunRecord record = Exited();
    record.task = "\u0080 \u009b \u009f \x7f \033 \n \u202e \u2028 \u00e4";
    const std::string line = JsonLine(record);
    EXPECT_NE(line.find(R"("\u0080 \u009b \u009f \u007f \u001b \n \u202e \u2028 )"
                        "\u00e4\""),
              std::string::npos)
        << line;
    EXPECT_EQ(ReadJsonLine(line), record);
}

// As former versions wrote it.
TEST(RunRecord, WithRawControlCharactersIsRead) {
    TRunRecord record = Exited();
    record.task = "\u009b \u202e";
    std::string line = JsonLine(Exited());
    line.replace(line.find("nightly"), 7, *record.task);
    EXPECT_EQ(ReadJsonLine(line), record);
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

TEST(RunRecord, UnknownTaskAndDueTimeAreNull) {
    TRunRecord record = Exited();
    record.task.reset();
    record.due.reset();
    EXPECT_NE(JsonLine(record).find(R"("name":null,"due":null)"), std::string::npos);
    // The year exceeds the range of int.
    record.due = sys_seconds(seconds(std::numeric_limits<std::int64_t>::max()));
    EXPECT_NE(JsonLine(record).find(R"("due":null)"), std::string::npos);
}

TEST(RunRecord, OfALaunchWithoutARunnerHasIdTriggerAndAttempt) {
    TRunRecord record = Exited();
    record.id = "20231114T221321.250Z-4700";
    record.trigger = cCaughtUp;
    record.attempt = 1;
    const std::string line = JsonLine(record);
    EXPECT_TRUE(line.ends_with(R"("run":"20231114T221321.250Z-4700","trigger":"catch-up",)"
                               R"("attempt":1})"
                               "\n"))
        << line;
    EXPECT_EQ(ReadJsonLine(line), record);
}

TEST(RunRecord, OfAMissedDueTimeHasNoAttempt) {
    TRunRecord record;
    record.outcome = TRunRecord::cRescheduled;
    record.id = MakeOwnRunId();
    record.trigger = cScheduled;
    EXPECT_EQ(JsonLine(record).find("attempt"), std::string::npos);
    EXPECT_EQ(ReadJsonLine(JsonLine(record)), record);
}

TEST(RunRecord, OfAJobThatExceededItsTimeLimitHasThat) {
    TRunRecord record = Exited();
    record.timeLimit = seconds(7200);
    record.success = false;
    const std::string line = JsonLine(record);
    EXPECT_NE(line.find(R"("status":3,"success":false,"timeLimit":7200,"user":1.5)"),
              std::string::npos)
        << line;
    EXPECT_EQ(ReadJsonLine(line), record);
}

TEST(RunRecord, OfASkippedLaunchNamesTheRunThatIsUnderWay) {
    TRunRecord record = Exited();
    record.process = 0;
    record.number = 0;
    record.usage = {};
    record.attempt = 1;
    record.id = "20231114T221321.250Z-4700";
    RecordSkipped(record, "20231114T221221.250Z-4699");
    EXPECT_EQ(record.ended, record.started);
    const std::string line = JsonLine(record);
    EXPECT_NE(line.find(R"("outcome":"skipped")"), std::string::npos) << line;
    EXPECT_NE(line.find(R"("underWay":"20231114T221221.250Z-4699")"), std::string::npos) << line;
    EXPECT_EQ(line.find("attempt"), std::string::npos) << line;
    EXPECT_EQ(ReadJsonLine(line), record);
}

TEST(RunRecord, IdsOfOneProcessAreInOrderAndUnique) {
    std::string former;
    for (int number = 0; number < 1000; ++number) {
        const std::string id = MakeOwnRunId();
        EXPECT_GT(id, former);
        former = id;
    }
}

// As after a stop of the host, a suspend, or a clock that was set.
TEST(RunRecord, LaunchOfADueTimeBeforeTheHostOrLongPastIsCaughtUp) {
    const sys_seconds due(seconds(1000));
    const auto at = [](int milliseconds) {
        return TMoment(std::chrono::milliseconds(milliseconds));
    };
    EXPECT_STREQ(TriggerOf(due, at(1'000'100), at(900'000)), cScheduled);
    EXPECT_STREQ(TriggerOf(due, at(1'060'000), at(900'000)), cScheduled);
    EXPECT_STREQ(TriggerOf(due, at(1'060'001), at(900'000)), cCaughtUp);
    EXPECT_STREQ(TriggerOf(due, at(1'001'500), at(1'000'999)), cScheduled);
    EXPECT_STREQ(TriggerOf(due, at(1'001'500), at(1'001'000)), cCaughtUp);
}

TEST(RunRecord, StaysOneLineOfJsonWhateverItsStringsHold) {
    TRunRecord record = Exited();
    record.task = "line\nbreak \"quoted\" \\ and \xC3\xA4 and \xFF";
    EXPECT_NE(JsonLine(record).find("\"name\":\"line\\nbreak \\\"quoted\\\" \\\\ and "
                                    "\xC3\xA4 and \xEF\xBF\xBD\""),
              std::string::npos)
        << JsonLine(record);
    EXPECT_EQ(JsonLine(record).find('\n'), JsonLine(record).size() - 1);
}

// ---- Read back --------------------------------------------------------------------------------

TEST(RunRecord, IsReadBackAsItWasWritten) {
    for (const TRunRecord::EOutcome outcome :
         {TRunRecord::cExited, TRunRecord::cKilled, TRunRecord::cUnknown, TRunRecord::cLeftRunning,
          TRunRecord::cNotStarted, TRunRecord::cRescheduled, TRunRecord::cRemoved,
          TRunRecord::cLaunchUnknownRescheduled, TRunRecord::cLaunchUnknownRemoved}) {
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

TEST(RunRecord, StringsThatAreNotUnicodeAreReadAsTheyWereRecorded) {
    TRunRecord record = Exited();
    record.task = "caf\xE9";
    EXPECT_EQ(ReadJsonLine(JsonLine(record))->task, AsRecorded("caf\xE9"));
    EXPECT_EQ(AsRecorded("caf\xE9"), "caf\xEF\xBF\xBD");
    EXPECT_EQ(AsRecorded("\xC3\xA4\n\""), "\xC3\xA4\n\"");
}

TEST(RunRecord, FieldsOfALaterHostAreSkipped) {
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
