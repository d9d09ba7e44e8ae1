#pragma once

#include <string>

// The folders that are measured in: "disk" on the file system of the current directory, "tmpfs" in
// memory, below /dev/shm or the folder that the environment variable BENCH_MEMORY names.

inline constexpr const char* cPlaces[] = {"disk", "tmpfs"};

// Makes the folders for as long as it lives, enters the first and says in the benchmark's context
// which file system each is on. A folder that cannot be made ends the process with status 1.
class CPlaces {
public:
    CPlaces();
    ~CPlaces();
    CPlaces(const CPlaces&) = delete;
    CPlaces& operator=(const CPlaces&) = delete;
};

// Makes that place the working directory. While a CPlaces lives.
void EnterPlace(const std::string& place);
