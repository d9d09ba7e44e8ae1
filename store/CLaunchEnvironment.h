#pragma once

#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// The environment of a launched program: the inherited one, without its variables VXSCHED_TASK,
// VXSCHED_DUE and VXSCHED_RUN, and with new ones. For posix_spawn(), while the inherited environment lives. For one
// thread at a time.
class CLaunchEnvironment {
public:
    // VXSCHED_TASK becomes the task's name up to its first zero byte, VXSCHED_DUE the due time in
    // seconds since the epoch, VXSCHED_RUN the request to the runner; null and none leave the
    // variable out. Neither `task` nor the variables of `inherited`, which may be null, are
    // modified. Without memory the result is `inherited` as it is: a launch never fails for its
    // variables.
    CLaunchEnvironment(char* const inherited[], const char* task, std::optional<TTime> due,
                       const char* request = nullptr) noexcept;

    char* const* Get() const { return variables.empty() ? unchanged : variables.data(); }

private:
    char* const* unchanged;
    std::string taskVariable;
    std::string dueVariable;
    std::string requestVariable;
    std::vector<char*> variables;  // ends with a null pointer; empty without memory
};

// Calls `spawn` with the environment of a launch of the task; `task` and `due` as above. `spawn`
// returns an error number as posix_spawn() does. If what the program gets is too large with the
// variables, they are left out: a program that can be launched without them is launched.
template <typename Spawn>
int SpawnForTask(char* const inherited[], const char* task, std::optional<TTime> due, Spawn spawn) {
    const int error = spawn(CLaunchEnvironment(inherited, task, due).Get());
    if (error != E2BIG)
        return error;
    return spawn(CLaunchEnvironment(inherited, nullptr, std::nullopt).Get());
}

}  // namespace vxsched
