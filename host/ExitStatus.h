#pragma once

// The exit statuses of vxschedd, as README.md and docs/operating.md list them.
enum TExitStatus : int {
    cStopped = 0,      // stopped by SIGTERM or SIGINT; --check or --run-once done
    cFailed = 1,       // a failure without a status of its own
    cUsage = 2,        // the command line is invalid
    cNoDirectory = 3,  // the directory, or a file in it, cannot be used
    cSecondHost = 4,   // another host runs in the directory
    cNoAddIn = 5,      // the add-in cannot be loaded
    cBadTable = 6,     // the table cannot be read, or cannot be repaired
    cNoStore = 7,      // the store's semaphores cannot be used
};
