#pragma once

#include <scheduler/Scheduler.h>
#include <scheduler/TaskFields.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

// The tasks of all benchmarks: strings of a realistic length (name 24, program 32, parameters 48
// bytes), never due.

using TTaskList = std::list<TTask*>;

std::string NameOf(std::size_t index);
long NextExecutionOf(std::size_t index);
void Fill(TTask& task, std::size_t index);

// The list owns its tasks.
void FillTasks(TTaskList& list, std::size_t count);
void ClearTasks(TTaskList& list);

// The table of `count` tasks as it is in the file, with the task at `paused` paused.
inline constexpr std::size_t cNone = SIZE_MAX;
std::string BytesOfTable(std::size_t count, std::size_t paused = cNone);

// The table as the task file of the working directory.
void WriteTaskFile(std::size_t count);

std::string ContentOfTaskFile();

// Builds the list from the fields that `reader` delivers, and passes the list to `writer`, field by
// field as ForEachField() does; the number of tasks is transferred as a time_t, which has its size.
template <typename Reader>
void ReadTasks(TTaskList& list, const Reader& reader) {
    ClearTasks(list);
    std::time_t count = 0;
    reader(count);
    for (std::time_t index = 0; index < count; ++index) {
        auto* const task = new TTask;
        ForEachField(*task, reader);
        list.push_back(task);
    }
}

template <typename Writer>
void WriteTasks(const TTaskList& list, const Writer& writer) {
    writer(static_cast<std::time_t>(list.size()));
    for (const TTask* task : list)
        ForEachField(*task, writer);
}
