#include "host/service/CRunnerWatch.h"

#include <sys/inotify.h>

#include <cstdint>

#include "base/DrainDescriptor.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

// The system closes the file of a runner that dies; one that ends has removed it before.
static constexpr std::uint32_t cDeaths = IN_CLOSE_WRITE | IN_EXCL_UNLINK | IN_ONLYDIR;

CRunnerWatch::CRunnerWatch(CLaunchedPrograms& launchedPrograms)
    : programs(launchedPrograms), events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    vxsched::MakePrivateDirectory(vxsched::cRunningDirectory, ".");
    inotify_add_watch(events.Get(), vxsched::cRunningDirectory, cDeaths);
}

void CRunnerWatch::Record() const {
    DrainDescriptor(events.Get());
    // Its own closing of a file that stays would have it tried again at once, for ever.
    if (!programs.RecordDead())
        DrainDescriptor(events.Get());
}
