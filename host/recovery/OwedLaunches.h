#pragma once

#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"
#include "store/OwedLaunches.h"

// Launches that came due and that the system refused for want of processes. The add-in takes the
// failure for a run, so the table does not show that the launch is owed; the host makes it when it
// can, and the next host if this one is killed.
//
// The name of a file in files/owed/ is that of the launch record. The launched process empties the
// file right before it becomes the program, so an empty file is of a launch that was made. A power
// failure may undo that; so each attempt has a launch intent (CLaunchIntents.h), which stays until
// the removal of the file is on the disk.

using vxsched::TOwedLaunch;

std::string OwedLaunchPath(const TOwedLaunch& launch);
TLaunchIntent IntentOf(const TOwedLaunch& launch);

// Writes the file. Until the table shows the launch, it also counts as a launch record of this
// process, so that a table that is restored does not show it as due. False, with a warning in the
// log, if the file cannot be written: the launch is then lost if the host is killed.
bool KeepOwedLaunch(const TOwedLaunch& launch);

// Removes the file, and waits until that is on the disk.
void ForgetOwedLaunch(const TOwedLaunch& launch);

// Why a launch is not to be made any more: `tasks`, the present table, no longer has its task as it
// was when it came due. Empty if it is still to be made, as that of a task that runs once always is:
// the tick has removed it from the table.
std::string WhyNotWanted(const TOwedLaunch& launch, const std::vector<vxsched::TTaskEntry>& tasks);

// Returns the launches that the working directory still owes, in the order of their due times.
// Files that cannot be read are left out, and logged.
std::vector<TOwedLaunch> ReadOwedLaunches();

// Removes the files of launches that are not owed at a startup: `records` show that they were made,
// or `tasks`, the table as the former host left it, still show them as due, which decides about
// them. Returns the others that `intents`, those of another boot, show: whether they were made is
// unknown. The caller reports and forgets them. To be called before records and intents are removed
// and the table is changed.
std::vector<TOwedLaunch> SettleOwedLaunches(const std::vector<TLaunchRecord>& records,
                                            const std::vector<TLaunchIntent>& intents,
                                            const std::vector<vxsched::TTaskEntry>& tasks);
