#pragma once

#include <filesystem>

#include "base/CDescriptor.h"

namespace vxsched {

// Waits for what happens to the runs of a store. Also returns in between: the caller checks whether
// it has happened. For one thread.
class CRunWatch {
public:
    explicit CRunWatch(const std::filesystem::path& store);

    // Also for what is written to the file of an output.
    CRunWatch(const std::filesystem::path& store, const std::filesystem::path& output);

    // Blocks until a run ends or writes, or for a second: nothing announces that a runner was killed.
    void Wait() const;

private:
    CDescriptor events;
};

}  // namespace vxsched
