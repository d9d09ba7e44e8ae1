#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <vxsched/Table.h>

// What a start makes of the table that it finds, before it looks at what is due.
struct TRepairPlan {
    std::string bytes;                       // of the table as it is
    std::vector<vxsched::TTaskEntry> tasks;  // what it is to hold
    std::vector<std::string> repairs;  // task by task where from, or how altered; none: it is sound
    std::vector<std::string> warnings;  // what is odd about it and stays
    std::vector<std::string> alarms;    // what a person has to look at; nothing is done about it
};

// Of a damaged table what can be read is kept and the youngest copy fills in the rest, of one that a
// load would never come back from the start is moved. Without any effect; the caller holds the store
// mutex. Throws CError when the table cannot be read.
TRepairPlan PlanStartupRepair(const std::filesystem::path& directory);
