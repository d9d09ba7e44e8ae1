#pragma once

// The exit statuses of vxsched, as README.md lists them.
namespace vxsched {

enum TExitStatus : int {
    cDone = 0,
    cRefusedStatus = 1,      // or failed; nothing was changed unless the message says so
    cUsageStatus = 2,        // the command line makes no sense
    cNotFoundStatus = 3,     // there is no task of that name
    cNoAccessStatus = 4,     // this user may not
    cDamagedStatus = 5,      // the table is damaged, or would harm who loads it
    cNoSchedulerStatus = 6,  // it needs a scheduling process, and there is none
};

}  // namespace vxsched
