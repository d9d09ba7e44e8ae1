#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vxsched {

// The processes that run `program` with exactly the one argument `parameter`, as a start of a task
// does, in ascending order. Looked up in /proc: the executable has to be the same file, or, for a
// script, the interpreter's last two arguments have to be the script's path and the parameter. Under
// no lock and without any effect; a process that ends meanwhile is not told. Processes of other
// users are seen only as far as this user may look into them.
std::vector<pid_t> FindRunning(const std::string& program, const std::string& parameter);

}  // namespace vxsched
