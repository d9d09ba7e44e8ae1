#pragma once

#include <vxsched/Error.h>

// The exit statuses of vxsched. README.md documents them for users, so they must not change.
namespace vxsched {

enum TExitStatus : int {
    cDone = 0,
    cRefusedStatus = 1,      // or failed; nothing was changed unless the message reports a change
    cUsageStatus = 2,        // the command line could not be parsed
    cNotFoundStatus = 3,     // there is no task of that name, or no such output of it
    cNoAccessStatus = 4,     // this user lacks a permission
    cDamagedStatus = 5,      // the table is damaged, or loading it would hang a process
    cNoSchedulerStatus = 6,  // the command needs a scheduling process, and none is running
    cUnknownStatus = 9,      // the change was begun; whether the table has it is not known
};

inline TExitStatus StatusOf(EError error) {
    switch (error) {
        case EError::cNotFound:
            return cNotFoundStatus;
        case EError::cNoAccess:
            return cNoAccessStatus;
        case EError::cDamaged:
            return cDamagedStatus;
        case EError::cNoScheduler:
            return cNoSchedulerStatus;
        case EError::cUnknown:
            return cUnknownStatus;
        case EError::cFailed:
        case EError::cBusy:
        case EError::cRefused:
            break;
    }
    return cRefusedStatus;
}

}  // namespace vxsched
