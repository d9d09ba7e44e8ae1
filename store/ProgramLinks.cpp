#include "store/ProgramLinks.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <system_error>

#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "base/Sync.h"
#include "store/Layout.h"
#include "store/StoreAccess.h"

namespace vxsched {

namespace {

namespace fs = std::filesystem;

fs::path LinksOf(const fs::path& directory) {
    return fs::weakly_canonical(fs::absolute(directory)) / cProgramLinks;
}

// The program's file name with its dots replaced, so that it has no extension, and a number at the
// end, so that the add-in cuts nothing off.
std::string LinkName(const fs::path& program, int number) {
    constexpr std::size_t cLongest = 200;  // leaves room for the number within NAME_MAX
    std::string name = program.filename().string().substr(0, cLongest);
    std::replace(name.begin(), name.end(), '.', '-');
    return name + '-' + std::to_string(number);
}

bool IsLinkTo(const fs::path& link, const std::string& program) {
    std::error_code error;
    return fs::read_symlink(link, error).string() == program && !error;
}

bool LaunchLeavesAlone(const std::string& program) {
    const bool hasExtension = fs::path(program).filename().string().find('.') != std::string::npos;
    return !hasExtension && LaunchedPath(program) == program;
}

}  // namespace

std::string MakeSchedulable(const fs::path& directory, const std::string& program) {
    if (LaunchLeavesAlone(program))
        return program;
    const fs::path links = LinksOf(directory);
    std::error_code error(MakePrivateDirectory(links, directory), std::generic_category());
    for (int number = 1; !error; ++number) {
        const fs::path link = links / LinkName(program, number);
        const bool isThere = IsLinkTo(link, program);
        if (!isThere)
            fs::create_symlink(program, link, error);
        if (isThere || !error) {
            SyncLinks(directory);
            return link.string();
        }
        if (error == std::errc::file_exists)
            error.clear();
    }
    throw SystemError("cannot make a link to " + program + " in " + links.string(), error.value());
}

void MakeLink(const std::string& path, const std::string& program) {
    const fs::path links = fs::path(path).parent_path();
    MakePrivateDirectory(links, links.parent_path().parent_path());
    if (symlink(program.c_str(), path.c_str()) == -1 && !IsLinkTo(path, program))
        throw SystemError("cannot make the link " + path + " to " + program, errno);
}

void SyncLinks(const fs::path& directory) {
    SyncDirectory(LinksOf(directory).c_str());
    SyncDirectory((directory / cFilesDirectory).c_str());
}

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

void RemoveUnusedLinks(const fs::path& directory, const TTable& table) {
    std::set<std::string> used;
    for (const TTaskEntry& task : table.tasks) {
        if (IsLinkPath(directory, task.program))
            used.insert(fs::path(LaunchedPath(task.program)).filename().string());
    }
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(LinksOf(directory), ignored)) {
        const std::string name = LaunchedPath(entry.path().filename().string());
        if (!used.contains(name) && entry.is_symlink(ignored))
            fs::remove(entry.path(), ignored);
    }
}

}  // namespace vxsched
