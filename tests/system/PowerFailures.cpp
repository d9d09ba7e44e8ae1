#include "PowerFailures.h"

#include <fcntl.h>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vxsched/Store.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "CrashedDisk.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr char cProgram[] = PROGRAMS "/append-text";
constexpr char cRefusal[] = "../no processes";

using TDueTime = std::pair<std::string, std::int64_t>;  // a task and a due time of it

void PreloadRecorder(const std::string& log) {
    setenv("LD_PRELOAD", FILE_RECORDER ":" INTERPOSED_SYSTEM, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    setenv("RECORD_CALLS", fs::absolute(log).c_str(), 1);
    setenv("REFUSE_LAUNCHES", cRefusal, 1);
}

// ---- What is recorded ---------------------------------------------------------------------------

// A store in the directory "recorded" whose calls go to "calls". Between the calls it records which
// changes were acknowledged to a client.
class CRecordedStore {
public:
    CRecordedStore() {
        fs::create_directory("recorded");
        fs::copy_file(cProgram, "linked.program");
        PreloadRecorder("calls");
        fs::current_path("recorded");
        WriteTable({});
        fs::copy("files", "../initial/files", fs::copy_options::recursive);
    }
    ~CRecordedStore() {
        fs::current_path("..");
        fs::remove_all("recorded");
        unsetenv("RECORD_CALLS");
    }
    CRecordedStore(const CRecordedStore&) = delete;
    CRecordedStore& operator=(const CRecordedStore&) = delete;

    void Create(const std::string& name, std::uint32_t period,
                const std::string& program = cProgram) const {
        store.Create({name, vxsched::TTime(std::chrono::seconds(cFar)), period, program, "log"},
                     false, {});
        Acknowledge("created", name);
    }

    // Makes the tasks due at that time.
    void MakeDue(std::int64_t due, const std::vector<std::string>& names) const {
        std::vector<std::string> arguments = names;
        arguments.insert(arguments.begin(), std::to_string(due));
        CProgram client(ThisProgramAs("SetDueTimes", arguments));
        EXPECT_EQ(client.Wait(), 0) << client.Output();
        for (const std::string& name : names)
            Acknowledge("due", name, due);
    }

    // Makes the tasks due now and waits for the tick that launches them. No two ticks have the same
    // due time.
    void Tick(const std::vector<std::string>& names) {
        BeginTick(names);
        WaitUntil([&] { return Lines("log").size() == launches; });
        WaitUntil(WorkerIsIdle);
    }

    // The same, but the system refuses the launches until the tick has ended.
    void TickWithoutProcesses(const std::vector<std::string>& names) {
        WriteFile(cRefusal, "");
        BeginTick(names);
        WaitUntil([&] { return CountIn("files/owed", "@") == names.size(); });
        WaitUntil(WorkerIsIdle);
        fs::remove(cRefusal);
        WaitUntil([&] { return Lines("log").size() == launches; });
        WaitUntil([] { return CountIn("files/owed", "@") == 0; });
    }

    void Remove(const std::string& name) const {
        Acknowledge("removing", name);
        store.Remove({name});
        Acknowledge("removed", name);
    }

    // Has a client damage the table, which the host's guard has seen, and waits until the guard has
    // restored it.
    static void LetBeRestored() {
        const std::string table = ReadFile(cTable);
        WaitUntil([] { return CountIn("files/started", "@") == 0; });
        Acknowledge("damaging", "");
        CProgram client(ThisProgramAs("BeginASave"));
        EXPECT_EQ(client.Wait(), 0) << client.Output();
        WaitUntil([&] { return ReadFile(cTable) == table; });
        WaitUntil([&] { return WorkerIsIdle() && StoreSemaphoreValue() == 1; });
        Acknowledge("restored", "");
    }

    const vxsched::CStore store{{.lockTimeout = 60s}};

private:
    void BeginTick(const std::vector<std::string>& names) {
        WaitUntil([&] { return std::time(nullptr) > lastDue; });
        lastDue = std::time(nullptr);
        MakeDue(lastDue, names);
        launches += names.size();
        WakeWorker();
    }

    static void Acknowledge(const std::string& what, const std::string& name,
                            std::int64_t due = 0) {
        AddFileCall("../calls", what, name + '\n' + std::to_string(due));
    }

    std::size_t launches = 0;
    std::int64_t lastDue = 0;
};

void Record() {
    fs::create_directory("initial");
    CRecordedStore recorded;
    {
        CHost host;
        recorded.Create("daily", 24);
        recorded.Create("once", 0);
        recorded.Tick({"daily", "once"});
        recorded.Create("linked", 24, fs::canonical("../linked.program"));
        recorded.Create("missed", 24);
        recorded.Create("missed once", 0);
        recorded.Tick({"daily", "linked"});
        recorded.Remove("linked");
        recorded.Create("owed once", 0);
        recorded.TickWithoutProcesses({"daily", "owed once"});
        EXPECT_EQ(host.Stop(), 0);
    }
    const std::int64_t missed = std::time(nullptr) + 1;
    recorded.MakeDue(missed, {"missed", "missed once"});
    WaitUntil([&] { return std::time(nullptr) > missed; });
    CHost host;
    EXPECT_EQ(host.CountInOutput("missed while no host ran"), 2U) << host.Output();
    recorded.Create("last once", 0);
    recorded.Tick({"last once", "daily", "missed"});
    CRecordedStore::LetBeRestored();
    host.Kill(SIGKILL);
    host.Wait();
}

}  // namespace

// Processes whose calls are recorded.

// A direct client that is killed during its save.
RUN_AGAIN(BeginASave) {
    const int file = open(cTable, O_RDWR | O_CREAT | O_TRUNC, 0644);
    return write(file, "\5\0\0\0\0\0\0\0", 8) == 8 ? 0 : 1;
}

RUN_AGAIN(SetDueTimes) {
    const vxsched::CStore store{{}};
    std::vector<vxsched::TTaskEntry> tasks = store.Read().tasks;
    for (vxsched::TTaskEntry& task : tasks) {
        if (std::find(arguments.begin() + 1, arguments.end(), task.name) != arguments.end())
            task.next = vxsched::TTime(std::chrono::seconds(std::stoll(arguments.at(0))));
    }
    store.ReplaceAll(tasks);
    return 0;
}

namespace {

// ---- What is expected of a host on a crashed disk -------------------------------------------------

// The beginning of the recorded calls.
struct THistorySoFar {
    std::map<TDueTime, int> launches;
    std::set<TDueTime> due;              // acknowledged
    std::set<std::string> created;       // acknowledged
    std::set<std::string> mayBeRemoved;  // acknowledged or not
    std::set<std::string> removed;
    bool mayBeDamaged = false;

    void Add(const TFileCall& call) {
        const std::size_t end = call.bytes.find('\n');
        const std::string name = call.bytes.substr(0, end);
        if (call.operation == "launch")
            ++launches[{call.bytes, call.number}];
        else if (call.operation == "due")
            due.insert({name, std::stoll(call.bytes.substr(end))});
        else if (call.operation == "created")
            created.insert(name);
        else if (call.operation == "removing")
            mayBeRemoved.insert(name);
        else if (call.operation == "removed")
            removed.insert(name);
        else if (call.operation == "damaging" || call.operation == "restored")
            mayBeDamaged = call.operation == "damaging";
    }
};

std::string Utc(std::int64_t time) {
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.000Z", fmt::gmtime(time));
}

// The due times that the history of this directory reports with that outcome.
std::set<std::pair<std::string, std::string>> Reported(const std::string& outcome) {
    std::set<std::pair<std::string, std::string>> reported;
    for (const char* const path : {"files/history.jsonl", "files/history.jsonl.1"}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            const auto json = nlohmann::json::parse(line, nullptr, false);
            if (json.is_object() && json.value("outcome", "") == outcome)
                reported.insert({json.value("name", ""), json.value("due", "")});
        }
    }
    return reported;
}

// Starts a host in this directory, on what the disk held after `before`.
void ExpectRecovery(const THistorySoFar& before, bool isPowerFailure) {
    std::set<TDueTime> due = before.due;
    if (fs::exists(cTable) && !before.mayBeDamaged) {
        for (const TRow& row : ReadTable()) {
            if (row.next <= std::time(nullptr))
                due.insert({row.name, row.next});
        }
    }
    fs::remove("../after");
    if (isPowerFailure)
        setenv("FAKE_BOOT_ID", fs::absolute("../boot-id").c_str(), 1);
    setenv("RECORD_CALLS", fs::absolute("../after").c_str(), 1);
    setenv("VXSCHED_NO_SYNC", "1", 1);
    CProgram host(HostWith({"--run-once"}));
    const int status = host.Wait();
    for (const char* const variable : {"FAKE_BOOT_ID", "RECORD_CALLS", "VXSCHED_NO_SYNC"})
        unsetenv(variable);
    SCOPED_TRACE(host.Output());
    EXPECT_EQ(status, 0);
    // What a direct client writes is not flushed: the file's size may be on the disk without it.
    if (before.mayBeDamaged &&
        host.Output().find("the table is empty, but its latest backup") != std::string::npos)
        return;
    EXPECT_TRUE(before.mayBeDamaged || host.Output().find("repaired") == std::string::npos);

    std::map<TDueTime, int> launches = before.launches;
    for (const TFileCall& call : ReadFileCalls("../after")) {
        if (call.operation == "launch")
            ++launches[{call.bytes, call.number}];
    }
    const auto missed = Reported("missed");
    const auto unknown = Reported("launch unknown");
    EXPECT_TRUE(isPowerFailure || unknown.empty());
    for (const auto& [time, count] : launches)
        EXPECT_EQ(count, 1) << time.first << " at " << time.second << " was launched twice";
    for (const TDueTime& time : due) {
        const std::pair<std::string, std::string> named{time.first, Utc(time.second)};
        EXPECT_TRUE(launches.contains(time) || missed.contains(named) || unknown.contains(named) ||
                    before.mayBeRemoved.contains(time.first))
            << time.first << " at " << time.second << " was lost";
    }
    std::map<std::string, TRow> rows;
    for (const TRow& row : ReadTable())
        rows[row.name] = row;
    for (const std::string& name : before.created) {
        const bool runsOnce = name.find("once") != std::string::npos;
        EXPECT_TRUE(runsOnce || before.mayBeRemoved.contains(name) || rows.contains(name))
            << name << " is gone";
    }
    for (const std::string& name : before.removed)
        EXPECT_FALSE(rows.contains(name)) << name << " is there again";
}

// ---- Every state ----------------------------------------------------------------------------------

// More states than this after one call are not enumerated.
constexpr std::size_t cMostEnumerated = 256;

struct TState {
    struct TKill {};  // the host is killed, nothing is lost

    std::size_t cut;  // how many calls were made
    std::variant<TKill, CCrashedDisk::EChoice, CCrashedDisk::TObjectPointer> loss;

    bool IsPowerFailure() const { return !std::holds_alternative<TKill>(loss); }
};

// Whether the next call is a launch. The launched process creates its launch record and empties the
// file of an owed launch: nothing separates these calls from the launch.
bool IsOfALaunch(const std::vector<TFileCall>& calls, std::size_t next) {
    const auto is = [&](std::size_t index, const char* operation) {
        return index < calls.size() && calls[index].operation == operation;
    };
    return is(next, "launch") || (is(next, "truncate") && is(next + 1, "launch"));
}

// Whether a call only changes files. Any other one flushes changes, or is one that a recovery has to
// respect.
bool IsChange(const TFileCall& call) {
    static const std::set<std::string> changes = {"create", "mkdir",   "link",  "unlink",
                                                  "rename", "symlink", "write", "truncate"};
    return changes.contains(call.operation);
}

// Whether the calls up to the next cut are changes alone. Each state after this cut is then one
// after the next cut, too, with the same expectations.
bool IsCoveredByTheNext(const std::vector<TFileCall>& calls, std::size_t cut) {
    do {
        if (cut == calls.size() || !IsChange(calls[cut]))
            return false;
        ++cut;
    } while (IsOfALaunch(calls, cut));
    return true;
}

struct TStates {
    std::vector<TState> all;
    std::size_t enumerated = 0;
    std::size_t drawnCuts = 0;  // with too many states
};

// Of each cut: a kill, and every state without writes that are there in part, if these are not too
// many; else a choice of them. In addition, for what is there in part, two random states.
TStates StatesOf(const std::vector<TFileCall>& calls) {
    // Of the cuts that are no part of a launch; none where there are too many.
    std::map<std::size_t, std::vector<CCrashedDisk::TObjectPointer>> every;
    CCrashedDisk disk("initial");
    for (std::size_t cut = 1; cut <= calls.size(); ++cut) {
        disk.Apply(calls[cut - 1]);
        if (!IsOfALaunch(calls, cut))
            every[cut] = disk.FindStates(cMostEnumerated);
    }
    TStates states;
    for (auto place = every.begin(); place != every.end(); ++place) {
        const auto& [cut, enumerated] = *place;
        states.all.push_back({cut, TState::TKill()});
        for (int number = 0; number < 2; ++number)
            states.all.push_back({cut, CCrashedDisk::cRandom});
        if (enumerated.empty()) {
            ++states.drawnCuts;
            for (const CCrashedDisk::EChoice choice :
                 {CCrashedDisk::cNone, CCrashedDisk::cAll, CCrashedDisk::cOneLost,
                  CCrashedDisk::cOneKept})
                states.all.push_back({cut, choice});
        } else if (!IsCoveredByTheNext(calls, cut) || std::next(place)->second.empty()) {
            states.enumerated += enumerated.size();
            for (const CCrashedDisk::TObjectPointer& each : enumerated)
                states.all.push_back({cut, each});
        }
    }
    return states;
}

// The path is that of the recorded store, since the table has it in the paths of links.
void WriteState(const CCrashedDisk& disk, const TState& state, std::mt19937& random) {
    fs::create_directory("recorded");
    if (const auto* const enumerated = std::get_if<CCrashedDisk::TObjectPointer>(&state.loss))
        return CCrashedDisk::WriteTo("recorded", **enumerated);
    const auto* const choice = std::get_if<CCrashedDisk::EChoice>(&state.loss);
    disk.WriteTo("recorded", choice != nullptr ? *choice : CCrashedDisk::cAll, random);
}

std::string Describe(const TState& state) {
    if (const auto* const choice = std::get_if<CCrashedDisk::EChoice>(&state.loss))
        return fmt::format("choice {}", static_cast<int>(*choice));
    return state.IsPowerFailure() ? "an enumerated state" : "a kill";
}

}  // namespace

void TryPowerFailures(std::size_t most) {
    WriteFile("boot-id", "00000000-0000-0000-0000-000000000000\n");
    Record();
    const std::vector<TFileCall> calls = ReadFileCalls("calls");
    const TStates found = StatesOf(calls);
    std::vector<TState> states = found.all;
    std::mt19937 random(1);
    if (most > 0) {
        std::shuffle(states.begin(), states.end(), random);
        states.resize(std::min(states.size(), most));
        std::sort(states.begin(), states.end(),
                  [](const TState& one, const TState& other) { return one.cut < other.cut; });
    }
    CCrashedDisk disk("initial");
    THistorySoFar before;
    std::size_t done = 0;
    for (const TState& state : states) {
        for (; done < state.cut; ++done) {
            disk.Apply(calls[done]);
            before.Add(calls[done]);
        }
        WriteState(disk, state, random);
        SCOPED_TRACE(fmt::format("after call {} of {}, {}, {}", state.cut, calls.size(),
                                 calls[state.cut - 1].operation, Describe(state)));
        fs::current_path("recorded");
        ExpectRecovery(before, state.IsPowerFailure());
        fs::current_path("..");
        if (testing::Test::HasFailure())
            return;  // leaves the directory as the host has left it
        fs::remove_all("recorded");
    }
    std::printf(
        "%zu states after %zu calls, of %zu; %zu of these enumerated, drawn after %zu calls\n",
        states.size(), calls.size(), found.all.size(), found.enumerated, found.drawnCuts);
}
