// The floor: only the system calls of each operation, with one read and one write for the complete
// file, and the same list decoded from or encoded to a buffer that is allocated before.

#include <unistd.h>

#include <cstring>
#include <ctime>
#include <vector>

#include "bench/StoreCalls.h"
#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

namespace {

struct TDecoder {
    const char*& at;

    void operator()(std::string& value) const {
        std::uint32_t length = 0;
        (*this)(length);
        value.assign(at, length);
        at += length;
    }
    template <typename Integer>
    void operator()(Integer& value) const {
        std::memcpy(&value, at, sizeof value);
        at += sizeof value;
    }
};

struct TEncoder {
    char*& at;

    void operator()(const std::string& value) const {
        (*this)(static_cast<std::uint32_t>(value.size()));
        std::memcpy(at, value.data(), value.size());
        at += value.size();
    }
    template <typename Integer>
    void operator()(const Integer& value) const {
        std::memcpy(at, &value, sizeof value);
        at += sizeof value;
    }
};

class CFloor {
public:
    explicit CFloor(std::size_t tasks) : buffer(BytesOfTable(tasks).size()) {
        WriteTaskFile(tasks);
        Load();
    }
    ~CFloor() { ClearTasks(list); }
    CFloor(const CFloor&) = delete;
    CFloor& operator=(const CFloor&) = delete;

    void Load() {
        CheckCall(StatTaskFile() == buffer.size(), "stat");
        const int file = OpenForReading();
        const ssize_t count = read(file, buffer.data(), buffer.size());
        CheckCall(count == static_cast<ssize_t>(buffer.size()), "read");
        close(file);
        const char* at = buffer.data();
        ReadTasks(list, TDecoder{at});
    }

    void Save() {
        char* at = buffer.data();
        WriteTasks(list, TEncoder{at});
        const int file = OpenForWriting();
        const ssize_t count = write(file, buffer.data(), buffer.size());
        CheckCall(count == static_cast<ssize_t>(buffer.size()), "write");
        close(file);
    }

    TTaskList list;

private:
    std::vector<char> buffer;
};

}  // namespace

static void Load(benchmark::State& state, std::size_t tasks) {
    CFloor floor(tasks);
    for (auto _ : state) {
        const CSemaphorePair lock;
        floor.Load();
    }
    Expect(state, floor.list.size() == tasks && floor.list.back()->name == NameOf(tasks - 1),
           "the list is not the table");
}

static void Save(benchmark::State& state, std::size_t tasks) {
    CFloor floor(tasks);
    floor.list.front()->paused = 1;
    for (auto _ : state) {
        const CSemaphorePair lock;
        floor.Save();
        SignalSemaphore();
    }
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks, 0), "the file is not changed");
}

static void Change(benchmark::State& state, std::size_t tasks) {
    CFloor floor(tasks);
    for (auto _ : state) {
        const CSemaphorePair lock;
        floor.Load();
        floor.list.back()->paused = 1;
        floor.Save();
        SignalSemaphore();
    }
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks, tasks - 1), "the file is not changed");
}

static void TickWithNothingDue(benchmark::State& state, std::size_t tasks) {
    const CFloor floor(tasks);
    bool due = false;
    for (auto _ : state) {
        const CSemaphorePair lock;
        due |= TestSemaphore();
        const std::time_t now = std::time(nullptr);
        for (const TTask* task : floor.list)
            due |= task->paused == 0 && now >= task->nextExecution;
        benchmark::DoNotOptimize(due);
    }
    Expect(state, !due, "something was due");
}

static const bool gRegistered =
    RegisterTableBenchmark("load", "floor", Load, TableSizesAnd(500)) &&
    RegisterTableBenchmark("save", "floor", Save) &&
    RegisterTableBenchmark("change", "floor", Change, TableSizesAnd(400)) &&
    RegisterTableBenchmark("tick", "floor", TickWithNothingDue);
