#pragma once

// The exit statuses of vxschedd, as README.md lists them.
enum TExitStatus : int {
    cStopped = 0,      // stopped by SIGTERM or SIGINT, cleanly, or did what it was told to do once
    cFailed = 1,       // something that has no status of its own
    cUsage = 2,        // the command line makes no sense
    cNoDirectory = 3,  // the directory cannot be worked in
    cSecondHost = 4,   // another host runs in the directory
    cNoAddIn = 5,      // the add-in cannot be loaded
    cBadTable = 6,     // the table cannot be read, or cannot be mended
    cNoStore = 7,      // the store's semaphores cannot be used
};
