#include "runs/CRunWatch.h"

#include <poll.h>
#include <sys/inotify.h>

#include "base/DrainDescriptor.h"
#include "store/Layout.h"

namespace vxsched {

// Where the system has no inotify, or no more of it.
static constexpr int cLongestWait = 1000;  // milliseconds

CRunWatch::CRunWatch(const std::filesystem::path& store)
    : events(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {
    inotify_add_watch(events.Get(), (store / cRunningDirectory).c_str(), IN_DELETE);
}

CRunWatch::CRunWatch(const std::filesystem::path& store, const std::filesystem::path& output)
    : CRunWatch(store) {
    inotify_add_watch(events.Get(), output.c_str(), IN_MODIFY);
}

void CRunWatch::Wait() const {
    pollfd event{.fd = events.Get(), .events = POLLIN, .revents = 0};
    poll(&event, 1, cLongestWait);
    DrainDescriptor(events.Get());
}

}  // namespace vxsched
