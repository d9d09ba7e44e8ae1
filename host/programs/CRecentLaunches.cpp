#include "host/programs/CRecentLaunches.h"

static constexpr std::chrono::minutes cLongerThanAnySave(1);

std::optional<pid_t> CRecentLaunches::Find(const TTask& task) const {
    const auto found = launches.find(task.name);
    if (found == launches.end() || task.period == 0)
        return {};
    const TLaunch& launch = found->second;
    const bool isSame = launch.due == task.nextExecution && launch.last == task.lastExecuted &&
                        TClock::now() - launch.made < cLongerThanAnySave;
    return isSame ? std::optional(launch.process) : std::nullopt;
}

void CRecentLaunches::Add(const TTask& task, pid_t process) {
    const TClock::time_point now = TClock::now();
    if (now - pruned >= cLongerThanAnySave) {
        std::erase_if(launches, [&](const auto& each) {
            return now - each.second.made >= cLongerThanAnySave;
        });
        pruned = now;
    }
    launches[task.name] = {task.nextExecution, task.lastExecuted, process, now};
}
