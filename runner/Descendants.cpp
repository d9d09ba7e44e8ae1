#include "runner/Descendants.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <system_error>

#include "base/Processes.h"

std::vector<pid_t> FindChildren() {
    const std::string self = std::to_string(getpid());
    std::ifstream file("/proc/self/task/" + self + "/children");
    std::vector<pid_t> children;
    for (pid_t child = 0; file >> child;)
        children.push_back(child);
    return children;
}

std::vector<pid_t> FindDescendants() {
    std::multimap<pid_t, pid_t> children;
    std::error_code error;
    for (std::filesystem::directory_iterator entry("/proc", error);
         !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
        const std::optional<pid_t> process =
            vxsched::ParseProcess(entry->path().filename().native());
        if (!process)
            continue;
        const auto stat = vxsched::ReadProcessStat(entry->path());
        if (stat)
            children.emplace(stat->parent, *process);
    }
    std::vector<pid_t> descendants = {getpid()};
    for (std::size_t next = 0; next < descendants.size(); ++next) {
        const auto [first, last] = children.equal_range(descendants[next]);
        for (auto child = first; child != last; ++child)
            descendants.push_back(child->second);
    }
    descendants.erase(descendants.begin());
    return descendants;
}
