#include "host/CDueTasks.h"

#include <fmt/format.h>

#include <ctime>

#include "client/CClientError.h"
#include "client/Objections.h"
#include "host/CHostLog.h"

static constexpr char cTaskFile[] = "files/scheduler.dat";

static std::string StateOfTable() {
    struct stat status {};
    if (stat(cTaskFile, &status) != 0)
        return "";
    return fmt::format("{}.{} {} {}", status.st_ctim.tv_sec, status.st_ctim.tv_nsec, status.st_ino,
                       status.st_size);
}

// Programs see both texts end at a zero byte.
static bool IsStartOf(const vxsched::TTaskEntry& task, const std::string& program,
                      const std::string& parameter) {
    return vxsched::StartedPath(task.program).c_str() == program &&
           task.parameter.c_str() == parameter;
}

std::optional<CDueTasks::TTask> CDueTasks::Find(const std::string& program,
                                                const std::string& parameter) {
    try {
        const std::string state = StateOfTable();
        const vxsched::TTime now{std::chrono::seconds(std::time(nullptr))};
        const vxsched::TTable table = vxsched::DecodeTable(vxsched::ReadTableBytes("."), now);
        return Find(table.tasks, state, now, program, parameter);
    } catch (const vxsched::CClientError& error) {
        LogWarning(fmt::format("cannot tell which task is started: {}", error.what()));
        return std::nullopt;
    }
}

std::optional<CDueTasks::TTask> CDueTasks::Find(const std::vector<vxsched::TTaskEntry>& tasks,
                                                const std::string& state, vxsched::TTime now,
                                                const std::string& program,
                                                const std::string& parameter) {
    if (state != tickState)
        startedInTick.clear();
    tickState = state;
    const vxsched::TTaskEntry* known = nullptr;
    for (std::size_t index = 0; index < tasks.size(); ++index) {
        const vxsched::TTaskEntry& task = tasks[index];
        if (!IsStartOf(task, program, parameter))
            continue;
        if (!task.paused && task.next <= now && startedInTick.insert(index).second)
            return TTask{.name = task.name, .due = task.next};
        if (known == nullptr)
            known = &task;
    }
    if (known == nullptr)
        return std::nullopt;
    return TTask{.name = known->name, .due = std::nullopt};
}
