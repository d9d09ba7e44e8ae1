#pragma once

#include <chrono>
#include <optional>

// Decides when the worker is woken because a task falls due: once for each state of the table, at
// its earliest due time. What a tick leaves due, although it has changed the table, gets another
// wake, at most ten times a second: the add-in's tick skips the first task after it has removed one.
//
// Has no clock of its own; each call passes the system clock's time. For one thread at a time.
class CDueWake {
public:
    using TTime = std::chrono::sys_time<std::chrono::nanoseconds>;

    // The table was read after a change, and `due` is the earliest due time of its active tasks,
    // none if there is no such task.
    void TableChanged(std::optional<std::chrono::sys_seconds> due);

    // The system clock was set, or the machine has slept.
    void ClockSet();

    // When the worker is to be woken next; none before a call of one of the functions above.
    std::optional<TTime> Next() const;

    // Whether the worker is to be woken now. The wake counts as made then.
    bool Take(TTime now);

private:
    std::optional<TTime> due;
    bool isTaken = false;  // for `due`
    std::optional<TTime> lastWake;
};
