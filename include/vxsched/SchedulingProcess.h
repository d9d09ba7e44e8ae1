#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>

#include <vxsched/Public.h>

namespace vxsched {

// The process that starts what is due in a directory.
struct TSchedulingProcess {
    pid_t process;
    bool sharesStore;  // in this IPC namespace; otherwise its mutex and events are not ours
};

// Finds it without any effect: a vxschedd by its lock on files/vxschedd.lock, another host by /proc,
// as a process that works in the directory and runs the library in several threads; the latter only
// as far as this user may look into its processes. None when there is none.
VXSCHED_PUBLIC std::optional<TSchedulingProcess> FindSchedulingProcess(
    const std::filesystem::path& directory);

// Has the scheduling process tick now, through its stop event, which stops nothing. During a tick,
// the next one follows at once. Throws CError (cNoAccess, cFailed).
VXSCHED_PUBLIC void WakeSchedulingProcess();

// Tells the scheduling process that the table was changed by other means than the library's
// functions; it reads the file again at its next tick. Throws CError (cNoAccess, cFailed).
VXSCHED_PUBLIC void AnnounceChange();

}  // namespace vxsched
