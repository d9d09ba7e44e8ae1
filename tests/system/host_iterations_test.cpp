// Iterations of faults: a task is made due under a running host, and a process is killed, the disk
// is full, or a call on the files fails. After each iteration and a restart every task is there,
// and each due time was launched once.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vxsched/Table.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
constexpr int cFaultStep = 1;
constexpr int cLongestPause = 20'000;  // microseconds: about as long as a change and a tick take
#else
constexpr int cIterations = 8;
constexpr int cFaultStep = 7;
constexpr int cLongestPause = 300'000;
#endif

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
        for (const auto& [name, value] : WithoutPauses())
            setenv(name.c_str(), value.c_str(), 1);
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
    // the table shows whether it was launched. It is in the past: since launches take no pause
    // here, a task could be due again within the same second.
    std::vector<std::string> MakeDue(int iteration) {
        before = Next();
        const std::string due = "@" + std::to_string(beginning - iteration);
        return {TOOL_PROGRAM, "edit", "job", "--at", due, "--every", "1d"};
    }

    // Under a host that was started after the faults. `what` describes the iteration.
    void ExpectNothingIsLost(CHost& host, const std::string& what) {
        EXPECT_EQ(RunTool({"wake"}).status, 0);
        EXPECT_EQ(RunTool({"pause", "third"}).status, 0) << "it waits for due tasks";
        WaitUntil(WorkerIsIdle);
        if (Next() != before)
            ++launched;
        WaitUntil([&] { return Launches() >= launched; });
        EXPECT_EQ(Launches(), launched) << what << "\nafter it:\n" << host.Output();
        EXPECT_EQ(vxsched::ReadTable(".", 30s).tasks.size(), 4U) << what << "\nafter it:\n"
                                                                 << host.Output();
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
    const std::time_t beginning = std::time(nullptr) - 1;
    vxsched::TTime before;
    std::size_t launched = 0;
};

using TIteration = void (*)(CStoreUnderTest& store, int number, int iteration);

// Takes the stores through their iterations in parallel. `disk` is the size in blocks of a file
// system for each.
void RunIterations(TIteration runIteration, unsigned int seed, std::optional<int> disk = {}) {
    std::vector<std::unique_ptr<CForkedChild>> stores;
    for (int number = 0; number < cStores; ++number) {
        stores.push_back(std::make_unique<CForkedChild>([&, number] {
            CStoreUnderTest store(number, seed * cStores + static_cast<unsigned int>(number));
            if (disk)
                store.UseDisk(*disk);
            store.Begin();
            for (int iteration = 0; iteration < cIterations && !testing::Test::HasFailure();
                 ++iteration)
                runIteration(store, number, iteration);
            EXPECT_GT(store.CountOfLaunches(), 0U) << "no program was launched";
            return testing::Test::HasFailure() ? 2 : 42;
        }));
    }
    for (const auto& store : stores)
        EXPECT_EQ(store->Wait(), 42);
}

// ---- Kills ------------------------------------------------------------------------------------

void KillSomething(CStoreUnderTest& store, int /*number*/, int iteration) {
    auto host = std::make_unique<CHost>();
    CProgram edit(store.MakeDue(iteration));
    CProgram pause({TOOL_PROGRAM, iteration % 2 == 0 ? "pause" : "resume", "other"});
    store.PauseAtRandom();
    const int victim = store.Random(3);
    if (victim == 0 || victim == 3)
        edit.Kill(SIGKILL);
    if (victim != 0)
        host->Kill(SIGKILL);
    edit.Wait();
    if (victim == 0)
        EXPECT_EQ(host->Stop(), 0);
    else
        host->Wait();
    const std::string description = "in iteration " + std::to_string(iteration) + ", victim " +
                                    std::to_string(victim) + "\n" + host->Output() +
                                    "\nedit: " + edit.Output();
    host = std::make_unique<CHost>();
    pause.Wait();
    store.ExpectNothingIsLost(*host, description);
}

class HostKilled : public testing::TestWithParam<unsigned int> {};

TEST_P(HostKilled, EveryDueTimeIsLaunchedOnceAndNoTaskIsLost) {
    RunIterations(KillSomething, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Half, HostKilled, testing::Range(0U, 2U));

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
