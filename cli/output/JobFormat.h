// What a task executes, for a person and as JSON: of a task of the runner the job, else its program.

#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include <vxsched/Table.h>
#include "jobs/Job.h"

namespace vxsched {

// The job of a task; empty for any other task, and for a parameter that is no job.
std::optional<TJob> FindJob(const TTaskEntry& task);

// The same; of a task without a job its program, not a link to it, with its parameter.
TJob JobOf(const std::string& directory, const TTaskEntry& task);

// The program that a task executes, not the runner and not a link to it.
std::string ProgramOf(const std::string& directory, const TTaskEntry& task);

// The command as it was typed: the words of a job, quoted as for a shell, its text for a shell, or the
// program and its parameter.
std::string FormatCommand(const std::string& directory, const TTaskEntry& task);

// By what a task is launched: the expression of its calendar and its zone, else its period, `once` for none.
std::string FormatSchedule(const TTaskEntry& task);

// Adds the fields of a job: "command", an array, or "shell", and "options", an object of the options that
// are set, each a string or, if it is repeatable, an array.
void AddJob(nlohmann::ordered_json& json, const TJob& job);

}  // namespace vxsched
