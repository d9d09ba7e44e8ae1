#pragma once

#include "scheduler/Scheduler.h"

// The task file: the number of tasks as 8 bytes, then each task's seven fields, integers in the
// host's byte order. There is no magic number, no version, no check sum and nothing after the last
// task.
inline constexpr char cTaskFile[] = "files/scheduler.dat";

// Passes the fields of a task to `transfer` one by one, in the order of the file. This is the only
// definition of the order; all code that reads or writes a table uses it. `transfer` takes a
// std::string (32-bit length, then the bytes), a time_t (8 bytes), a std::uint32_t (4 bytes) and,
// for the paused flag, a std::int32_t (4 bytes, as unsigned); by reference, const where `Task` is.
template <typename Task, typename Transfer>
void ForEachField(Task& task, const Transfer& transfer) {
    transfer(task.name);
    transfer(task.nextExecution);
    transfer(task.lastExecuted);
    transfer(task.period);
    transfer(task.program);
    transfer(task.parameters);
    transfer(task.paused);
}
