#include "host/startup/WorkDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include <vxsched/Error.h>
#include "base/ShellWord.h"
#include "base/Sync.h"
#include "base/Users.h"
#include "host/CHostError.h"
#include "host/startup/NetworkDirectory.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"
#include "store/StoreOwner.h"

using vxsched::cFilesDirectory;
using vxsched::cLockFile;
using vxsched::cTableFile;

static std::string CannotWork(const std::string& directory, int error) {
    if (error == EACCES)
        return fmt::format(
            "cannot enter the directory {}: {}{}. Run vxschedd as a user who may enter it, or "
            "choose another with --directory.",
            directory, std::strerror(error), vxsched::NoteOfUsers(directory));
    return fmt::format(
        "cannot use the directory {}: {}. Create it, or choose another with --directory.",
        directory, std::strerror(error));
}

static std::string CannotCreate(const std::string& directory, int error) {
    return fmt::format("cannot create {}/{}: {}. Run vxschedd as a user with write permission.",
                       directory, cFilesDirectory, std::strerror(error));
}

static std::string CannotUse(const std::string& file, int error, const std::string& noteOfUsers) {
    return fmt::format(
        "cannot use {}: {}{}. Run vxschedd as a user with read and write permission.", file,
        std::strerror(error), noteOfUsers);
}

static bool May(const std::string& path, int access) {
    return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
}

// Why a host does not run the tasks of a store: whoever may change the table of a host of the
// superuser, or what any host finds in `files/`, would have programs launched as the host's user.
static std::string WhyNotTrusted(const std::string& directory) {
    try {
        const auto owner = vxsched::FindForeignOwner(directory);
        if (!owner)
            return vxsched::WhyFilesAreRefused(directory);
        return fmt::format(
            "{} belongs to user {}, whose programs a host of the superuser does not launch. Run "
            "vxschedd as that user, or give the directory to the superuser.",
            directory, owner->user);
    } catch (const vxsched::CError& error) {
        return error.what();
    }
}

// Whether all of a store is open to the group of its directory, as docs/security.md has it.
static bool IsOpenToGroup(const std::string& directory, gid_t group) {
    const auto isOpen = [&](const std::string& path, mode_t access) {
        struct stat status {};
        return stat(path.c_str(), &status) == 0 && status.st_gid == group &&
               (status.st_mode & access) == access;
    };
    const std::string table = directory + '/' + cTableFile;
    return isOpen(directory, S_ISGID | S_IRWXG) &&
           isOpen(directory + '/' + cFilesDirectory, S_ISGID | S_IRWXG) &&
           (!May(table, F_OK) || isOpen(table, S_IRGRP | S_IWGRP));
}

std::string WarningOfAccess(const std::string& directory) {
    struct stat status {};
    if (stat(directory.c_str(), &status) == -1)
        return "";
    const bool isOpenToOthers = (status.st_mode & S_IRWXO) != 0;
    const bool isHalfOpenToGroup =
        (status.st_mode & S_IRWXG) != 0 && !IsOpenToGroup(directory, status.st_gid);
    if (!isOpenToOthers && !isHalfOpenToGroup)
        return "";
    std::error_code ignored;
    const std::string path = std::filesystem::canonical(directory, ignored).string();
    const std::string word = vxsched::ShellWord(path);
    if (isOpenToOthers)
        return fmt::format(
            "any user may enter or read {} (mode {:04o}), and so lock the store or see its tasks: "
            "run chmod {} {}",
            path, status.st_mode & 07777U, isHalfOpenToGroup ? "go-rwx" : "o-rwx", word);
    return fmt::format(
        "the group {} may enter, read or write {} (mode {:04o}), and so lock the store or exchange "
        "its table, and not all of the store is open to it: run chmod g-rwx {}, or open the whole "
        "store to the group: chgrp -R GROUP {} && chmod -R g+rwX {} && find {} -type d -exec chmod "
        "g+s {{}} +",
        NameOfGroup(status.st_gid), path, status.st_mode & 07777U, word, word, word, word);
}

static void RequireTrust(const std::string& path, const std::string& directory) {
    if (const std::string reason = WhyNotTrusted(path); !reason.empty())
        throw CHostError(cNoDirectory,
                         fmt::format("cannot use the directory {}: {}", directory, reason));
}

void EnterDirectory(const std::string& directory, ENetwork network) {
    if (access((directory + "/.").c_str(), F_OK) == -1)
        throw CHostError(cNoDirectory, CannotWork(directory, errno));
    RequireTrust(directory, directory);
    if (const std::string reason = WhyNotOnNetwork(directory);
        network == ENetwork::cRefused && !reason.empty())
        throw CHostError(cNoDirectory, reason);
    const std::string noteOfUsers = vxsched::NoteOfUsers(directory);
    if (chdir(directory.c_str()) == -1)
        throw CHostError(cNoDirectory, CannotWork(directory, errno));
    // Where this process is now: the path may have led elsewhere meanwhile.
    RequireTrust(".", directory);
    if (mkdir(cFilesDirectory, 0700) == 0)
        SyncDirectory(".");
    else if (errno != EEXIST)
        throw CHostError(cNoDirectory, CannotCreate(directory, errno));
    // The add-in would treat a table without write permission as empty, and log nothing.
    if (!May(cTableFile, R_OK | W_OK) && errno != ENOENT)
        throw CHostError(cNoDirectory, CannotUse(directory + '/' + cTableFile, errno, noteOfUsers));
}

std::vector<std::string> WhyNotToWorkIn(const std::string& directory, ENetwork network) {
    struct stat status {};
    if (!May(directory, X_OK) || stat((directory + "/.").c_str(), &status) != 0)
        return {CannotWork(directory, errno)};
    std::vector<std::string> reasons;
    if (const std::string reason = WhyNotTrusted(directory); !reason.empty())
        reasons.push_back(reason);
    if (const std::string reason = WhyNotOnNetwork(directory);
        network == ENetwork::cRefused && !reason.empty())
        reasons.push_back(reason);
    const std::string noteOfUsers = vxsched::NoteOfUsers(directory);
    const std::string files = directory + '/' + cFilesDirectory;
    if (!May(files, F_OK)) {
        if (!May(directory, W_OK | X_OK))
            reasons.push_back(CannotCreate(directory, errno));
        return reasons;
    }
    if (!May(files + "/.", W_OK | X_OK))
        reasons.push_back(
            fmt::format("cannot write to {}: {}{}. Run vxschedd as a user with write permission.",
                        files, std::strerror(errno), noteOfUsers));
    for (const char* const file : {cTableFile, cLockFile}) {
        const std::string path = directory + '/' + file;
        if (!May(path, R_OK | W_OK) && errno != ENOENT)
            reasons.push_back(CannotUse(path, errno, noteOfUsers));
    }
    return reasons;
}
