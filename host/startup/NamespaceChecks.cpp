#include "host/startup/NamespaceChecks.h"

#include <CEvent.h>
#include <fmt/format.h>
#include <pwd.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <system_error>

#include "store/Layout.h"

namespace fs = std::filesystem;

// The limit that systemd is built with on Debian; logind leaves the semaphores of system users
// alone.
static constexpr uid_t cLastSystemUser = 999;
static constexpr uid_t cNobody = 65534;

std::vector<std::string> WarningsOfOtherUsers() {
    const CEvent::TUse use = CEvent::UseOf(vxsched::cStopEventName);
    if (use.waiters > 0)
        return {
            "another scheduling process runs in this IPC namespace: the two share the store mutex "
            "and consume each other's signals, even if they work in different directories. Give "
            "each store an IPC namespace of its own."};
    if (use.openers > 0)
        return {fmt::format(
            "the add-in is loaded {} time(s) by other processes in this IPC namespace. "
            "That is fine if they are clients of this directory; a second store needs an "
            "IPC namespace of its own.",
            use.openers)};
    return {};
}

// Whether RemoveIPC= is on. As in logind, the last setting in logind.conf and its drop-ins counts;
// drop-ins are read in the order of their names, and of several with the same name /etc precedes
// /run, and /run precedes /usr/lib.
static bool RemovesIpc(const fs::path& root) {
    std::map<std::string, fs::path> dropIns;
    for (const char* directory : {"etc", "run", "usr/lib"}) {
        std::error_code ignored;
        for (const auto& entry :
             fs::directory_iterator(root / directory / "systemd/logind.conf.d", ignored)) {
            if (entry.path().extension() == ".conf")
                dropIns.try_emplace(entry.path().filename().string(), entry.path());
        }
    }
    std::vector<fs::path> files{root / "etc/systemd/logind.conf"};
    for (const auto& [name, path] : dropIns)
        files.push_back(path);
    bool removes = true;
    for (const fs::path& path : files) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            line.erase(std::remove(line.begin(), line.end(), ' '), line.end());
            if (line.starts_with("RemoveIPC=")) {
                const std::string value = line.substr(line.find('=') + 1);
                removes = value != "no" && value != "false" && value != "0" && value != "off";
            }
        }
    }
    return removes;
}

std::string WarningOfRemoval(uid_t user, const fs::path& root) {
    std::error_code ignored;
    if (user <= cLastSystemUser || user == cNobody ||
        !fs::exists(root / "run/systemd/system", ignored))
        return "";
    const passwd* const entry = getpwuid(user);
    const std::string name = entry != nullptr ? entry->pw_name : std::to_string(user);
    if (fs::exists(root / "var/lib/systemd/linger" / name, ignored) || !RemovesIpc(root))
        return "";
    return fmt::format(
        "systemd-logind removes the semaphores of user {} when the user's last session ends, "
        "and the store then has no mutex. Run vxschedd as a system user, or set RemoveIPC=no in "
        "logind.conf, or run loginctl enable-linger {}.",
        name, name);
}

std::string NoticeOfPrivateNamespace(const fs::path& processes) {
    std::error_code ownError;
    std::error_code firstError;
    const fs::path own = fs::read_symlink(processes / "self/ns/ipc", ownError);
    const fs::path first = fs::read_symlink(processes / "1/ns/ipc", firstError);
    if (ownError || firstError || own == first)
        return "";
    return "this IPC namespace is not that of process 1 (PrivateIPC=, unshare, or a container): "
           "clients must run in this one to reach the store";
}
