#include "host/startup/WorkDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Sync.h"
#include "host/CHostError.h"
#include "store/Layout.h"

using vxsched::cFilesDirectory;
using vxsched::cLockFile;
using vxsched::cTableFile;

static std::string CannotWork(const std::string& directory, int error) {
    return fmt::format(
        "cannot use the directory {}: {}. Create it, or choose another with --directory.",
        directory, std::strerror(error));
}

static std::string CannotCreate(const std::string& directory, int error) {
    return fmt::format("cannot create {}/{}: {}. Run vxschedd as a user with write permission.",
                       directory, cFilesDirectory, std::strerror(error));
}

static bool May(const std::string& path, int access) {
    return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
}

void EnterDirectory(const std::string& directory) {
    if (chdir(directory.c_str()) == -1)
        throw CHostError(cNoDirectory, CannotWork(directory, errno));
    if (mkdir(cFilesDirectory, 0755) == 0)
        SyncDirectory(".");
    else if (errno != EEXIST)
        throw CHostError(cNoDirectory, CannotCreate(directory, errno));
    // The add-in would treat a table without write permission as empty, and log nothing.
    if (!May(cTableFile, R_OK | W_OK) && errno != ENOENT)
        throw CHostError(cNoDirectory, fmt::format("cannot use {}/{}: {}. Run vxschedd as a user "
                                                   "with read and write permission.",
                                                   directory, cTableFile, std::strerror(errno)));
}

std::vector<std::string> WhyNotToWorkIn(const std::string& directory) {
    struct stat status {};
    if (!May(directory, X_OK) || stat((directory + "/.").c_str(), &status) != 0)
        return {CannotWork(directory, errno)};
    const std::string files = directory + '/' + cFilesDirectory;
    if (!May(files, F_OK)) {
        if (May(directory, W_OK | X_OK))
            return {};
        return {CannotCreate(directory, errno)};
    }
    std::vector<std::string> reasons;
    if (!May(files + "/.", W_OK | X_OK))
        reasons.push_back(
            fmt::format("cannot write to {}: {}. Run vxschedd as a user with write permission.",
                        files, std::strerror(errno)));
    for (const char* const file : {cTableFile, cLockFile}) {
        const std::string path = directory + '/' + file;
        if (!May(path, R_OK | W_OK) && errno != ENOENT)
            reasons.push_back(fmt::format(
                "cannot use {}: {}. Run vxschedd as a user with read and write permission.", path,
                std::strerror(errno)));
    }
    return reasons;
}
