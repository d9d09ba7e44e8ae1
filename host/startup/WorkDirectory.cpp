#include "host/startup/WorkDirectory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/CHostError.h"

static std::string CannotWork(const std::string& directory, int error) {
    return fmt::format(
        "cannot work in {}: {}. Create the directory, or name another with --directory.", directory,
        std::strerror(error));
}

static std::string CannotCreate(const std::string& directory, int error) {
    return fmt::format("cannot create {}/files: {}. Run vxschedd as a user who may write there.",
                       directory, std::strerror(error));
}

static bool May(const std::string& path, int access) {
    return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0;
}

void EnterDirectory(const std::string& directory) {
    if (chdir(directory.c_str()) == -1)
        throw CHostError(cNoDirectory, CannotWork(directory, errno));
    if (mkdir("files", 0755) == -1 && errno != EEXIST)
        throw CHostError(cNoDirectory, CannotCreate(directory, errno));
    // The add-in would take what it may not write for a table of no tasks, and never say so.
    if (!May("files/scheduler.dat", R_OK | W_OK) && errno != ENOENT)
        throw CHostError(
            cNoDirectory,
            fmt::format("cannot use {}/files/scheduler.dat: {}. Run vxschedd as a user "
                        "who may read and write it.",
                        directory, std::strerror(errno)));
}

std::vector<std::string> WhyNotToWorkIn(const std::string& directory) {
    struct stat status {};
    if (!May(directory, X_OK) || stat((directory + "/.").c_str(), &status) != 0)
        return {CannotWork(directory, errno)};
    const std::string files = directory + "/files";
    if (!May(files, F_OK)) {
        if (May(directory, W_OK | X_OK))
            return {};
        return {CannotCreate(directory, errno)};
    }
    std::vector<std::string> reasons;
    if (!May(files + "/.", W_OK | X_OK))
        reasons.push_back(fmt::format("cannot write in {}: {}. Run vxschedd as a user who may.",
                                      files, std::strerror(errno)));
    for (const char* const file : {"scheduler.dat", "vxschedd.lock"}) {
        const std::string path = files + '/' + file;
        if (!May(path, R_OK | W_OK) && errno != ENOENT)
            reasons.push_back(
                fmt::format("cannot use {}: {}. Run vxschedd as a user who may read and write it.",
                            path, std::strerror(errno)));
    }
    return reasons;
}
