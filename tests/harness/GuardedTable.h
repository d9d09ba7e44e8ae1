#pragma once

#include <vxsched/SchedulingProcess.h>
#include "store/CStoreMutexLock.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <string>
#include <system_error>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

// A table that a real host guards: tasks that are not due, changes as a client makes them, and the
// files that the host keeps next to the table.

inline constexpr std::int64_t cFar = 4'000'000'000;

inline TRow Row(const std::string& name) {
    return {name, cFar, 0, 24, "/bin/program", "a parameter", 0};
}

inline const TRows cThree = {Row("first"), Row("second"), Row("third")};

// How many files of the directory have `part` in their names.
inline std::size_t CountIn(const std::string& directory, const std::string& part = "") {
    std::size_t count = 0;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(directory, ignored))
        count += entry.path().filename().string().find(part) != std::string::npos ? 1 : 0;
    return count;
}

inline void WaitForTable(const TRows& rows) {
    WaitUntil([&] { return ReadFile(cTable) == BytesOf(rows); });
}

// Signals that the table was changed and makes the worker tick.
inline void WakeChanged() {
    vxsched::AnnounceChange();
    vxsched::WakeSchedulingProcess();
}

// Writes the table under the store mutex, and announces nothing.
inline void SaveTable(const TRows& rows) {
    const vxsched::CStoreMutexLock lock(std::chrono::seconds(10));
    WriteTable(rows);
}

// Stops a host by SIGSTOP while none of its threads has the store mutex.
inline void Suspend(const CHost& host) {
    const vxsched::CStoreMutexLock lock(std::chrono::seconds(30));
    host.Kill(SIGSTOP);
    WaitUntil([&] { return host.Status("State").starts_with('T') && !WorkerIsIdle(); });
}

// Makes the only task due while a host runs (HostThatPauses) and waits for its launch; the tick then
// pauses for two seconds. Returns the table as it was written.
inline TRows StartTheOnlyTask() {
    TRows rows = ReadTable();
    rows.at(0).next = std::time(nullptr);
    SaveTable(rows);
    WakeChanged();
    WaitUntil([] { return std::filesystem::exists("log"); });
    return rows;
}
