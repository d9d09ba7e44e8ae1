// What a real host records of real programs, and of tasks that were due while no host ran.

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "AddinLibrary.h"
#include "HostProgram.h"
#include "Process.h"
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

RUN_AGAIN(LoadTheAddIn) {
    const CAddinLibrary library;
    _exit(0);
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
    std::set<std::string> ids;
    for (const TJson& record : records) {
        ids.insert(record.value("run", ""));
        EXPECT_NE(record.value("trigger", ""), "");
        EXPECT_EQ(record.value("attempt", 0), 1);
    }
    EXPECT_EQ(ids.size(), 3U);
    EXPECT_FALSE(ids.contains(""));
    EXPECT_FALSE(records[2].contains("output"));
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
    std::multiset<std::string> names;  // the records are in the order in which the programs ended
    for (const TJson& record : RecordsOnceThereAre(2))
        names.insert(record.at("name").get<std::string>());
    EXPECT_EQ(names, (std::multiset<std::string>{"one", "other"}));
    EXPECT_EQ(host.Stop(), 0);
}

// Collects the names of the launch records that are created from now on, also of those that are
// removed again.
class CCreatedRecords {
public:
    CCreatedRecords() : descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
        inotify_add_watch(descriptor, "files/started", IN_CREATE);
    }
    ~CCreatedRecords() { close(descriptor); }
    CCreatedRecords(const CCreatedRecords&) = delete;
    CCreatedRecords& operator=(const CCreatedRecords&) = delete;

    std::multiset<std::string> Names() const {
        std::multiset<std::string> names;
        alignas(inotify_event) char bytes[8192];
        const ssize_t count = read(descriptor, bytes, sizeof bytes);
        for (ssize_t position = 0; position < count;) {
            const auto* event = reinterpret_cast<const inotify_event*>(bytes + position);
            if (const std::string name = event->name; name.find('@') != name.npos)
                names.insert(name);
            position += static_cast<ssize_t>(sizeof *event + event->len);
        }
        return names;
    }

private:
    int descriptor;
};

// After the launch of a task that runs once a tick skips the next task, which the next tick
// launches. So duplicates are not launched in the order of the table.
TEST(HostHistory, DuplicatesOfATaskThatRunsOnceAreLaunchedAndRecordedOnceEach) {
    CHost host;
    const CCreatedRecords created;
    TRows rows = {Due("once", PROGRAMS "/end-with", "status 0"),
                  Due("second", PROGRAMS "/end-with", "status 0"),
                  Due("third", PROGRAMS "/end-with", "status 0")};
    rows[0].period = 0;
    rows[1].next -= 1;
    rows[2].next -= 2;
    std::multiset<std::pair<std::string, std::string>> wanted;
    std::multiset<std::string> wantedRecords;
    for (const TRow& row : rows) {
        wanted.emplace(row.name, Utc(row.next));
        wantedRecords.insert(row.name + '@' + std::to_string(row.next) + "@0");
    }
    ReplaceTable(rows);
    WakeWorker();
    WaitUntil([&] {
        const TRows table = ReadTable();
        return table.size() == 2 && table[1].next > rows[1].next + 1800;
    });
    WaitUntil(WorkerIsIdle);
    WakeWorker();
    WaitUntil([&] { return ReadTable().at(0).next > rows[1].next + 1800; });
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("started process"), 3U) << host.Output();
    EXPECT_EQ(host.CountInOutput("the table is restored"), 0U) << host.Output();
    std::multiset<std::pair<std::string, std::string>> recorded;
    for (const TJson& record : Records())
        recorded.emplace(record.at("name"), record.at("due"));
    EXPECT_EQ(recorded, wanted);
    EXPECT_EQ(created.Names(), wantedRecords);
}

// The load reschedules the tasks in the file and not in the tick.
TEST(HostHistory, LoadOfADirectClientDuringATickHidesNoTask) {
    CHost host(HostThatPauses());
    const TRows rows = {Due("one", PROGRAMS "/end-with", "status 0"),
                        Due("other", PROGRAMS "/end-with", "status 1"),
                        Due("duplicate", PROGRAMS "/end-with", "status 0")};
    ReplaceTable(rows);
    WakeWorker();
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    CProgram client(ThisProgramAs("LoadTheAddIn"));
    EXPECT_EQ(client.Wait(), 0) << client.Output();
    const std::vector<TJson> records = RecordsOnceThereAre(3);
    ASSERT_EQ(records.size(), 3U);
    for (std::size_t index = 0; index < 3; ++index) {
        EXPECT_EQ(records[index].at("name"), rows[index].name);
        EXPECT_EQ(records[index].at("due"), Utc(rows[index].next));
    }
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostHistory, ProgramThatOutlivesTheHostIsRecordedWhenItEnds) {
    CHost host;
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("leaving 1 launched program(s) running"), 1U) << host.Output();
    WriteFile("end it", "");
    const TJson record = RecordsOnceThereAre(1).at(0);
    EXPECT_EQ(record.at("outcome"), "exited");
    EXPECT_EQ(record.at("name"), "long");
}

TEST(HostHistory, ProgramThatIsLeftRunningIsLoggedByItsOwnProcess) {
    CHost host;
    CreateDue("long", PROGRAMS "/wait-for-it", "end it");
    EXPECT_TRUE(host.WaitForOutput(" for task \"long\"")) << host.Output();
    const std::string started = "started process ";
    const pid_t process =
        std::stoi(host.Output().substr(host.Output().find(started) + started.size()));
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("leaving process " + std::to_string(process) +
                                 " running, task \"long\""),
              1U)
        << host.Output();
    WriteFile("end it", "");
    EXPECT_EQ(RecordsOnceThereAre(1).at(0).at("process"), process);
}

// With their programs, which nobody else would end.
static void KillRunners() {
    for (const auto& entry : std::filesystem::directory_iterator("files/running")) {
        const std::string id = entry.path().filename();
        const pid_t runner = std::stoi(id.substr(id.rfind('-') + 1));
        const std::optional<pid_t> program = ChildOf(runner);
        kill(runner, SIGKILL);
        WaitUntil([&] { return HasEnded(runner); });
        kill(program.value(), SIGKILL);
    }
}

// Nobody can tell how its program ended.
TEST(HostHistory, RunWhoseRunnerIsKilledIsRecordedAsSuch) {
    for (const bool isHostKilled : {false, true}) {
        std::filesystem::remove(cHistory);
        CHost host;
        CreateDue("long", PROGRAMS "/wait-forever", "");
        EXPECT_TRUE(host.WaitForOutput("started process")) << host.Output();
        WaitForTheTicksEnd();
        if (isHostKilled) {
            host.Kill(SIGKILL);
            host.Wait();
        }
        KillRunners();
        std::optional<CHost> next;
        if (isHostKilled)
            next.emplace();
        const TJson record = RecordsOnceThereAre(1).at(0);
        EXPECT_EQ(record.at("outcome"), "runner died");
        EXPECT_EQ(record.at("name"), "long");
        EXPECT_TRUE(record.contains("ended"));
    }
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
    EXPECT_NE(records[0].at("run"), records[1].at("run"));
    for (const TJson& record : records) {
        EXPECT_EQ(record.at("trigger"), "schedule");
        EXPECT_FALSE(record.contains("attempt")) << "none was made";
    }
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(NamesInTable(), "repeats coming paused");
}

TEST(HostHistory, LaunchThatThePreviousHostDidNotMakeIsCaughtUpOn) {
    {
        CHost host;
        host.Kill(SIGKILL);
        host.Wait();
    }
    WriteTable({Due("late", PROGRAMS "/end-with", "status 0")});
    CHost host;
    EXPECT_EQ(RecordsOnceThereAre(1).at(0).at("trigger"), "catch-up");
    CreateDue("punctual", PROGRAMS "/end-with", "status 0");
    EXPECT_EQ(RecordsOnceThereAre(2).at(1).at("trigger"), "schedule");
    EXPECT_EQ(host.Stop(), 0);
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
