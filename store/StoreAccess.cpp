#include "store/StoreAccess.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <set>
#include <system_error>
#include <vector>

#include "base/AbsolutePath.h"
#include "base/ShellWord.h"
#include "base/Users.h"
#include "store/Layout.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// What others may not change, of one store.
class CFilesCheck {
public:
    CFilesCheck(const fs::path& files, const struct stat& storeStatus,
                const struct stat& filesStatus)
        : path(files),
          owner(storeStatus.st_uid),
          mayBeEntered((storeStatus.st_mode & cEntry) != 0 && (filesStatus.st_mode & cEntry) != 0),
          trusted{0, geteuid(), owner} {
        // Also where the directory is closed to the group at present: the group may have worked here.
        if ((filesStatus.st_mode & S_IWGRP) != 0)
            group = filesStatus.st_gid;
    }

    // Why a directory or what is in it is refused, without what is in its directories; empty if it is
    // not, or if there is none. It may be a link.
    std::string WhyDirectoryIsRefused(const fs::path& directory) {
        struct stat parent {};
        if (stat(directory.c_str(), &parent) == -1)
            return "";
        if (std::string reason = WhyRefused(directory, parent, true); !reason.empty())
            return reason;
        const bool isReached = mayBeEntered && (parent.st_mode & cEntry) != 0;
        std::error_code error;
        for (fs::directory_iterator entry(directory, error);
             !error && entry != fs::directory_iterator(); entry.increment(error)) {
            struct stat status {};
            // A temporary file may be gone by now.
            if (lstat(entry->path().c_str(), &status) == -1)
                continue;
            if (std::string reason = WhyRefused(entry->path(), status, isReached); !reason.empty())
                return reason;
        }
        return "";
    }

private:
    static constexpr mode_t cEntry = S_IXGRP | S_IXOTH;

    // `isReached`: others may enter the directory that it is in. They may also have a directory open
    // since before they were shut out, and make files in it; a file, its mode then does not concern.
    std::string WhyRefused(const fs::path& what, const struct stat& status, bool isReached) {
        if (!IsTrusted(status.st_uid))
            return fmt::format("{} belongs to user {}, who could have programs launched. {}",
                               what.string(), FindUser(status.st_uid).name, Remedy());
        const bool isWritable =
            (status.st_mode & S_IWOTH) != 0 ||
            ((status.st_mode & S_IWGRP) != 0 && group != std::optional(status.st_gid));
        if (isWritable && (S_ISDIR(status.st_mode) || (S_ISREG(status.st_mode) && isReached)))
            return fmt::format(
                "{} may be written by users who are not let into the store (mode {:04o}), and who "
                "could have programs launched. {}",
                what.string(), status.st_mode & 07777U, Remedy());
        return "";
    }

    bool IsTrusted(uid_t user) {
        if (trusted.contains(user))
            return true;
        const std::vector<gid_t> groups =
            group ? GroupsOf(user, static_cast<gid_t>(-1)) : std::vector<gid_t>();
        const bool isMember = std::find(groups.begin(), groups.end(), group) != groups.end();
        if (isMember)
            trusted.insert(user);
        return isMember;
    }

    std::string Remedy() const {
        const std::string user = FindUser(owner).name;
        return fmt::format("Check what is there, then run chown -R {} {} && chmod -R {} {}",
                           group ? user + ':' + NameOfGroup(*group) : user,
                           ShellWord(path.string()), group ? "o-w" : "go-w",
                           ShellWord(path.string()));
    }

    const fs::path path;
    const uid_t owner;
    const bool mayBeEntered;
    std::optional<gid_t> group;
    std::set<uid_t> trusted;
};

}  // namespace

std::optional<gid_t> GroupWithAccess(const fs::path& directory) {
    struct stat store {};
    struct stat files {};
    const bool isOpen = stat(directory.c_str(), &store) == 0 &&
                        stat((directory / cFilesDirectory).c_str(), &files) == 0 &&
                        (store.st_mode & S_IXGRP) != 0 && (files.st_mode & S_IWGRP) != 0;
    return isOpen ? std::optional(files.st_gid) : std::nullopt;
}

mode_t PrivateMode(const fs::path& directory) {
    return GroupWithAccess(directory) ? 0660 : 0600;
}

int MakePrivateDirectory(const fs::path& path, const fs::path& store) {
    if (mkdir(path.c_str(), 0700) == -1)
        return errno == EEXIST ? 0 : errno;
    // Not by mkdir(), whose mode the umask narrows.
    const std::optional<gid_t> group = GroupWithAccess(store);
    if (!group)
        return chmod(path.c_str(), 0700) == 0 ? 0 : errno;
    static_cast<void>(!chown(path.c_str(), static_cast<uid_t>(-1), *group));
    // A service may be denied the bit (RestrictSUIDSGID=); then only the group itself is set.
    if (chmod(path.c_str(), 02770) == -1)
        chmod(path.c_str(), 0770);
    return 0;
}

int MakePrivate(int file, const fs::path& store) {
    const std::optional<gid_t> group = GroupWithAccess(store);
    const bool isOpen = group && fchown(file, static_cast<uid_t>(-1), *group) == 0;
    return fchmod(file, isOpen ? 0660 : 0600) == 0 ? 0 : errno;
}

mode_t NewTableMode(const fs::path& directory) {
    return GroupWithAccess(directory) ? 0664 : 0644;
}

bool MayUse(uid_t user, const fs::path& directory) {
    struct stat store {};
    if (user == 0 || user == geteuid() ||
        (stat(directory.c_str(), &store) == 0 && store.st_uid == user))
        return true;
    const std::optional<gid_t> group = GroupWithAccess(directory);
    if (!group)
        return false;
    const std::vector<gid_t> groups = GroupsOf(user, static_cast<gid_t>(-1));
    return std::find(groups.begin(), groups.end(), *group) != groups.end();
}

std::string NoteOfUsers(const fs::path& directory) {
    struct stat store {};
    struct stat files {};
    if (geteuid() == 0 || stat(directory.c_str(), &store) == -1 || store.st_uid == geteuid())
        return "";
    // Another user may not even see `files/`.
    const bool mayGroupWrite =
        stat((directory / cFilesDirectory).c_str(), &files) == -1 || (files.st_mode & S_IWGRP) != 0;
    return fmt::format("; the directory {} is for user {} {}", AbsolutePath(directory),
                       FindUser(store.st_uid).name,
                       (store.st_mode & S_IXGRP) != 0 && mayGroupWrite
                           ? "and the group " + NameOfGroup(store.st_gid)
                           : "alone");
}

std::string WhyFilesAreRefused(const fs::path& directory) {
    std::error_code error;
    const fs::path files = fs::canonical(directory / cFilesDirectory, error);
    struct stat storeStatus {};
    struct stat filesStatus {};
    if (error || stat(directory.c_str(), &storeStatus) == -1 ||
        stat(files.c_str(), &filesStatus) == -1)
        return "";
    CFilesCheck check(files, storeStatus, filesStatus);
    std::string reason = check.WhyDirectoryIsRefused(files);
    for (const char* const name :
         {cOwedLaunchDirectory, cLaunchRecordDirectory, cSettledLaunchDirectory, cSnapshotDirectory,
          cProgramLinks, cOutputDirectory, cRunningDirectory, cOrphanDirectory}) {
        if (reason.empty())
            reason = check.WhyDirectoryIsRefused(files / fs::path(name).filename());
    }
    return reason;
}

}  // namespace vxsched
