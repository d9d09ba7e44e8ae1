#include "client/EditTask.h"

#include <fmt/format.h>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "client/GiveToRunner.h"
#include "client/TaskSchedule.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "store/COwnerAccess.h"
#include "store/Grid.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

// A program whose path a launch would alter is executed by the runner.
void MakeSchedulable(TTaskEntry& entry) {
    if (!NeedsRunner(entry.program))
        return;
    TJob job;
    job.command = {entry.program, entry.parameter};
    GiveToRunner(entry, job);
}

// Has the line of a job name the task, if it names one.
void RenameJob(TTaskEntry& entry) {
    if (!IsRunner(entry.program))
        return;
    try {
        TJob job = ReadJobLine(entry.parameter);
        if (job.task.empty())
            return;
        job.task = entry.name;
        entry.parameter = JobLine(job);
    } catch (const CJobError&) {
        // It has no name that could be found.
    }
}

void EditSchedule(TTaskEntry& entry, const TTaskEntry& former, const TEdit& edit) {
    const bool hasCommand = entry.program != former.program || entry.parameter != former.parameter;
    const CSchedule schedule = hasCommand ? RequireSchedule(entry) : CSchedule(entry);
    if (schedule.HasCalendar() && (edit.due || edit.period))
        throw MakeError(EError::cRefused,
                        "task \"{}\" is launched by its calendar, which sets its due times; change "
                        "that (--cron), or remove it (--cron \"\") for a period",
                        entry.name);
    if (!schedule.HasCalendar() && CSchedule(former).HasCalendar() && !edit.period)
        throw MakeError(EError::cRefused,
                        "without its calendar task \"{}\" has no period; give it one (--every)",
                        entry.name);
    // A launch that is due stays so.
    const bool isDue = !entry.paused && entry.next <= Now() && schedule.IsLaunchTime(entry.next);
    const bool isOff = hasCommand || entry.paused || !schedule.IsLaunchTime(entry.next);
    if (schedule.HasCalendar() && !isDue && isOff)
        ScheduleByCalendar(entry, schedule);
    else if (entry.paused && StepOf(entry.period) != std::chrono::seconds(0))
        entry.next = schedule.FirstFrom(Now());
    if (hasCommand || edit.due)
        RequireLaunch(entry, schedule);
}

}  // namespace

void RefuseFor(const std::vector<TValidationError>& errors) {
    if (errors.empty())
        return;
    std::string message;
    for (const TValidationError& error : errors) {
        message += (message.empty() ? "" : "\n") + Show(error.message).string;
        if (error.canBeForced)
            message += fmt::format(" (or --force {})", error.Name());
    }
    throw CError(EError::cRefused, message);
}

std::vector<TValidationError> FindUnforced(const fs::path& directory, const TTaskEntry& task,
                                           const TForced& forced) {
    const COwnerAccess ownerAccess(directory);
    std::vector<TValidationError> errors = Validate(task, Now());
    std::erase_if(errors, [&](const TValidationError& error) {
        return error.canBeForced && forced.contains(error.Name());
    });
    return errors;
}

TTaskEntry EntryOf(const TNewTask& task) {
    TTaskEntry entry = {task.name,    task.due,       TTime(), task.period,
                        task.program, task.parameter, false};
    MakeSchedulable(entry);
    const CSchedule schedule = RequireSchedule(entry);
    if (schedule.HasCalendar())
        ScheduleByCalendar(entry, schedule);
    RequireLaunch(entry, schedule);
    return entry;
}

bool IsOnlyRename(const TEdit& edit) {
    return edit.name && !edit.due && !edit.period && !edit.program && !edit.parameter &&
           !edit.command;
}

TTaskEntry Edited(const fs::path& directory, TTaskEntry entry, const TEdit& edit,
                  const TForced& forced) {
    const TTaskEntry former = entry;
    entry.name = edit.name.value_or(entry.name);
    entry.next = edit.due.value_or(entry.next);
    entry.period = edit.period.value_or(entry.period);
    entry.program = edit.program.value_or(entry.program);
    entry.parameter = edit.parameter.value_or(entry.parameter);
    if (edit.command)
        edit.command(entry);
    const bool hasProgram = edit.program || entry.program != former.program;
    const bool hasParameter = edit.parameter || entry.parameter != former.parameter;
    if (!IsOnlyRename(edit))
        entry.program = RealProgram(directory, entry.program);
    if (entry.program != former.program)
        MakeSchedulable(entry);
    if (edit.name)
        RenameJob(entry);
    if (!IsOnlyRename(edit))
        EditSchedule(entry, former, edit);
    std::vector<TValidationError> errors = FindUnforced(directory, entry, forced);
    // Fields that the edit leaves alone are no reason to refuse it.
    std::erase_if(errors, [&](const TValidationError& error) {
        return (IsOnlyRename(edit) && !error.IsAboutName()) ||
               (!hasProgram && !hasParameter &&
                (error.IsAboutProgram() || error.kind == TValidationError::cNoJob)) ||
               (!hasProgram && error.IsAboutProgram() && !IsRunner(entry.program)) ||
               (!hasParameter && error.kind == TValidationError::cParameterTooLong) ||
               (!entry.paused && !edit.due && !edit.period &&
                error.kind == TValidationError::cPastDue);
    });
    RefuseFor(errors);
    return entry;
}

}  // namespace vxsched
