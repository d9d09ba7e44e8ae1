#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "runs/RunRequest.h"

// The path of vxrun, in the first of `directories` that has it; these are relative to the directory of
// this program. Empty if none has it. Any thread may call it.
std::string FindRunner(const std::vector<std::filesystem::path>& directories);

// What became of a launch.
struct TLaunched {
    int error = 0;      // an error number; 0: launched
    pid_t child = 0;    // of this process: the program, or its runner
    pid_t program = 0;  // what runs; `child` if its runner has not reported that
    // `child` is a runner, which records how the program ends unless it is killed.
    bool hasRunner = false;
    std::string run = {};  // the id of the run; empty if it is not recorded by a runner
};

// Launches a program through the runner. `spawn` starts the runner with a pipe, which it is to have as
// the descriptor request.report, and the request as the content of cRunVariable; it returns as
// posix_spawn() does. Blocks until the runner has launched the program, for ten seconds at most. A
// runner that has not reported by then, or that is killed before, may have launched the program, and
// counts as having done so. Empty, with nothing launched, if the runner could not be started, because
// of `error`; ENOEXEC if it ends without having tried, as one that the system cannot load does.
std::optional<TLaunched> LaunchByRunner(
    const TRunRequest& request,
    const std::function<int(pid_t* runner, int pipe, const std::string& variable)>& spawn,
    int& error);
