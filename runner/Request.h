#pragma once

#include <optional>
#include <string>
#include <vector>

#include "jobs/Job.h"
#include "runs/RunRequest.h"

// Whether a launcher asks this process to execute something for it. Else it is a program like any other:
// that of a task of another host, or one that a person tries.
bool IsAskedToRun();

// What a launcher asks for, or what is done for one that does not ask; removed from the environment.
// Empty if it is of another version. `argc` is that of main().
std::optional<TRunRequest> TakeRequest(int argc);

// What is to be executed, the program first: the arguments of main() or, if there are none, those of the
// file that is the standard input, with the variables there. Empty if there are none.
std::vector<std::string> TakeCommand(int argc, char** argv);

// The job, if it is one that is to be executed: a launcher asks to have this program executed, with the
// line of the job, or has executed it so itself. Throws CJobError.
std::optional<vxsched::TJob> FindJob(const TRunRequest& request,
                                     const std::vector<std::string>& command);
