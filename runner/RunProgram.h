#pragma once

#include <string>
#include <vector>

#include "jobs/Job.h"
#include "runner/CCommand.h"
#include "runs/RunRequest.h"

// Exit statuses of the runner.
inline constexpr int cUsageStatus = 2;
inline constexpr int cNotStartedStatus = 127;  // as a shell has it

// A run is for its program to end, not for a reader of the copy that goes, a terminal, or a limit.
void IgnoreSignals();

// Writes a line to the standard error.
void Warn(const std::string& message);

// Launches a program, keeps its output and records its end. `job` is null for a program that is not of a
// job. Returns the exit status if it was not started; else this process ends as the program has.
int RunProgram(const TRunRequest& request, const CCommand& command, const vxsched::TJob* job);

// Records that the arguments, those of a task or of a person, are not the line of a job.
int RefuseLine(const TRunRequest& request, const std::vector<std::string>& arguments,
               const std::string& reason);
