#pragma once

#include <cstdint>
#include <string>
#include <vector>

// Encodes and decodes the task file for tests, independently of the code under test.
struct TRow {
    std::string name;
    std::int64_t next = 0;
    std::int64_t last = 0;
    std::uint32_t period = 0;
    std::string program;
    std::string parameters;
    std::uint32_t paused = 0;

    bool operator==(const TRow&) const = default;
};
void PrintTo(const TRow& row, std::ostream* out);

using TRows = std::vector<TRow>;

inline constexpr char cTable[] = "files/scheduler.dat";

std::string BytesOf(const TRows& rows);

// Creates the directory "files" if it is missing and writes the table.
void WriteTable(const TRows& rows);

// The table in the file; fails the test when the file is not exactly one table.
TRows ReadTable();

std::string NamesInTable();  // separated by blanks

// The path of a quarantined table; "" when there is none.
std::string QuarantinedFile();
