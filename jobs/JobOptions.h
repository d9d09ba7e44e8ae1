#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "jobs/Job.h"

namespace vxsched {

// An option of the runner, which is a field of a job. The commands that make tasks have the same ones.
struct TJobOption {
    const char* name;       // without the hyphens
    const char* valueName;  // of its value in a help
    const char* help;
    bool isRepeatable;
    // Takes a value; for a repeatable option one more. Throws CJobError, without the option's name.
    void (*set)(TJob& job, const std::string& value);
    // What `set` would make the same field of; empty if it is as without the option.
    std::vector<std::string> (*values)(const TJob& job);
    const char* implied = nullptr;  // the value of the option alone; null: it has to be given one
};

// The names of options that are no settings.
inline constexpr std::string_view cTaskOption = "task";
inline constexpr std::string_view cShellOption = "shell";
inline constexpr std::string_view cCronOption = "cron";
inline constexpr std::string_view cZoneOption = "zone";
inline constexpr std::string_view cUntilOption = "until";

extern const std::array<TJobOption, 23> cJobOptions;

// Has the option take a value. Throws CJobError, which names the option and the value.
void SetJobOption(TJob& job, const TJobOption& option, const std::string& value);

// Has the field of an option be as without it.
void ClearJobOption(TJob& job, const TJobOption& option);

}  // namespace vxsched
