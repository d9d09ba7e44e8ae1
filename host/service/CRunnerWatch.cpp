#include "host/service/CRunnerWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cstdint>

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
    Drain();
    programs.RecordDead();
    // The files that this has opened: what could not be recorded now is not tried again at once.
    Drain();
}

void CRunnerWatch::Drain() const {
    std::array<char, 4096> ignored;
    while (read(events.Get(), ignored.data(), ignored.size()) > 0) {
    }
}
