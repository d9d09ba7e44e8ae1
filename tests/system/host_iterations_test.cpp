// Iterations of faults: a task is made due under a running host, and a process is killed, the disk
// is full, or a call on the files fails. After each iteration and a restart every task is there,
// and each due time was launched once. RANDOM_KILLS sets the number of kills, RANDOM_KILLS_SEED which
// ones.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vxsched/Table.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "store/CWriterLock.h"

#include "AddinLibrary.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr int cStores = 5;
#ifdef PLAIN_BUILD
constexpr int cIterations = 50;
constexpr int cKills = 500;
constexpr int cFaultStep = 1;
constexpr int cLongestPause = 20'000;  // microseconds: about as long as a change and a tick take
#else
constexpr int cIterations = 8;
constexpr int cKills = 80;
constexpr int cFaultStep = 7;
constexpr int cLongestPause = 300'000;
#endif

int NumberFrom(const char* variable, int otherwise) {
    const char* const given = std::getenv(variable);
    return given != nullptr ? std::atoi(given) : otherwise;
}

// One of the stores that go through their iterations in parallel, each in a process of its own: an
// IPC namespace, a directory, and a log of launches outside of it.
class CStoreUnderTest {
public:
    CStoreUnderTest(int number, unsigned int seed)
        : log(fs::absolute("log " + std::to_string(number))),
          directory("store " + std::to_string(number)),
          random(seed) {
        EXPECT_EQ(unshare(CLONE_NEWIPC), 0);
        fs::remove(log);
        fs::remove_all(directory);
        fs::create_directory(directory);
    }

    // Puts the store on a file system of its own with this many blocks.
    void UseDisk(int blocks) {
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        const std::string size = "size=" + std::to_string(blocks * 4) + "k,mode=0700";
        ASSERT_EQ(mount("tmpfs", directory.c_str(), "tmpfs", 0, size.c_str()), 0);
    }

    void Begin() {
        fs::current_path(directory);
        fs::create_directory("files");
        const auto row = [](const std::string& name) {
            return TRow{name, 4'000'000'000, 0, 24, "/bin/program", "a parameter", 0};
        };
        TRow job = row("job");
        job.program = PROGRAMS "/append-text";
        job.parameters = log;
        WriteTable({row("first"), row("other"), row("third"), job});
    }

    int Random(int most) { return std::uniform_int_distribution<>(0, most)(random); }

    void PauseAtRandom() {
        std::this_thread::sleep_for(std::chrono::microseconds(Random(cLongestPause)));
    }

    // The command line that makes the job due. The due time is another in each iteration, so that
    // the table shows whether it was launched.
    std::vector<std::string> MakeDue(int iteration) {
        before = Next();
        const int offset = iteration % cOffsets;
        if (offset == 0)
            latest = std::time(nullptr);
        const std::string due = "@" + std::to_string(latest - offset);
        return {TOOL_PROGRAM, "edit", "job", "--at", due, "--every", "1d"};
    }

    // Whether the table shows that the job was made due.
    bool WasMadeDue() const { return Next() != before; }

    // Under a host that was started after the faults. `what` describes the iteration.
    void ExpectNothingIsLost(CHost& host, const std::string& what) {
        EXPECT_EQ(RunTool({"wake"}).status, 0);
        EXPECT_EQ(RunTool({"pause", "third"}).status, 0) << "it waits for due tasks";
        WaitUntil(WorkerIsIdle);
        if (WasMadeDue())
            ++launched;
        WaitUntil([&] { return Launches() >= launched; });
        EXPECT_EQ(Launches(), launched) << what << "\nafter it:\n" << host.Output();
        const vxsched::TTable table = vxsched::ReadTable(".", 30s);
        for (const char* const name : {"first", "other", "third", "job"})
            EXPECT_NE(table.Find(name), nullptr) << what << "\nafter it:\n" << host.Output();
        EXPECT_EQ(host.Stop(), 0);
    }

    // How often the job was launched, by its log.
    std::size_t Launches() const {
        const std::string lines = fs::exists(log) ? ReadFile(log) : "";
        return static_cast<std::size_t>(std::count(lines.begin(), lines.end(), '\n'));
    }

    std::size_t CountOfLaunches() const { return launched; }

private:
    static vxsched::TTime Next() { return vxsched::ReadTable(".", 30s).Find("job")->next; }

    const std::string log;
    const std::string directory;
    std::mt19937 random;
    // A task that was due ten minutes before a host's startup would be missed.
    static constexpr int cOffsets = 250;
    std::time_t latest = 0;
    vxsched::TTime before;
    std::size_t launched = 0;
};

// Takes the stores through `run` in parallel. `disk` is the size in blocks of a file system for
// each.
void RunStores(const std::function<void(CStoreUnderTest& store, int number)>& run,
               unsigned int seed, std::optional<int> disk = {}) {
    std::vector<std::unique_ptr<CForkedChild>> stores;
    for (int number = 0; number < cStores; ++number) {
        stores.push_back(std::make_unique<CForkedChild>([&, number] {
            CStoreUnderTest store(number, seed * cStores + static_cast<unsigned int>(number));
            if (disk)
                store.UseDisk(*disk);
            store.Begin();
            run(store, number);
            EXPECT_GT(store.CountOfLaunches(), 0U) << "no program was launched";
            return testing::Test::HasFailure() ? 2 : 42;
        }));
    }
    for (const auto& store : stores)
        EXPECT_EQ(store->Wait(), 42);
}

using TIteration = void (*)(CStoreUnderTest& store, int number, int iteration);

void RunIterations(TIteration runIteration, unsigned int seed, std::optional<int> disk = {}) {
    const auto run = [&](CStoreUnderTest& store, int number) {
        for (int iteration = 0; iteration < cIterations && !testing::Test::HasFailure();
             ++iteration)
            runIteration(store, number, iteration);
    };
    RunStores(run, seed, disk);
}

// ---- Kills ------------------------------------------------------------------------------------

// A change of one task by vxsched, during which it or its change process may be killed.
class CChange {
public:
    using TState = bool (*)(const vxsched::TTable& table);

    // `state` is what the change makes true if `isWanted`, else false.
    CChange(const std::vector<std::string>& arguments, TState readState, bool isWanted)
        : command(Command(arguments)), state(readState), wanted(isWanted) {}

    bool KillCommand() {
        command.Kill(SIGKILL);
        return true;
    }

    // False if there is none at the moment.
    bool KillChangeProcess() {
        const std::optional<pid_t> child = ChildOf(command.Id());
        if (child)
            kill(*child, SIGKILL);
        return child.has_value();
    }

    void Wait() { status = command.Wait(); }

    // What was reported is what the table shows.
    void Check(const vxsched::TTable& table) const {
        constexpr int cUnknown = 9;
        const bool isMade = state(table) == wanted;
        const bool isUnknown = status == cUnknown || status == 1000 + SIGKILL;
        EXPECT_TRUE(isUnknown || isMade == (status == 0)) << Describe();
    }

    std::string Describe() const {
        return "status " + std::to_string(status) + ' ' + command.Output();
    }

private:
    static std::vector<std::string> Command(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), TOOL_PROGRAM);
        return arguments;
    }

    CProgram command;
    const TState state;
    const bool wanted;
    int status = -1;
};

bool IsPaused(const vxsched::TTable& table) {
    return table.Find("other")->paused;
}

bool HasNew(const vxsched::TTable& table) {
    return table.Find("new") != nullptr;
}

struct TKills {
    int hosts = 0;
    int commands = 0;
    int changeProcesses = 0;

    int Sum() const { return hosts + commands + changeProcesses; }
};

// Makes the job due under a host while two other changes are made, and kills one to three of all
// these processes.
void KillSomething(CStoreUnderTest& store, int iteration, TKills& kills) {
    auto host = std::make_unique<CHost>();
    const vxsched::TTable before = vxsched::ReadTable(".", 30s);
    CProgram edit(store.MakeDue(iteration));
    const bool pauses = !IsPaused(before);
    CChange pause({pauses ? "pause" : "resume", "other"}, IsPaused, pauses);
    const bool creates = !HasNew(before);
    const std::vector<std::string> creation = {"create",           "new", "--at",
                                               "2090-01-01 00:00", "--",  "/bin/true"};
    CChange create(creates ? creation : std::vector<std::string>{"remove", "new"}, HasNew, creates);
    store.PauseAtRandom();
    if (store.Random(2) == 0) {
        edit.Kill(SIGKILL);
        ++kills.commands;
        store.PauseAtRandom();
    }
    CChange& other = store.Random(1) == 0 ? pause : create;
    if (store.Random(2) == 0) {
        other.KillCommand();
        ++kills.commands;
    } else if (other.KillChangeProcess()) {
        ++kills.changeProcesses;
    }
    const bool isHostKilled = store.Random(2) != 0;
    if (isHostKilled) {
        host->Kill(SIGKILL);
        host->Wait();
        ++kills.hosts;
    } else {
        EXPECT_EQ(host->Stop(), 0);
    }
    vxsched::ReadTable(".", 30s);  // throws if the table is damaged
    std::string description =
        "in iteration " + std::to_string(iteration) + "\n" + host->Output() + "\nedit: ";
    host = std::make_unique<CHost>();
    const int status = edit.Wait();
    pause.Wait();
    create.Wait();
    description +=
        edit.Output() + "\npause: " + pause.Describe() + "\ncreate: " + create.Describe();
    {
        // The change process of a command that was killed may still be making the change.
        const vxsched::CWriterLock noChange(".", 30s);
        const vxsched::TTable table = vxsched::ReadTable(".", 30s);
        SCOPED_TRACE(description);
        pause.Check(table);
        create.Check(table);
        for (const char* const untouched : {"first", "third"})
            EXPECT_EQ(*table.Find(untouched), *before.Find(untouched));
    }
    EXPECT_TRUE(status != 0 || store.WasMadeDue()) << description;
    store.ExpectNothingIsLost(*host, description);
}

void KillAtRandom(CStoreUnderTest& store, int number, int most) {
    TKills kills;
    for (int iteration = 0; kills.Sum() < most && !testing::Test::HasFailure(); ++iteration)
        KillSomething(store, iteration, kills);
    std::printf("store %d: killed %d hosts, %d commands, %d change processes\n", number,
                kills.hosts, kills.commands, kills.changeProcesses);
    std::fflush(stdout);
}

class HostKilled : public testing::TestWithParam<unsigned int> {};

constexpr int cHalves = 2;

TEST_P(HostKilled, EveryDueTimeIsLaunchedOnceAndNoTaskIsLost) {
    const int most = NumberFrom("RANDOM_KILLS", cKills) / (cHalves * cStores);
    const int seed = NumberFrom("RANDOM_KILLS_SEED", 0);
    RunStores([&](CStoreUnderTest& store, int number) { KillAtRandom(store, number, most); },
              static_cast<unsigned int>(seed * cHalves) + GetParam());
}

INSTANTIATE_TEST_SUITE_P(Half, HostKilled, testing::Range(0U, static_cast<unsigned int>(cHalves)));

// ---- A full disk ------------------------------------------------------------------------------

// Fills the disk but for a few blocks.
void FillTheDisk(int blocksLeft) {
    const int ballast = open("ballast", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const std::string block(4096, 'b');
    off_t size = 0;
    for (ssize_t count = 0; (count = write(ballast, block.data(), block.size())) > 0;)
        size += count;
    EXPECT_EQ(ftruncate(ballast, std::max<off_t>(0, size - blocksLeft * 4096L)), 0);
    close(ballast);
}

void FillTheDiskAtRandom(CStoreUnderTest& store, int /*number*/, int iteration) {
    auto host = std::make_unique<CHost>();
    CProgram edit(store.MakeDue(iteration));
    store.PauseAtRandom();
    FillTheDisk(store.Random(2));
    store.PauseAtRandom();
    const bool isKilled = store.Random(1) == 1;
    if (isKilled)
        host->Kill(SIGKILL);
    edit.Wait();
    if (isKilled)
        host->Wait();
    else
        EXPECT_EQ(host->Stop(), 0);
    const std::string description = "in iteration " + std::to_string(iteration) + ", " +
                                    (isKilled ? "killed" : "stopped") + "\n" + host->Output() +
                                    "\nedit: " + edit.Output();
    // A host also starts on a full disk.
    if (store.Random(1) == 1)
        fs::remove("ballast");
    host = std::make_unique<CHost>();
    fs::remove("ballast");
    store.ExpectNothingIsLost(*host, description);
}

TEST(HostOnAFullDisk, EveryDueTimeIsLaunchedOnceAndNoTaskIsLost) {
    RunIterations(FillTheDiskAtRandom, 2, 200);
}

// ---- Faults -----------------------------------------------------------------------------------

// One call fails, another one in each iteration of each store. A host that cannot run reports why;
// one that runs launches due programs all the same.
void FailACall(CStoreUnderTest& store, int number, int iteration) {
    const int fault = 1 + (iteration * cStores + number) * cFaultStep;
    setenv("FAULT_CALL", std::to_string(fault).c_str(), 1);
    CProgram faulty(HostWith({}));
    unsetenv("FAULT_CALL");
    const std::vector<std::string> makeDue = store.MakeDue(iteration);
    if (faulty.WaitForOutput(" as process ")) {
        // A table that the add-in could not read is empty until the host has restored it.
        WaitUntil([&] { return CProgram(makeDue).Wait() == 0; });
        EXPECT_EQ(RunTool({"wake"}).status, 0);
        const std::size_t expected = store.CountOfLaunches() + 1;
        WaitUntil([&] { return store.Launches() >= expected; });
        faulty.Kill(SIGTERM);
        EXPECT_EQ(faulty.Wait(), 0) << faulty.Output();
    } else {
        const int status = faulty.Wait();
        EXPECT_TRUE(status >= 1 && status <= 7) << status << ": " << faulty.Output();
    }
    if (iteration == cIterations - 1) {
        EXPECT_EQ(faulty.Output().find("injected fault"), std::string::npos)
            << "not every call was made to fail: " << faulty.Output();
    }
    CHost host;
    store.ExpectNothingIsLost(host, faulty.Output());
}

TEST(HostFaults, EveryDueTimeIsLaunchedOnceAndNoTaskIsLost) {
    RunIterations(FailACall, 3);
}

}  // namespace
