#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>

// The table of tasks: reading it without any effect, and its bytes. docs/table-file.md describes
// the format. Any thread may call these functions; the structs are plain values.
namespace vxsched {

using TTime = std::chrono::sys_seconds;

// The time by time(), as the add-in reads it. In most processes that is the coarse system clock,
// which may lag behind others, that of vxschedd among them, by a few milliseconds, so that those are
// already in the next second.
VXSCHED_PUBLIC TTime Now();

// One task as the table holds it. Strings may contain any byte.
struct TTaskEntry {
    std::string name;
    TTime next;                // the next due time
    TTime last;                // the last launch; the epoch: never
    std::uint32_t period = 0;  // hours; 0 runs once
    std::string program;       // as in the table: maybe a link, see CStore
    std::string parameter;     // the program's single argument
    bool paused = false;

    bool operator==(const TTaskEntry&) const = default;
};

// A finding in a table that can be read to its end.
struct TProblem {
    enum EKind {
        cEndless,  // a process that loads the add-in would hang: a step of zero
        cSlow,     // a process that loads the add-in would catch up for more than a second
        cUnusual,  // harmless: trailing bytes, a pause flag other than 0 and 1, a duplicate name, a
                   // name with a zero byte
    };
    EKind kind;
    std::size_t offset;   // in the file, in bytes
    std::string message;  // for a person; without the offset
};

struct VXSCHED_PUBLIC TTable {
    std::vector<TTaskEntry> tasks;  // in the order of the file
    std::vector<TProblem> problems;

    // False if loading the add-in would hang or slow down a process: there is a problem other than
    // cUnusual.
    bool IsSafeToLoad() const;

    // The first task of that name, which is the one that the add-in's functions find; null if there
    // is none. The table owns it; the pointer is valid until `tasks` changes.
    const TTaskEntry* Find(std::string_view name) const;
};

// Decodes a table; `now` decides which due times are past. Throws CError (cDamaged), with what is
// wrong at which offset, for bytes that end within the table, which the add-in would reset to an
// empty one, and for a table that the add-in can read and that has lost tasks all the same: zeros
// in the place of a task, as a power failure leaves them, or tasks after the last one that is
// counted. Other bytes after the last task are a problem (cUnusual), not an error.
VXSCHED_PUBLIC TTable DecodeTable(std::string_view bytes, TTime now);

// Encodes a table as the add-in writes it. Never fails; DecodeTable() is its inverse.
VXSCHED_PUBLIC std::string EncodeTable(const std::vector<TTaskEntry>& tasks);

// Reads the table of a working directory, without any effect: the file is opened for reading only
// and the add-in is not loaded. A missing file is an empty table. Holds the store mutex while it
// reads the file, if there is one; waits for it for at most `lockTimeout`. Do not call it in the
// callback of CStore::ReplaceAll(), which runs with that mutex held. Throws CError: cBusy if the
// mutex stays held, cDamaged, cNoAccess or cFailed if the directory or the file cannot be read.
VXSCHED_PUBLIC TTable ReadTable(const std::filesystem::path& directory,
                                std::chrono::milliseconds lockTimeout);

}  // namespace vxsched
