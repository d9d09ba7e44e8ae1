#pragma once

#include <string>

#include "cli/commands/Commands.h"

namespace vxsched {

// What a change has made of a task: "backup, every 1d, next due 2026-11-22 02:00:00 (in 11h 5min)". Of
// a dry run it says so. Not safe for a terminal: names are as they are.
std::string DescribeTask(const TCommon& common, const TTaskEntry& task);

}  // namespace vxsched
