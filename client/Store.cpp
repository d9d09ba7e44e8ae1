#include <vxsched/Store.h>

#include <fmt/format.h>

#include <utility>

#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/ShellWord.h"
#include "client/Change.h"
#include "client/EditTask.h"
#include "client/RunStatus.h"
#include "runs/RunEnd.h"
#include "store/COwnerAccess.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"

namespace vxsched {

namespace fs = std::filesystem;

CStore::CStore(TStoreOptions storeOptions) : options(std::move(storeOptions)) {}

TTable CStore::Read() const {
    return ReadTable(options.directory, options.lockTimeout);
}

bool CStore::Wake() const {
    const std::optional<TSchedulingProcess> scheduler = FindSchedulingProcess(options.directory);
    if (!scheduler || !scheduler->sharesStore)
        return false;
    WakeSchedulingProcess();
    return true;
}

std::vector<TValidationError> CStore::Check(const TNewTask& task, const TForced& forced) const {
    return FindUnforced(options.directory, EntryOf(task), forced);
}

TTaskEntry CStore::Create(const TNewTask& task, bool replace, const TForced& forced) const {
    CChanges changes(options);
    changes.Create(task, replace, forced);
    return changes.Commit().front();
}

TTaskEntry CStore::Edit(std::string_view name, const TEdit& edit, const TForced& forced) const {
    CChanges changes(options);
    changes.Edit(std::string(name), edit, forced);
    return changes.Commit().front();
}

void CStore::Remove(const std::vector<std::string>& names) const {
    CChanges changes(options);
    changes.Remove(names);
    changes.Commit();
}

void CStore::Pause(const std::vector<std::string>& names) const {
    CChanges changes(options);
    changes.Pause(names);
    changes.Commit();
}

void CStore::Resume(const std::vector<std::string>& names, const TForced& forced) const {
    CChanges changes(options);
    changes.Resume(names, forced);
    changes.Commit();
}

TTaskEntry CStore::SetPeriod(std::string_view name, std::uint32_t hours,
                             const TForced& forced) const {
    CChanges changes(options);
    changes.SetPeriod(std::string(name), hours, forced);
    return changes.Commit().front();
}

static TCall RunCall(const fs::path& directory, const TTaskEntry& task, bool force) {
    const COwnerAccess ownerAccess(directory);
    std::vector<TValidationError> errors = Validate(task, Now());
    // The due time and the period do not matter to a run outside the schedule. A relative path is
    // resolved in the store's directory, where the change process works like the host.
    std::erase_if(errors, [](const TValidationError& error) {
        return (!error.IsAboutProgram() && error.kind != TValidationError::cParameterTooLong &&
                error.kind != TValidationError::cNoJob) ||
               error.kind == TValidationError::cRelativePath;
    });
    // The --force of a run skips another check, so none of these can be forced.
    for (TValidationError& error : errors) {
        if (std::exchange(error.canBeForced, false))
            error.message +=
                fmt::format(" (vxsched edit {} --program PROGRAM)", ShellWord(task.name));
    }
    RefuseFor(errors);
    TCall call{.function = TCall::cExecute, .task = task};
    call.mustNotRun = !force;
    return call;
}

// Waits for the end of a run, without limit, and returns its wait status. Throws as
// FindWaitStatus().
static int WaitForStatus(const std::filesystem::path& directory, const TRun& run) {
    const COwnerAccess ownerAccess(directory);
    if (!run.id.empty())
        WaitForRun(directory, run.id);
    return FindWaitStatus(directory, run);
}

void CStore::CheckRun(std::string_view name, bool force) const {
    CheckChange(options, {RunCall(options.directory, Get(name), force)});
}

TRun CStore::Run(std::string_view name, bool force, bool waitForEnd,
                 const std::function<void(const TRun&)>& onLaunch, int output) const {
    const TCall call = RunCall(options.directory, Get(name), force);
    const auto isAttempted = [](const TOutcome& made) {
        return made.run.process != 0 || made.launchError || made.launchUnknown;
    };
    const TOutcome outcome = MakeChange(
        options, {{call},
                  [&](const TOutcome& made) {
                      return isAttempted(made) ? std::nullopt : std::optional(std::string(name));
                  },
                  onLaunch,
                  output});
    if (outcome.launchUnknown)
        throw MakeError(EError::cUnknown,
                        "whether \"{}\" was launched is not known: {}; see vxsched history {}",
                        name, *outcome.launchUnknown, ShellWord(name));
    if (outcome.run.process == 0)
        throw MakeError(EError::cFailed, "cannot launch \"{}\": {}; check the program",
                        call.task.program, outcome.launchError.value_or(""));
    TRun run = outcome.run;
    if (waitForEnd)
        run.status = WaitForStatus(options.directory, run);
    return run;
}

TTaskEntry CStore::Get(std::string_view name) const {
    const TTable table = Read();
    const TTaskEntry* const task = table.Find(name);
    if (task == nullptr)
        throw NoSuchTask(name, table);
    return *task;
}

}  // namespace vxsched
