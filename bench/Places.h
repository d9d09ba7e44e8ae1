#pragma once

#include <string>

// The directories of the benchmarks: "disk" on the file system of the current directory, "tmpfs" in
// memory, below /dev/shm or the directory in the environment variable BENCH_MEMORY.

inline constexpr const char* cPlaces[] = {"disk", "tmpfs"};

// Creates the directories and removes them when destroyed, enters the first, and records in the
// benchmark's context which file system each is on. Exits with status 1 if one cannot be created.
class CPlaces {
public:
    CPlaces();
    ~CPlaces();
    CPlaces(const CPlaces&) = delete;
    CPlaces& operator=(const CPlaces&) = delete;
};

// Makes that place the working directory. Needs a CPlaces.
void EnterPlace(const std::string& place);
