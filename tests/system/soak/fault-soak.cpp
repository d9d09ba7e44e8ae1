// The soak run with faults: for FAULT_SOAK_MINUTES (1 by default), direct clients, commands and due
// tasks next to a host, on a small disk; the host, commands and clients are killed and the disk
// fills up, all at once. SOAK_SEED repeats a run as far as the system lets it.
//
// It reports what was lost, apart for direct clients: these let each other in at each load, so that
// one's save may overwrite another's or a command's, and do not notice a save that fails. It fails
// if a due time was launched twice, if the table is not valid once it is quiet, or if anybody waits
// for longer than a minute.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "AddinLibrary.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"
#include "WedgedMutex.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr unsigned int cNoProgress = 60;  // seconds
constexpr int cIterationsBetweenChecks = 10;

// What is being waited for, for the message.
const char* volatile gStage = "";

// Process 1 of a PID namespace gets only the signals that it handles.
void ReportProgress() {
    std::signal(SIGALRM, [](int) {
        std::printf("no progress for a minute: %s; mutex %d, worker %s\n", gStage,
                    StoreSemaphoreValue(), WorkerIsIdle() ? "idle" : "not idle");
        std::fflush(stdout);
        _exit(3);
    });
    alarm(cNoProgress);
}

long NumberFrom(const char* variable, long otherwise) {
    const char* const given = std::getenv(variable);
    return given != nullptr ? std::atol(given) : otherwise;
}

}  // namespace

// A direct client: NAME SEED. Creates the file made/NAME once the creation of its task has returned.
RUN_AGAIN(SoakClient) {
    const std::string& name = arguments.at(0);
    std::mt19937 random(static_cast<unsigned int>(std::stoul(arguments.at(1))));
    const auto library = std::make_unique<CAddinLibrary>();
    if (random() % 8 == 0)
        raise(SIGKILL);
    library->Create(name.c_str(), cFar, 24, "/bin/program", "");
    WriteFile("made/" + name, "");
    if (random() % 2 == 0)
        library->PauseTask(name.c_str());
    if (random() % 3 == 0)
        raise(SIGKILL);
    if (random() % 2 == 0)
        _exit(0);
    return 0;  // the finalisers remove the mutex
}

namespace {

std::string LastOf(const std::string& log) {
    constexpr std::size_t cMost = 6000;
    return log.size() > cMost ? log.substr(log.size() - cMost) : log;
}

// The load between two checks.
enum ELoad { cCommandsOnly, cOneClientAtATime, cAllAtOnce, cLoads };

// How a task was created, by what may have cost it.
enum EKind {
    cByCommand,
    cByCommandNextToOneClient,
    cByOneClient,
    cByCommandAmongAll,
    cByClientAmongAll,
    cKinds
};

constexpr const char* cNames[] = {
    "commands, with kills and full disks, without direct clients",
    "commands next to one direct client at a time, with kills",
    "one direct client at a time, with kills",
    "commands among direct clients at once, with kills and full disks",
    "direct clients at once, with kills and full disks",
};

class CSoak {
public:
    explicit CSoak(unsigned int seed) : random(seed) {
        fs::create_directory("made");
        WriteFile("append-launch",
                  "#!/bin/sh\n"
                  "echo \"$VXSCHED_DUE by process $PPID at $(date +%T.%N)\" >> launches\n");
        fs::permissions("append-launch", fs::perms::owner_all);
        job.program = fs::absolute("append-launch");
        job.parameters = "";
        WriteTable(Base());
        EnsureHost();
    }

    void Iterate() {
        EnsureHost();
        const auto load = static_cast<ELoad>(iterations / cIterationsBetweenChecks % cLoads);
        const bool fills = load != cOneClientAtATime && Random(3) == 0;
        std::vector<TCreation> creations;
        for (int number = 0; number < 2; ++number)
            creations.push_back(StartCommand(KindOfCommand(load)));
        // Each edit has a due time of its own: one that is set again after its launch is due again.
        CProgramPointer due;
        if (const std::time_t now = std::time(nullptr); now > lastDue) {
            lastDue = now;
            due = Start({"edit", "job", "--at", "@" + std::to_string(now), "--every", "1d"});
        }
        if (load == cOneClientAtATime)
            creations.push_back(StartClient(cByOneClient));
        for (int number = 0; load == cAllAtOnce && number < 3; ++number)
            creations.push_back(StartClient(cByClientAmongAll));
        Pause();
        if (fills)
            FillDisk();
        Pause();
        if (Random(3) == 0)
            KillHost();
        if (Random(3) == 0)
            creations.at(0).process->Kill(SIGKILL);
        Pause();
        fs::remove("files/filling");
        EnsureHost();
        for (const TCreation& creation : creations)
            Finish(creation);
        gStage = "an edit";
        if (due != nullptr)
            due->Wait();
        ReportProgress();
        if (++iterations % cIterationsBetweenChecks == 0)
            Check();
    }

    void Report() {
        Check();
        host->Kill(SIGTERM);
        EXPECT_EQ(host->Wait(), 0);
        const std::string log = ReadFile("host.log");
        std::printf(
            "%d iterations, %d full disks, %d kills of hosts, %d starts of hosts, %d hosts "
            "that refused to start\n",
            iterations, fullDisks, hostKills, hostStarts, refusals);
        for (int kind = 0; kind < cKinds; ++kind)
            std::printf("created by %s: %d, lost %d\n", cNames[kind], created[kind], lost[kind]);
        std::printf("tasks that nobody touched, and were gone at a check: %d\n", baseLost);
        std::printf("tables that were not valid at a check: %d\n", invalid);
        std::map<std::string, std::vector<std::string>> launches;  // by the due time
        gStage = "a launch";
        for (const std::string& line : Lines("launches"))
            launches[line.substr(0, line.find(' '))].push_back(line);
        EXPECT_FALSE(launches.empty());
        std::size_t doubled = 0;
        for (const auto& [due, lines] : launches) {
            doubled += lines.size() - 1;
            for (std::size_t number = 0; lines.size() > 1 && number < lines.size(); ++number)
                std::printf("launched more than once: %s\n", lines[number].c_str());
        }
        std::printf("due times launched: %zu, too often: %zu\n", launches.size(), doubled);
        for (const char* const message :
             {"the store mutex was held by nobody", "the store mutex let",
              "the store mutex was removed", "the store mutex is not released",
              "the table is restored", "the table is repaired", "the table is empty, but",
              "missed while no host ran"})
            std::printf("log: %4zu times \"%s\"\n", Count(log, message), message);
        EXPECT_EQ(doubled, 0U);
        EXPECT_EQ(invalid, 0);
        EXPECT_EQ(lost[cByCommand], 0);
    }

private:
    using CProgramPointer = std::unique_ptr<CProgram>;
    struct TCreation {
        std::string name;
        EKind kind;
        CProgramPointer process;
    };

    TRows Base() const { return {Row("first"), Row("second"), Row("third"), job}; }

    int Random(int below) { return static_cast<int>(random() % static_cast<unsigned int>(below)); }

    void Pause() { std::this_thread::sleep_for(std::chrono::milliseconds(Random(150))); }

    static std::size_t Count(const std::string& log, const std::string& message) {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = log.find(message, at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    static CProgramPointer Start(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {TOOL_PROGRAM, "--lock-timeout", "25"});
        return std::make_unique<CProgram>(arguments);
    }

    std::string NewName() { return "task-" + std::to_string(++names); }

    static EKind KindOfCommand(ELoad load) {
        switch (load) {
            case cCommandsOnly:
                return cByCommand;
            case cOneClientAtATime:
                return cByCommandNextToOneClient;
            default:
                return cByCommandAmongAll;
        }
    }

    TCreation StartCommand(EKind kind) {
        const std::string name = NewName();
        return {name, kind,
                Start({"create", name, "--at", "2090-01-01 00:00", "--every", "1d", "--",
                       "/bin/true"})};
    }

    TCreation StartClient(EKind kind) {
        const std::string name = NewName();
        return {name, kind,
                std::make_unique<CProgram>(
                    ThisProgramAs("SoakClient", {name, std::to_string(random())}))};
    }

    // Remembers the task if its creation was acknowledged.
    void Finish(const TCreation& creation) {
        gStage = cNames[creation.kind];
        const int status = creation.process->Wait();
        const bool isCommand = creation.kind != cByOneClient && creation.kind != cByClientAmongAll;
        if (!(isCommand ? status == 0 : fs::exists("made/" + creation.name)))
            return;
        ++created[creation.kind];
        acknowledged.emplace_back(creation.name, creation.kind);
    }

    // The host exits with status 6 if its table is damaged and the disk full.
    void EnsureHost() {
        if (host != nullptr && !HasEnded(host->Id()))
            return;
        if (host != nullptr && host->Wait() != 1000 + SIGKILL)
            ++refusals;
        // A history of the usual size would leave no room on the disk.
        host = std::make_unique<CProgram>(
            HostWith({"--log", fs::absolute("host.log"), "--history-size", "64KiB"}));
        ++hostStarts;
    }

    void KillHost() {
        host->Kill(SIGKILL);
        host->Wait();
        host.reset();
        ++hostKills;
    }

    void FillDisk() {
        ++fullDisks;
        const int file = open("files/filling", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        const std::string block(4096, 'f');
        while (write(file, block.data(), block.size()) > 0) {
        }
        close(file);
    }

    // As process 1 this one gets the programs of killed hosts.
    void CollectOrphans() const {
        siginfo_t ended{};
        while (waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid != 0 &&
               ended.si_pid != host->Id())
            waitpid(ended.si_pid, nullptr, 0);
    }

    // Waits until all is quiet, and compares the table with what was acknowledged.
    void Check() {
        ReportProgress();
        gStage = "the last command";
        WaitUntil([&] {
            EnsureHost();
            return Start({"create", "last", "--replace", "--at", "2090-01-01 00:00", "--",
                          "/bin/true"})
                       ->Wait() == 0;
        });
        gStage = "quiet";
        WaitUntil([&] {
            return StoreSemaphoreValue() == 1 && WorkerIsIdle() &&
                   CountIn("files/started", "@") == 0;
        });
        std::set<std::string> present;
        try {
            for (const vxsched::TTaskEntry& task : store.Read().tasks)
                present.insert(task.name);
        } catch (const vxsched::CError& error) {
            ++invalid;
            std::printf("iteration %d: %s\n", iterations, error.what());
        }
        for (const TRow& row : Base())
            baseLost += present.contains(row.name) ? 0 : 1;
        for (const auto& [name, kind] : acknowledged) {
            if (present.contains(name))
                continue;
            ++lost[kind];
            if (kind == cByCommand)
                std::printf("iteration %d: %s is lost\n", iterations, name.c_str());
        }
        std::fflush(stdout);
        acknowledged.clear();
        CollectOrphans();
        fs::remove_all("made");
        fs::create_directory("made");
        gStage = "the replacement of the table";
        store.ReplaceAll(EntriesOf(Base()));
        WaitUntil(WorkerIsIdle);
        ReportProgress();
    }

    static std::vector<vxsched::TTaskEntry> EntriesOf(const TRows& rows) {
        std::vector<vxsched::TTaskEntry> tasks;
        for (const TRow& row : rows)
            tasks.push_back({row.name, vxsched::TTime(std::chrono::seconds(row.next)),
                             vxsched::TTime(std::chrono::seconds(row.last)), row.period,
                             row.program, row.parameters, row.paused != 0});
        return tasks;
    }

    const vxsched::CStore store{{.lockTimeout = 25s}};
    std::mt19937 random;
    TRow job = Row("job");
    CProgramPointer host;
    std::vector<std::pair<std::string, EKind>> acknowledged;
    int names = 0;
    std::time_t lastDue = 0;
    int iterations = 0;
    int hostKills = 0;
    int hostStarts = 0;
    int refusals = 0;
    int fullDisks = 0;
    int baseLost = 0;
    int invalid = 0;
    int created[cKinds]{};
    int lost[cKinds]{};
};

}  // namespace

TEST(FaultSoak, NothingIsDoubledOrTornOrWaitsForEver) {
    Inspectable([] {
        ASSERT_EQ(mount("none", "files", "tmpfs", 0, "size=1m,mode=0700"), 0);
        const long seed = NumberFrom("SOAK_SEED", std::random_device()() % 1'000'000);
        const auto end = std::chrono::steady_clock::now() +
                         std::chrono::minutes(NumberFrom("FAULT_SOAK_MINUTES", 1));
        std::printf("SOAK_SEED=%ld\n", seed);
        std::fflush(stdout);
        ReportProgress();
        CSoak soak(static_cast<unsigned int>(seed));
        while (std::chrono::steady_clock::now() < end)
            soak.Iterate();
        soak.Report();
        alarm(0);
        std::fflush(stdout);
    });
    if (HasFailure())
        std::printf("the end of the host's log:\n%s\n", LastOf(ReadFile("host.log")).c_str());
}
