#include "store/ProgramLinks.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <set>
#include <system_error>

#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "base/Sync.h"
#include "store/Layout.h"
#include "store/OwedLaunches.h"
#include "store/StoreAccess.h"

namespace vxsched {

namespace {

namespace fs = std::filesystem;

fs::path LinksOf(const fs::path& directory) {
    return fs::weakly_canonical(fs::absolute(directory)) / cProgramLinks;
}

// A script opens its link after the launch, and may do so again while it runs. By then a task that
// runs once is not in the table any more.
constexpr std::chrono::hours cKeptUnused(24);

bool SetTime(const fs::path& link, const timespec& time) {
    const timespec times[] = {{.tv_sec = 0, .tv_nsec = UTIME_OMIT}, time};
    return utimensat(AT_FDCWD, link.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

// The modification time of a link says since when no task uses it; that of one in use is 0. Only its
// owner may set it: another member of the store's group makes the link anew.
void SetUnusedSince(const fs::path& link, const timespec& time) {
    if (SetTime(link, time) || errno != EPERM)
        return;
    std::error_code error;
    const fs::path program = fs::read_symlink(link, error);
    // No link that LinkName() names ends like this.
    const fs::path made = link.string() + "-new";
    unlink(made.c_str());
    if (!error && symlink(program.c_str(), made.c_str()) == 0 && SetTime(made, time))
        fs::rename(made, link, error);
}

void MarkUsed(const fs::path& link) {
    SetUnusedSince(link, {});
}

}  // namespace

bool IsLinkPath(const fs::path& directory, const std::string& program) {
    if (program.find(cProgramLinksName) == std::string::npos)
        return false;
    // The same directory may be written in several ways: compare what the paths lead to.
    std::error_code ignored;
    const fs::path links = fs::path(program).parent_path();
    return links.filename() == cProgramLinksName &&
           fs::weakly_canonical(links, ignored) == LinksOf(directory);
}

bool IsLinkPathOfAnotherStore(const fs::path& directory, const std::string& program) {
    const fs::path links = fs::path(program).parent_path();
    return program.starts_with('/') && links.filename() == cProgramLinksName &&
           links.parent_path().filename() == cFilesDirectory && !IsLinkPath(directory, program);
}

std::string RealProgram(const fs::path& directory, const std::string& program) {
    if (!IsLinkPath(directory, program))
        return program;
    std::error_code error;
    const fs::path target = fs::read_symlink(program, error);
    return error ? program : target.string();
}

static void RemoveIfLongUnused(const fs::path& link, const struct stat& status) {
    const std::chrono::seconds since(status.st_mtim.tv_sec);
    if (since == std::chrono::seconds(0))
        SetUnusedSince(link, {.tv_sec = 0, .tv_nsec = UTIME_NOW});
    else if (std::chrono::system_clock::now().time_since_epoch() - since > cKeptUnused)
        unlink(link.c_str());
}

void RemoveUnusedLinks(const fs::path& directory, const TTable& table) {
    std::set<std::string> used;
    const auto use = [&](const std::string& program) {
        if (IsLinkPath(directory, program))
            used.insert(fs::path(LaunchedPath(program)).filename().string());
    };
    for (const TTaskEntry& task : table.tasks)
        use(task.program);
    for (const TOwedLaunch& launch : FindOwedLaunches(directory))
        use(launch.program);
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(LinksOf(directory), ignored)) {
        struct stat status {};
        if (lstat(entry.path().c_str(), &status) == -1 || !S_ISLNK(status.st_mode))
            continue;
        if (!used.contains(LaunchedPath(entry.path().filename().string())))
            RemoveIfLongUnused(entry.path(), status);
        else if (status.st_mtim.tv_sec != 0)
            MarkUsed(entry.path());
    }
}

}  // namespace vxsched
