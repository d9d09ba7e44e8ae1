// Loading and saving the same file through the C library's streams, a field at a time.

#include <scheduler/TaskFields.h>

#include <cstdio>

#include "bench/StoreCalls.h"
#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

namespace {

struct TStreamReader {
    std::FILE* file;

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
        CheckCall(std::fread(data, 1, length, file) == length, "fread");
    }
};

struct TStreamWriter {
    std::FILE* file;

    void operator()(const std::string& value) const {
        (*this)(static_cast<std::uint32_t>(value.size()));
        Write(value.data(), value.size());
    }
    template <typename Integer>
    void operator()(const Integer& value) const {
        Write(&value, sizeof value);
    }
    void Write(const void* data, std::size_t length) const {
        CheckCall(std::fwrite(data, 1, length, file) == length, "fwrite");
    }
};

}  // namespace

static std::FILE* Open(const char* mode) {
    std::FILE* const file = std::fopen(cTaskFile, mode);
    CheckCall(file != nullptr, "fopen");
    return file;
}

static void Load(benchmark::State& state, std::size_t tasks) {
    WriteTaskFile(tasks);
    TTaskList list;
    for (auto _ : state) {
        const CSemaphorePair lock;
        StatTaskFile();
        std::FILE* const file = Open("r+b");
        ReadTasks(list, TStreamReader{file});
        std::fclose(file);
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
        std::FILE* const file = Open("w+b");
        WriteTasks(list, TStreamWriter{file});
        CheckCall(std::fclose(file) == 0, "fclose");
        SignalSemaphore();
    }
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks), "the file is not the table");
    ClearTasks(list);
}

static const bool gRegistered =
    RegisterTableBenchmark("load", "stdio", Load) && RegisterTableBenchmark("save", "stdio", Save);
