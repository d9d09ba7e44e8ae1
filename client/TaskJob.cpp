#include "client/TaskJob.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <string_view>

#include <vxsched/Error.h>
#include "base/ShellWord.h"
#include "base/Users.h"
#include "client/GiveToRunner.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "jobs/JobOptions.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

bool HasOptions(const TJob& job) {
    return std::any_of(cJobOptions.begin(), cJobOptions.end(), [&](const TJobOption& option) {
        return option.name != cTaskOption && !option.values(job).empty();
    });
}

void SetCommand(TTaskEntry& task, const TJob& job) {
    if (HasOptions(job) || job.command.size() != 2 || NeedsRunner(job.command.front())) {
        GiveToRunner(task, job);
        return;
    }
    task.program = job.command[0];
    task.parameter = job.command[1];
}

// Values that `edit` gives take the place of the former ones; a single empty one removes the option.
void TakeOption(TJob& job, const TJobOption& option, const std::vector<std::string>& values) {
    if (values.size() > 1 && !option.isRepeatable)
        throw CJobError(fmt::format("--{} is given twice; give it once", option.name));
    ClearJobOption(job, option);
    if (values == std::vector<std::string>{""})
        return;
    for (const std::string& value : values)
        SetJobOption(job, option, value);
}

void TakeOptions(TJob& job, const TJobChange& arguments) {
    for (const TJobOption& option : cJobOptions) {
        if (const auto given = arguments.options.find(option.name);
            given != arguments.options.end())
            TakeOption(job, option, given->second);
    }
    // The zone of a calendar goes with it.
    if (job.cron.empty() && !job.zone.empty() &&
        arguments.options.contains(std::string(cZoneOption)))
        throw CJobError(
            "--zone is that of a calendar; give one by --cron, --daily, --weekly or --monthly");
    if (job.cron.empty())
        job.zone.clear();
}

// Refuses what the runner would refuse at each launch.
void RequireIdentity(const fs::path& directory, const TJob& job) {
    const std::optional<uid_t> user = FindUserId(job.user);
    if (!job.user.empty() && !user)
        throw MakeError(EError::cRefused, "--user {}: there is no such user", job.user);
    if (!job.group.empty() && !FindGroupId(job.group))
        throw MakeError(EError::cRefused, "--group {}: there is no such group", job.group);
    struct stat files {};
    if (stat((directory / cFilesDirectory).c_str(), &files) == -1 || files.st_uid == 0)
        return;
    if (!job.group.empty() || (!job.user.empty() && user != files.st_uid))
        throw MakeError(EError::cRefused,
                        "--{}: the store belongs to user {}, and a job runs as another user or "
                        "group only in a store that root owns",
                        job.group.empty() ? "user" : "group", FindUser(files.st_uid).name);
}

bool GivesShell(const TJobChange& arguments) {
    return arguments.options.contains(std::string(cShellOption));
}

// What the task executes by the table.
TJob JobOf(const fs::path& directory, const TTaskEntry& task, const TJobChange& arguments) {
    TJob job;
    if (!IsRunner(task.program)) {
        job.command = {RealProgram(directory, task.program), task.parameter};
        return job;
    }
    try {
        return ReadJobLine(task.parameter);
    } catch (const CJobError& error) {
        if (!arguments.command.empty() || GivesShell(arguments))
            return job;
        throw MakeError(
            EError::cRefused,
            "the parameter of task \"{}\" is no job that {} could execute: {}; give the "
            "task a program (vxsched edit {} -- PROGRAM)",
            task.name, cRunnerProgram, error.what(), ShellWord(task.name));
    }
}

}  // namespace

void MakeJob(const fs::path& directory, TTaskEntry& task, const TJobChange& arguments) {
    if (arguments.command.empty() && !GivesShell(arguments))
        throw CJobError("give a program after --, or a text by --shell");
    if (!arguments.command.empty() && GivesShell(arguments))
        throw CJobError("a program and --shell; give one of them");
    TJob job;
    job.command = arguments.command;
    TakeOptions(job, arguments);
    RequireIdentity(directory, job);
    SetCommand(task, job);
}

bool TJobChange::IsEmpty() const {
    return !program && !parameter && command.empty() && options.empty();
}

TJobChange ReadJobChange(const std::vector<std::string>& words) {
    TJobChange job;
    job.command = ReadOptions(words, [&](const TJobOption& option, const std::string& value) {
        job.options[option.name].push_back(value);
    });
    return job;
}

void ChangeJob(const fs::path& directory, TTaskEntry& task, const TJobChange& arguments) {
    if (arguments.IsEmpty())
        return;
    const bool givesProgram = arguments.program || arguments.parameter;
    if (int{GivesShell(arguments)} + int{givesProgram} + int{!arguments.command.empty()} > 1)
        throw CJobError("give one of --shell, --program with --parameter, and a program after --");
    TJob job = JobOf(directory, task, arguments);
    if (!arguments.command.empty())
        job.command = arguments.command;
    if (arguments.program && job.command.empty())
        job.command = {*arguments.program};
    else if (arguments.program)
        job.command.front() = *arguments.program;
    if (arguments.parameter && job.command.empty())
        throw CJobError("--parameter is for a program; change the text by --shell");
    if (arguments.parameter)
        job.command = {job.command.front(), *arguments.parameter};
    if (!arguments.command.empty() || arguments.program)
        job.shell.reset();
    if (GivesShell(arguments))
        job.command.clear();
    TakeOptions(job, arguments);
    if (arguments.options.contains("user") || arguments.options.contains("group"))
        RequireIdentity(directory, job);
    if (job.command.empty() && !job.shell)
        throw CJobError("--shell \"\" leaves the task without a program; give one after --");
    SetCommand(task, job);
}

}  // namespace vxsched
