#pragma once

#include <filesystem>
#include <string>

#include "cli/output/COutput.h"
#include "runs/COutputReader.h"

namespace vxsched {

// Prints what the run of an output has written, and goes on until the run has ended if `follow` is
// set. A terminal gets no control characters of the program's but line ends and tabs. Blocks for
// what the run writes. Throws CError.
void PrintOutputOf(const std::filesystem::path& store, const std::string& run,
                   COutputReader& reader, bool follow, COutput& output);

}  // namespace vxsched
