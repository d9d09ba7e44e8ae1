#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "jobs/Job.h"

namespace vxsched {

// What an export cannot say of one task, for a person.
using TLosses = std::vector<std::string>;

// Notes the options of a job that the target of an export ("a crontab") has not; `kept` are those that it has.
void NoteLostOptions(const TJob& job, std::string_view target,
                     const std::vector<std::string_view>& kept, TLosses& losses);

// Prints them to standard error.
void PrintLosses(const std::string& task, const TLosses& losses);

}  // namespace vxsched
