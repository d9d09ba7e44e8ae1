// Launching a program as the add-in does, from a small process and from a large one, compared with
// fork and exec. Measures the time until the caller continues, without the program's own time.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <string>

namespace {

// Makes this process use that much memory, in ordinary pages, while it exists.
class CUsedMemory {
public:
    explicit CUsedMemory(std::size_t length) : size(length) {
        memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            return;
        madvise(memory, size, MADV_NOHUGEPAGE);
        for (std::size_t offset = 0; offset < size; offset += 4096)
            static_cast<volatile char*>(memory)[offset] = 1;
    }
    ~CUsedMemory() {
        if (memory != MAP_FAILED)
            munmap(memory, size);
    }
    CUsedMemory(const CUsedMemory&) = delete;
    CUsedMemory& operator=(const CUsedMemory&) = delete;

private:
    const std::size_t size;
    void* memory;
};

}  // namespace

static constexpr std::size_t cMegabyte = std::size_t{1} << 20;

static std::size_t ResidentMemory() {
    std::ifstream file("/proc/self/statm");
    std::size_t total = 0;
    std::size_t resident = 0;
    file >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

static char gProgram[] = BENCH_PROGRAM;
static char gParameters[] = "one string";
static char* gArguments[] = {gProgram, gParameters, nullptr};

static pid_t LaunchBySpawn() {
    pid_t process = -1;
    return posix_spawn(&process, gProgram, nullptr, nullptr, gArguments, environ) == 0 ? process
                                                                                       : -1;
}

static pid_t LaunchByFork() {
    const pid_t process = fork();
    if (process == 0) {
        execve(gProgram, gArguments, environ);
        _exit(127);
    }
    return process;
}

// Launches from this process while it uses `megabytes`.
static void Launch(benchmark::State& state, pid_t (*launch)(), std::size_t megabytes) {
    const std::size_t wanted = megabytes * cMegabyte;
    const std::size_t before = ResidentMemory();
    const CUsedMemory memory(wanted > before ? wanted - before : cMegabyte);
    if (ResidentMemory() < wanted * 9 / 10) {
        state.SkipWithError("not enough memory");
        return;
    }
    for (auto _ : state) {
        const pid_t process = launch();
        state.PauseTiming();
        int status = -1;
        if (process == -1 || waitpid(process, &status, 0) != process || status != 0) {
            state.SkipWithError("the program did not run");
            break;
        }
        state.ResumeTiming();
    }
}

BENCHMARK_CAPTURE(Launch, spawn10, LaunchBySpawn, 10)->Name("launch/posix_spawn/10")->UseRealTime();
BENCHMARK_CAPTURE(Launch, spawn1000, LaunchBySpawn, 1000)
    ->Name("launch/posix_spawn/1000")
    ->UseRealTime();
BENCHMARK_CAPTURE(Launch, fork10, LaunchByFork, 10)->Name("launch/fork and exec/10")->UseRealTime();
BENCHMARK_CAPTURE(Launch, fork1000, LaunchByFork, 1000)
    ->Name("launch/fork and exec/1000")
    ->UseRealTime();
