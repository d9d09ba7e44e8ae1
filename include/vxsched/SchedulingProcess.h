#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

#include <vxsched/Public.h>

// Finding and waking the process that launches the due tasks of a directory. Any thread may call
// these functions, with or without locks held; none of them blocks.
namespace vxsched {

struct VXSCHED_PUBLIC TSchedulingProcess {
    pid_t process;     // 0 if it runs in a PID namespace that this process does not see
    bool sharesStore;  // it runs in this IPC namespace; otherwise its store mutex and events cannot
                       // be reached from here. True if its namespace cannot be read
    bool holdsLock;    // it is a vxschedd. Otherwise it may be a direct client with several threads

    // For a message: "process 123".
    std::string Name() const;
};

// Finds the scheduling process of `directory`, without any effect: a vxschedd by its locks on
// files/vxschedd.lock, also in another PID namespace; another host by /proc, as a process that
// works in the directory, has the add-in mapped and several threads. The latter is found only if
// this user may inspect it. Empty if there is none. The process may end at any time afterwards.
// Throws CError (cNoAccess) if this user may not enter the store's directory "files", so that it is
// not known whether there is one.
VXSCHED_PUBLIC std::optional<TSchedulingProcess> FindSchedulingProcess(
    const std::filesystem::path& directory);

// Has the scheduling process of this IPC namespace tick at once, or again right after the tick
// under way, by signalling its stop event; that stops nothing. Without a scheduling process it has
// no effect. Throws CError (cNoAccess, cFailed).
VXSCHED_PUBLIC void WakeSchedulingProcess();

// Has the scheduling process of this IPC namespace read the table again at its next tick. For a
// table that was written without the add-in's functions, which announce their changes themselves;
// call it while still holding the store mutex, or a tick may write its own list over the table
// first. Throws CError (cNoAccess, cFailed).
VXSCHED_PUBLIC void AnnounceChange();

}  // namespace vxsched
