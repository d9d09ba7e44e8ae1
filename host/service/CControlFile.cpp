#include "host/service/CControlFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <utility>

#include "base/DrainDescriptor.h"
#include "base/TimerSetting.h"
#include "host/CHostLog.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

using vxsched::cControlSocket;

CControlFile::CControlFile() : retry(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    Make();
}

// The reason is logged once until it has gone.
void CControlFile::Make() {
    isBound = Bind();
    if (!isBound) {
        const int error = errno;
        if (!std::exchange(isBindFailureLogged, true))
            LogWarning(fmt::format(
                "cannot make the socket {}: {}. Programs that vxsched run launches are not "
                "launched by this host until it can.",
                cControlSocket,
                error == EADDRINUSE ? "something else has that name; remove it"
                                    : std::strerror(error)));
        CheckInASecond();
        return;
    }
    isBindFailureLogged = false;
    WatchFile();
    // Replaced before it was watched.
    if (!IsThere())
        CheckInASecond();
}

void CControlFile::CheckInASecond() const {
    const itimerspec second = ExpireOnce(std::chrono::seconds(1));
    timerfd_settime(retry.Get(), 0, &second, nullptr);
}

// errno has the reason for a failure.
bool CControlFile::Bind() {
    listener = CDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    static_assert(sizeof cControlSocket <= sizeof address.sun_path);
    std::memcpy(address.sun_path, cControlSocket, sizeof cControlSocket);
    // The file gets the mode of the socket, but for the umask.
    if (!listener.IsOpen() || fchmod(listener.Get(), 0600) == -1)
        return false;
    struct stat status {};
    if (lstat(cControlSocket, &status) == 0 && S_ISSOCK(status.st_mode))
        unlink(cControlSocket);
    if (bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        lstat(cControlSocket, &status) == -1)
        return false;
    device = status.st_dev;
    inode = status.st_ino;
    OpenToGroup();
    return true;
}

// Where the directory does not pass its group on, the file has that of the process. A host that may
// not set the group serves its own user alone.
void CControlFile::OpenToGroup() const {
    const std::optional<gid_t> group = vxsched::GroupWithAccess(".");
    if (group && lchown(cControlSocket, static_cast<uid_t>(-1), *group) == 0)
        static_cast<void>(
            !fchmodat(AT_FDCWD, cControlSocket, vxsched::PrivateMode("."), AT_SYMLINK_NOFOLLOW));
}

// The system reports when the file loses its name, and nothing of what happens beside it. Without a
// watch, for want of the system's room, the file is not made again.
void CControlFile::WatchFile() {
    watch = CDescriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    inotify_add_watch(watch.Get(), cControlSocket, IN_ATTRIB | IN_MOVE_SELF | IN_DONT_FOLLOW);
    inotify_add_watch(watch.Get(), vxsched::cFilesDirectory, IN_MOVE_SELF | IN_ONLYDIR);
}

bool CControlFile::IsThere() const {
    struct stat status {};
    return isBound && lstat(cControlSocket, &status) == 0 && status.st_dev == device &&
           status.st_ino == inode;
}

CControlFile::~CControlFile() {
    if (IsThere())
        unlink(cControlSocket);
}

bool CControlFile::MakeIfGone() {
    DrainDescriptor(watch.Get());
    DrainDescriptor(retry.Get());
    if (IsThere())
        return false;
    if (isBound)
        LogNotice(
            fmt::format("the socket {} was removed or replaced; it is made again", cControlSocket));
    Make();
    return isBound;
}
