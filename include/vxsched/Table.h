#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>

namespace vxsched {

using TTime = std::chrono::sys_seconds;

// The time by the clock that the scheduler reads. Other clocks may already be in the next second.
VXSCHED_PUBLIC TTime Now();

// One task as the table holds it.
struct TTaskEntry {
    std::string name;
    TTime next;
    TTime last;                // the beginning of 1970: never
    std::uint32_t period = 0;  // hours; 0 runs once
    std::string program;
    std::string parameter;
    bool paused = false;

    bool operator==(const TTaskEntry&) const = default;
};

// Something in a table that can be read and yet does harm, or is not as the add-in writes it.
struct TProblem {
    enum EKind {
        cEndless,  // a process that loads the library would never come back: a step of zero
        cSlow,     // it would catch up for more than a second
        cUnusual,  // harmless: trailing bytes, a pause flag other than 0 and 1, a name twice, a name
                   // with a zero byte
    };
    EKind kind;
    std::size_t offset;  // in the file
    std::string text;
};

struct VXSCHED_PUBLIC TTable {
    std::vector<TTaskEntry> tasks;  // in the order of the file
    std::vector<TProblem> problems;

    // True when a process that loads the library is not the worse for it.
    bool IsSafeToLoad() const;

    // The first task of that name, which is the one that the library's functions find; null when
    // there is none. Valid as long as the table is not changed.
    const TTaskEntry* Find(std::string_view name) const;
};

// Reads a table from its bytes; `now` is what past starts would be caught up with. Throws
// CError (cDamaged) that says what is wrong at which offset when the bytes are not a table:
// the add-in would reset such a file to an empty table.
VXSCHED_PUBLIC TTable DecodeTable(std::string_view bytes, TTime now);

// The bytes of a table as the add-in writes them.
VXSCHED_PUBLIC std::string EncodeTable(const std::vector<TTaskEntry>& tasks);

// Reads the table of a working directory without any effect: the file is opened for reading only,
// the store mutex is taken as a waiter if there is a store, and the library is not loaded. A missing
// file is an empty table. Throws CError: cBusy, cDamaged, or cNoAccess or cFailed when the
// directory or the file cannot be read.
VXSCHED_PUBLIC TTable ReadTable(const std::filesystem::path& directory,
                                std::chrono::milliseconds lockTimeout);

// The bytes of a working directory's table, for somebody who keeps its writers out: who holds the
// store mutex, or is a part of the tick that does. A missing file is an empty table. Throws
// CError (cNoAccess, cFailed) when the file cannot be read, or is a pipe or a device.
VXSCHED_PUBLIC std::string ReadTableBytes(const std::filesystem::path& directory);

}  // namespace vxsched
