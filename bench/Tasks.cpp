#include "bench/Tasks.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <stdexcept>

// `prefix`, then the number with as many digits as make the string `length` bytes long.
static std::string Numbered(const std::string& prefix, std::size_t index, std::size_t length) {
    const std::string number = std::to_string(index);
    return prefix + std::string(length - prefix.size() - number.size(), '0') + number;
}

std::string NameOf(std::size_t index) {
    return Numbered("nightly-report-", index, 24);
}

long NextExecutionOf(std::size_t index) {
    return 4'000'000'000 + static_cast<long>(index);
}

void Fill(TTask& task, std::size_t index) {
    task.name = NameOf(index);
    task.nextExecution = NextExecutionOf(index);
    task.lastExecuted = 1'700'000'000;
    task.period = 24;
    task.program = Numbered("/opt/vantrix/bin/report-", index, 32);
    task.parameters = Numbered("--configuration /etc/vantrix/report-", index, 48);
}

void FillTasks(TTaskList& list, std::size_t count) {
    ClearTasks(list);
    for (std::size_t index = 0; index < count; ++index) {
        list.push_back(new TTask);
        Fill(*list.back(), index);
    }
}

void ClearTasks(TTaskList& list) {
    for (const TTask* task : list)
        delete task;
    list.clear();
}

namespace {

struct TAppender {
    std::string& bytes;

    void operator()(const std::string& value) const {
        Append(static_cast<std::uint32_t>(value.size()));
        bytes += value;
    }
    template <typename Integer>
    void operator()(const Integer& value) const {
        Append(value);
    }
    template <typename Integer>
    void Append(Integer value) const {
        bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
    }
};

}  // namespace

std::string BytesOfTable(std::size_t count, std::size_t paused) {
    std::string bytes;
    const TAppender append{bytes};
    append(static_cast<std::uint64_t>(count));
    for (std::size_t index = 0; index < count; ++index) {
        TTask task;
        Fill(task, index);
        task.paused = index == paused ? 1 : 0;
        ForEachField(task, append);
    }
    return bytes;
}

void WriteTaskFile(std::size_t count) {
    std::ofstream file(cTaskFile, std::ios::binary | std::ios::trunc);
    file << BytesOfTable(count);
    if (!file.flush())
        throw std::runtime_error("cannot write the table");
}

std::string ContentOfTaskFile() {
    std::ifstream file(cTaskFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
