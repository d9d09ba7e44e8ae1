#include "client/ChangeChecks.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <vxsched/Error.h>
#include "store/MakeError.h"
#include "store/TableFile.h"

namespace vxsched {

void CheckTable(const std::filesystem::path& directory, const TTable& table) {
    const std::filesystem::path file = TableFile(directory);
    if (faccessat(AT_FDCWD, file.c_str(), R_OK | W_OK, AT_EACCESS) == -1 && errno != ENOENT)
        throw SystemError("cannot write " + file.string(), errno);
    for (const TProblem& problem : table.problems) {
        if (problem.kind != TProblem::cUnusual)
            throw MakeError(EError::cDamaged, "{}; repair the table first (vxsched repair)",
                            problem.message);
    }
}

const TTaskEntry* FindDue(const TTable& table, const TRequest& request) {
    if (request.evenIfDue)
        return nullptr;
    const TTime soon = Now() + cAboutToBeDue;
    const auto due =
        std::find_if(table.tasks.begin(), table.tasks.end(),
                     [&](const TTaskEntry& task) { return !task.paused && task.next <= soon; });
    return due == table.tasks.end() ? nullptr : &*due;
}

}  // namespace vxsched
