#pragma once

#include <functional>
#include <string>

#include "jobs/Job.h"
#include "runner/Execution.h"
#include "runs/RunRecord.h"

// Whether the job has anybody told of the ends of its runs.
bool IsEndTold(const vxsched::TJob& job);

// Executes what the job has for the end of a run, which is recorded: its commands and its mail, one after
// the other. Nobody is told of a run that somebody has stopped. What goes wrong is reported to
// `logWarning`. The store is the working directory.
void TellOfEnd(const vxsched::TJob& job, const TRunRecord& run, const TExecution& execution,
               const std::function<void(const std::string&)>& logWarning);
