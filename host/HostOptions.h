#pragma once

#include <optional>
#include <string>

struct THostOptions {
    std::string directory;  // as the user named it
    std::string addIn;      // path of the add-in's library
};

// Reads the command line. None when it asked for the help or the version, which has then been
// printed to standard output. Throws CHostError (cUsage), with the whole message, for anything that
// makes no sense.
std::optional<THostOptions> ParseHostOptions(int argc, const char* const* argv);
