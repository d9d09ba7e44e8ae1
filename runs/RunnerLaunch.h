#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <vxsched/Table.h>
#include "base/Spawn.h"
#include "runs/RunRequest.h"

// How long a launcher waits for the report of its runner.
inline constexpr std::chrono::seconds cRunnerLimit(10);

// The path of vxrun, in the first of `directories` that has it; these are relative to the directory of
// this program. Empty if none has it. Any thread may call it.
std::string FindRunner(const std::vector<std::filesystem::path>& directories);

// What a launcher has made. A runner records how the program ends, unless it is killed.
enum class ELaunchedChild {
    cProgram,
    cRunner,
    cSilentRunner,  // has not reported its program
};

// What became of a launch.
struct TLaunched {
    int error = 0;            // an error number; 0: launched
    std::string reason = {};  // of the error, from the runner; empty: that of the number
    pid_t child = 0;          // of this process
    ELaunchedChild kind = ELaunchedChild::cProgram;
    pid_t program = 0;     // `child` if that is a silent runner
    std::string run = {};  // the id of the run; empty if it is not recorded by a runner

    // Of an error, for a person.
    std::string Reason() const;
};

// A launch through the runner. The pointers are the caller's, for the time of the launch.
struct TRunnerLaunch {
    decltype(&posix_spawn) spawn;
    std::string runner;                 // its path, as of FindRunner()
    char* const* command;               // the program and its arguments
    char* const* environment;           // the inherited one
    const char* task = nullptr;         // its name; null: unknown
    std::optional<vxsched::TTime> due;  // the due time, if the launch is for one
    TRunRequest request;                // but for the pipe and the follower
    int follower = -1;                  // of TRunRequest, in this process
    // Adds what becomes of the descriptors 0 to 2. The runner has no others but its pipe and the follower.
    std::function<void(CSpawnActions& actions)> direct;
};

// Launches a program through the runner, which leads a session of its own: what a terminal or a shell
// sends to the launcher's group is not for it. Blocks until the runner has launched the program, for
// cRunnerLimit at most. A runner that has not reported by then, or that is killed before, may have
// launched the program, and counts as having done so. Empty, with nothing launched, if the runner could
// not be started, because of `error`; ENOEXEC if it ends without having tried, as one that the system
// cannot load does.
std::optional<TLaunched> LaunchByRunner(const TRunnerLaunch& launch, int& error);
