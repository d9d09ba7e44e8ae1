#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <vxsched/Table.h>

// What the host's startup makes of the table that it finds, before it decides about due tasks.
struct TRepairPlan {
    std::string bytes;                       // the table as it is
    std::vector<vxsched::TTaskEntry> tasks;  // the tasks that it should hold
    // Messages. Empty if the table is valid; else for each task, where it comes from or how it is
    // altered.
    std::vector<std::string> repairs;
    // Messages about harmless values, which are left as they are.
    std::vector<std::string> unusualValues;
    // Messages that a valid table may have lost its tasks; for an operator to check, since nothing
    // is repaired.
    std::vector<std::string> possibleLosses;
};

// Plans the repair of the table in `directory`: what can be read of a damaged one is kept, the
// youngest backup fills in the rest, and a period that would make the load hang is altered. Changes
// nothing. The caller holds the store mutex. Throws CError when the table cannot be read.
TRepairPlan PlanStartupRepair(const std::filesystem::path& directory);
