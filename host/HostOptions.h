#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// Whether a host may work in a directory on a network file system.
enum class ENetwork { cRefused, cPermitted };

// The options of vxschedd, as its help lists them; ParseHostOptions() sets the defaults.
struct THostOptions {
    std::string directory;                 // as given
    std::string addIn;                     // path of the add-in's library
    std::string logFile;                   // empty: standard error
    std::string output = "inherit";        // see CProgramOutput
    std::uint64_t outputSize = 0;          // bytes
    std::uint64_t historySize = 0;         // bytes; 0: no history
    std::size_t snapshots = 24;            // of the table; 0: none
    std::chrono::seconds lockTimeout{30};  // for clients that hold the store at startup and exit
    std::chrono::seconds launchPause{0};   // after each launch, with the store mutex held
    bool check = false;                    // check the set-up only
    bool runOnce = false;                  // one tick only
    ENetwork network = ENetwork::cRefused;
};

// Parses the command line. Relative paths become absolute, except `directory`, which is resolved
// when it is entered. Returns nothing when the help or the version was asked for; it has then been
// printed to standard output. Throws CHostError (cUsage) for an invalid command line.
std::optional<THostOptions> ParseHostOptions(int argc, const char* const* argv);
