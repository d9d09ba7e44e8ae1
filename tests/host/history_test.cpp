// What a real host records of real programs, and of tasks that were due while no host ran.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "HostProgram.h"
#include "StoreSemaphore.h"
#include "Tool.h"

using TJson = nlohmann::json;

static constexpr char cHistory[] = "files/history.jsonl";
static constexpr std::uint32_t cNever = 0;

static std::vector<TJson> Records() {
    std::ifstream file(cHistory);
    std::vector<TJson> records;
    for (std::string line; std::getline(file, line);)
        records.push_back(TJson::parse(line));
    return records;
}

static std::vector<TJson> RecordsOnceThereAre(std::size_t count) {
    WaitUntil([&] { return Records().size() >= count; });
    return Records();
}

// A repeating task that has been due for five seconds.
static TRow Due(const std::string& name, const std::string& program, const std::string& parameter) {
    return {name, std::time(nullptr) - 5, cNever, 1, program, parameter, 0};
}

static std::string Utc(std::int64_t seconds) {
    const time_t time = seconds;
    char iso[64];
    std::strftime(iso, sizeof iso, "%FT%T.000Z", std::gmtime(&time));
    return iso;
}

TEST(HostHistory, EachRunIsALineWithItsOutcome) {
    CHost host;
    const TRows rows = {Due("fails", PROGRAMS "/end-with", "status 3"),
                        Due("killed", PROGRAMS "/end-with", "signal 9"),
                        Due("missing", "/no/such/program/at-all", "p")};
    ReplaceTable(rows);
    WakeWorker();
    std::vector<TJson> records = RecordsOnceThereAre(3);
    ASSERT_EQ(records.size(), 3U);
    std::sort(records.begin(), records.end(), [](const TJson& one, const TJson& other) {
        return one.at("name") < other.at("name");
    });
    for (std::size_t index = 0; index < 3; ++index) {
        const TJson& record = records[index];
        EXPECT_EQ(record.at("version"), 1);
        EXPECT_EQ(record.at("name"), rows[index].name);
        EXPECT_EQ(record.at("program"), rows[index].program);
        EXPECT_EQ(record.at("parameter"), rows[index].parameters);
        EXPECT_EQ(record.at("due"), Utc(rows[index].next));
        EXPECT_LT(record.at("due"), record.at("started")) << "ISO times sort as strings";
        EXPECT_LE(record.at("started"), record.at("ended"));
    }
    EXPECT_EQ(records[0].at("outcome"), "exited");
    EXPECT_EQ(records[0].at("status"), 3);
    EXPECT_GT(records[0].at("process"), 1);
    EXPECT_EQ(records[1].at("outcome"), "killed");
    EXPECT_EQ(records[1].at("signal"), 9);
    EXPECT_EQ(records[2].at("outcome"), "not started");
    EXPECT_EQ(records[2].at("error"), "No such file or directory");
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostHistory, UsageOfARunIsRecordedAndLogged) {
    CHost host;
    CreateDue("busy", PROGRAMS "/use-resources", "use 30 64");
    const TJson record = RecordsOnceThereAre(1).at(0);
    EXPECT_EQ(record.at("status"), 0);
    EXPECT_GE(record.at("user").get<double>() + record.at("system").get<double>(), 0.03);
    EXPECT_GE(record.at("peakMemory").get<long>(), 64L << 10);
    EXPECT_TRUE(host.WaitForOutput(" KiB), task \"busy\": ")) << host.Output();
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostHistory, CommandShowsIt) {
    CHost host;
    ReplaceTable({Due("fails", PROGRAMS "/end-with", "status 3"),
                  Due("missing", "/no/such/program/at-all", "p")});
    WakeWorker();
    RecordsOnceThereAre(2);
    const std::string runs = RunTool({"history", "fails"}).output;
    EXPECT_NE(runs.find("exited 3"), std::string::npos) << runs;
    EXPECT_NE(runs.find("\n1 record\n"), std::string::npos) << runs;
    const std::string task = RunTool({"show", "missing"}).output;
    EXPECT_NE(task.find("not started: No such file or directory"), std::string::npos) << task;
    EXPECT_EQ(TJson::parse(RunTool({"history", "--json", "fails"}).output).at("runs").at(0),
              Records().at(Records().at(0).at("name") == "fails" ? 0 : 1));
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostHistory, DuplicatesAreRecordedByTheirOwnNames) {
    CHost host;
    ReplaceTable({Due("one", PROGRAMS "/end-with", "status 0"),
                  Due("other", PROGRAMS "/end-with", "status 0")});
    WakeWorker();
    const std::vector<TJson> records = RecordsOnceThereAre(2);
    EXPECT_EQ(records.at(0).at("name"), "one");
    EXPECT_EQ(records.at(1).at("name"), "other");
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostHistory, ProgramThatOutlivesTheHostIsRecordedAsLeftRunning) {
    CHost host;
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    WriteFile("end it", "");
    const std::vector<TJson> records = Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].at("outcome"), "left running");
    EXPECT_EQ(records[0].at("name"), "long");
    EXPECT_FALSE(records[0].contains("ended"));
    WaitUntil([] { return std::filesystem::exists("end it.seen"); });
}

TEST(HostHistory, IsBoundedAsConfigured) {
    std::filesystem::create_directory("files");
    std::string earlier(399, 'x');
    earlier += '\n';
    WriteFile(cHistory, earlier);
    CHost host(HostWith({"--history-size", "400"}));
    CreateDue("task", PROGRAMS "/end-with", "status 0");
    WaitUntil([] { return std::filesystem::exists("files/history.jsonl.1"); });
    EXPECT_EQ(RecordsOnceThereAre(1).at(0).at("name"), "task");
    EXPECT_EQ(ReadFile("files/history.jsonl.1"), earlier);
    WaitForTheTicksEnd();
    EXPECT_EQ(host.Stop(), 0);
}

// ---- Tasks that were due while no host ran ----------------------------------------------------

TEST(HostHistory, MissedTasksAreLoggedAndRecorded) {
    const std::int64_t now = std::time(nullptr);
    WriteTable({{"repeats", now - 100, 0, 1, "/bin/one", "a", 0},
                {"runs once", now - 200, 0, 0, "/bin/two", "b", 0},
                {"coming", now + 1000, 0, 1, "/bin/three", "c", 0},
                {"paused", now - 300, 0, 1, "/bin/four", "d", 1}});
    CHost host;
    EXPECT_EQ(host.CountInOutput("missed while no host ran: "), 2U) << host.Output();
    EXPECT_EQ(host.CountInOutput("missed while no host ran: task \"repeats\", due " +
                                 Utc(now - 100) + ", rescheduled: /bin/one \"a\""),
              1U)
        << host.Output();
    EXPECT_EQ(host.CountInOutput("task \"runs once\", due " + Utc(now - 200) +
                                 ", removed: /bin/two \"b\""),
              1U)
        << host.Output();
    const std::vector<TJson> records = Records();
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[0].at("outcome"), "missed");
    EXPECT_EQ(records[0].at("name"), "repeats");
    EXPECT_EQ(records[0].at("due"), Utc(now - 100));
    EXPECT_EQ(records[0].at("task"), "rescheduled");
    EXPECT_FALSE(records[0].contains("started"));
    EXPECT_EQ(records[1].at("name"), "runs once");
    EXPECT_EQ(records[1].at("task"), "removed");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "repeats coming paused");
}

// A history fits into this limit, the table does not.
RUN_AGAIN(HostThatMayWriteLittle) {
    static_cast<void>(arguments);
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", static_cast<char*>(nullptr));
    return 99;
}

TEST(HostHistory, MissedTasksAreRecordedBeforeTheTableIsChanged) {
    WriteTable(
        {{"repeats", std::time(nullptr) - 100, 0, 1, "/bin/one", "a", 0},
         {"large", std::time(nullptr) + 1000, 0, 1, "/bin/two", std::string(9'000, 'p'), 0}});
    CProgram host(ThisProgramAs("HostThatMayWriteLittle"));
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_NE(host.Output().find("missed while no host ran: task \"repeats\""), std::string::npos)
        << host.Output();
    const std::vector<TJson> records = Records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].at("name"), "repeats");
}

TEST(HostHistory, ValidTableMissesNothing) {
    WriteTable({{"coming", std::time(nullptr) + 1000, 0, 1, "/bin/three", "c", 0}});
    CHost host;
    EXPECT_EQ(host.CountInOutput("missed"), 0U) << host.Output();
    EXPECT_FALSE(std::filesystem::exists(cHistory));
    EXPECT_EQ(host.Stop(), 0);
}
