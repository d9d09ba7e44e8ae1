// Starting a program, as the add-in does, from a small process and from a large one, beside fork
// and exec. The time is that until the caller goes on; the program's own is not in it.

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <fstream>
#include <string>

namespace {

// So much memory in use by this process, in ordinary pages, for as long as it lives.
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
static char gParameters[] = "one text";
static char* gArguments[] = {gProgram, gParameters, nullptr};

static pid_t StartBySpawn() {
    pid_t process = -1;
    return posix_spawn(&process, gProgram, nullptr, nullptr, gArguments, environ) == 0 ? process
                                                                                       : -1;
}

static pid_t StartByFork() {
    const pid_t process = fork();
    if (process == 0) {
        execve(gProgram, gArguments, environ);
        _exit(127);
    }
    return process;
}

// With `megabytes` in use by this process.
static void Start(benchmark::State& state, pid_t (*start)(), std::size_t megabytes) {
    const std::size_t wanted = megabytes * cMegabyte;
    const std::size_t before = ResidentMemory();
    const CUsedMemory memory(wanted > before ? wanted - before : cMegabyte);
    if (ResidentMemory() < wanted * 9 / 10) {
        state.SkipWithError("there is not so much memory");
        return;
    }
    for (auto _ : state) {
        const pid_t process = start();
        state.PauseTiming();
        int status = -1;
        if (process == -1 || waitpid(process, &status, 0) != process || status != 0) {
            state.SkipWithError("the program did not run");
            break;
        }
        state.ResumeTiming();
    }
}

BENCHMARK_CAPTURE(Start, spawn10, StartBySpawn, 10)->Name("start/posix_spawn/10")->UseRealTime();
BENCHMARK_CAPTURE(Start, spawn1000, StartBySpawn, 1000)
    ->Name("start/posix_spawn/1000")
    ->UseRealTime();
BENCHMARK_CAPTURE(Start, fork10, StartByFork, 10)->Name("start/fork and exec/10")->UseRealTime();
BENCHMARK_CAPTURE(Start, fork1000, StartByFork, 1000)
    ->Name("start/fork and exec/1000")
    ->UseRealTime();
