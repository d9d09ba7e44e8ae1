#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

struct THostOptions {
    std::string directory;                               // as the user named it
    std::string addIn;                                   // path of the add-in's library
    std::string logFile;                                 // empty: standard error
    std::string output = "inherit";                      // as CProgramOutput takes it
    std::uint64_t outputSize = std::uint64_t{1} << 20;   // bytes
    std::uint64_t historySize = std::uint64_t{1} << 20;  // bytes; 0 keeps no records
    std::size_t snapshots = 24;                          // of the table; 0 keeps none
    std::chrono::seconds lockTimeout{30};  // with a client that keeps the store at the start
    bool check = false;                    // look at the set-up only
    bool runOnce = false;                  // one tick only
};

// Reads the command line. None when it asked for the help or the version, which has then been
// printed to standard output. Throws CHostError (cUsage), with the whole message, for anything that
// makes no sense.
std::optional<THostOptions> ParseHostOptions(int argc, const char* const* argv);
