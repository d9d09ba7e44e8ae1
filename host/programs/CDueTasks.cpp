#include "host/programs/CDueTasks.h"

#include <fmt/format.h>

#include <ctime>
#include <exception>

#include <vxsched/Validation.h>
#include "host/CHostLog.h"
#include "store/TableFile.h"

// The part of a string that a program receives as an argument.
static std::string UpToZero(const std::string& string) {
    return string.substr(0, string.find('\0'));
}

static bool IsLaunchOf(const vxsched::TTaskEntry& task, const std::string& program,
                       const std::string& parameter) {
    return UpToZero(vxsched::LaunchedPath(task.program)) == program &&
           UpToZero(task.parameter) == parameter;
}

std::optional<CDueTasks::TTask> CDueTasks::Find(const std::string& program,
                                                const std::string& parameter) {
    try {
        const std::string state = vxsched::TableState(".");
        const vxsched::TTime now{std::chrono::seconds(std::time(nullptr))};
        const vxsched::TTable table = vxsched::DecodeTable(vxsched::ReadTableBytes("."), now);
        return Find(table.tasks, state, now, program, parameter);
    } catch (const std::exception& error) {
        // A lack of memory, for example. The program is launched all the same.
        LogWarning(
            fmt::format("cannot find the task of program {} in the table: {}. The launch is "
                        "recorded without a task.",
                        program, error.what()));
        return std::nullopt;
    }
}

std::optional<CDueTasks::TTask> CDueTasks::Find(const std::vector<vxsched::TTaskEntry>& tasks,
                                                const std::string& state, vxsched::TTime now,
                                                const std::string& program,
                                                const std::string& parameter) {
    if (state != current.state) {
        previous = std::move(current);
        current = {.state = state, .tasks = tasks, .launched = {}};
    }
    if (auto task = FindDue(current, now, program, parameter))
        return task;
    if (auto task = FindDue(previous, now, program, parameter))
        return task;
    for (const vxsched::TTaskEntry& task : tasks) {
        if (IsLaunchOf(task, program, parameter))
            return TTask{.name = task.name, .due = std::nullopt};
    }
    return std::nullopt;
}

std::optional<CDueTasks::TTask> CDueTasks::FindDue(TVersion& table, vxsched::TTime now,
                                                   const std::string& program,
                                                   const std::string& parameter) {
    for (std::size_t index = 0; index < table.tasks.size(); ++index) {
        const vxsched::TTaskEntry& task = table.tasks[index];
        if (IsLaunchOf(task, program, parameter) && !task.paused && task.next <= now &&
            table.launched.insert(index).second)
            return TTask{.name = task.name, .due = task.next};
    }
    return std::nullopt;
}
