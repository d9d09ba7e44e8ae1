#pragma once

#include <chrono>
#include <filesystem>
#include <string>

namespace vxsched {

struct TStoreOptions {
    std::filesystem::path directory = ".";  // the scheduling process's working directory
    std::chrono::milliseconds lockTimeout = std::chrono::seconds(60);  // for whatever is waited for
    // Go on when tasks are due and no scheduling process is there to start them; they stay due.
    bool evenIfDue = false;
    std::string addIn = {};  // path of the add-in's library; empty: the one beside this library
};

}  // namespace vxsched
