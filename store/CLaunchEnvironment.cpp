#include "store/CLaunchEnvironment.h"

#include <new>
#include <string_view>

namespace vxsched {

static constexpr std::string_view cTaskPrefix = "VXSCHED_TASK=";
static constexpr std::string_view cDuePrefix = "VXSCHED_DUE=";
static constexpr std::string_view cRequestPrefix = "VXSCHED_RUN=";

CLaunchEnvironment::CLaunchEnvironment(char* const inherited[], const char* task,
                                       std::optional<TTime> due, const char* request) noexcept
    : unchanged(inherited) {
    try {
        for (char* const* next = inherited; next != nullptr && *next != nullptr; ++next) {
            const std::string_view variable = *next;
            if (!variable.starts_with(cTaskPrefix) && !variable.starts_with(cDuePrefix) &&
                !variable.starts_with(cRequestPrefix))
                variables.push_back(*next);
        }
        if (task != nullptr) {
            taskVariable.append(cTaskPrefix).append(task);
            variables.push_back(taskVariable.data());
        }
        if (due) {
            dueVariable.append(cDuePrefix).append(std::to_string(due->time_since_epoch().count()));
            variables.push_back(dueVariable.data());
        }
        if (request != nullptr) {
            requestVariable.append(cRequestPrefix).append(request);
            variables.push_back(requestVariable.data());
        }
        variables.push_back(nullptr);
    } catch (const std::bad_alloc&) {
        variables.clear();
    }
}

}  // namespace vxsched
