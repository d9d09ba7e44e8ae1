#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/Job.h"
#include "jobs/JobOptions.h"

namespace vxsched {

// Whether a task's program is the runner, so that its parameter is the line of a job: by its name, as a
// table may be read on another machine or after a move.
bool IsRunner(std::string_view program);

// Gets an option and a value that was given for it.
using TOptionTaker = std::function<void(const TJobOption& option, const std::string& value)>;

// Reads the options of a command line of the runner, which end at `--` and at the first word that is
// none, and returns the words after them. Throws CJobError, and what `take` throws.
std::vector<std::string> ReadOptions(const std::vector<std::string>& words,
                                     const TOptionTaker& take);

// Reads the arguments of the runner: options, and then the program and its arguments, after `--` if
// there is one. Throws CJobError.
TJob ParseJob(const std::vector<std::string>& arguments);

// The same of arguments in one line, which is split as SplitWords() does.
TJob ReadJobLine(std::string_view line);

// The line that ReadJobLine() reads as `job`.
std::string JobLine(const TJob& job);

}  // namespace vxsched
