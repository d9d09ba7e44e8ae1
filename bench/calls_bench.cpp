// Loading and saving the same file with a system call for each field, two for a string.

#include <scheduler/TaskFields.h>
#include <unistd.h>

#include "bench/StoreCalls.h"
#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

namespace {

struct TCallReader {
    int file;

    void operator()(std::string& value) const {
        std::uint32_t length = 0;
        (*this)(length);
        value.resize(length);
        Read(value.data(), length);
    }
    template <typename Integer>
    void operator()(Integer& value) const {
        Read(&value, sizeof value);
    }
    void Read(void* data, std::size_t length) const {
        CheckCall(read(file, data, length) == static_cast<ssize_t>(length), "read");
    }
};

struct TCallWriter {
    int file;

    void operator()(const std::string& value) const {
        (*this)(static_cast<std::uint32_t>(value.size()));
        Write(value.data(), value.size());
    }
    template <typename Integer>
    void operator()(const Integer& value) const {
        Write(&value, sizeof value);
    }
    void Write(const void* data, std::size_t length) const {
        CheckCall(write(file, data, length) == static_cast<ssize_t>(length), "write");
    }
};

}  // namespace

static void Load(benchmark::State& state, std::size_t tasks) {
    WriteTaskFile(tasks);
    TTaskList list;
    for (auto _ : state) {
        const CSemaphorePair lock;
        StatTaskFile();
        const int file = OpenForReading();
        ReadTasks(list, TCallReader{file});
        close(file);
    }
    Expect(state, list.size() == tasks && list.back()->name == NameOf(tasks - 1),
           "the list is not the table");
    ClearTasks(list);
}

static void Save(benchmark::State& state, std::size_t tasks) {
    TTaskList list;
    FillTasks(list, tasks);
    for (auto _ : state) {
        const CSemaphorePair lock;
        const int file = OpenForWriting();
        WriteTasks(list, TCallWriter{file});
        CheckCall(close(file) == 0, "close");
        SignalSemaphore();
    }
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks), "the file is not the table");
    ClearTasks(list);
}

static const bool gRegistered =
    RegisterTableBenchmark("load", "calls", Load) && RegisterTableBenchmark("save", "calls", Save);
