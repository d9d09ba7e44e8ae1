#include "host/startup/NamespaceChecks.h"

#include <CEvent.h>
#include <fmt/format.h>

#include "base/Processes.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

std::string WarningOfOtherUsers() {
    const CEvent::TUse use = CEvent::UseOf(vxsched::cStopEventName);
    if (use.waiters > 0)
        return "another scheduling process runs in this IPC namespace: the two share the store "
               "mutex "
               "and consume each other's signals, even if they work in different directories. Give "
               "each store an IPC namespace of its own.";
    if (use.openers > 0)
        return fmt::format(
            "the add-in is loaded {} time(s) by other processes in this IPC namespace. "
            "That is fine if they are clients of this directory; a second store needs an "
            "IPC namespace of its own.",
            use.openers);
    return "";
}

std::string NoticeOfPrivateNamespace(const fs::path& processes) {
    if (vxsched::SharesIpcNamespace(processes / "1", processes / "self"))
        return "";
    return "this IPC namespace is not that of process 1 (PrivateIPC=, unshare, or a container): "
           "clients must run in this one to reach the store";
}
