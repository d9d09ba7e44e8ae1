#include <fmt/format.h>
#include <sys/wait.h>

#include <cstring>
#include <iostream>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/ExitStatus.h"
#include "cli/time/PeriodFormat.h"
#include "store/ProgramLinks.h"

namespace vxsched {

namespace {

// "backup, every 1d, next 2026-11-22 02:00:00 (in 11h 5min)".
std::string Describe(const TCommon& common, const TTaskEntry& task) {
    const TTime now = Now();
    const std::string when = task.next <= now
                                 ? "at once"
                                 : fmt::format("{} (in {})", FormatTime(task.next, common.zone),
                                               FormatDistance(task.next - now));
    const std::string every = task.period == 0 ? "once" : "every " + FormatPeriod(task.period);
    return fmt::format("{}, {}, {} {}{}", task.name, every, task.paused ? "paused, next" : "next",
                       when, common.dryRun ? " (nothing was changed)" : "");
}

void Say(COutput& output, const std::string& text) {
    output.Line(Show(text).text);
}

// Refuses names that are not there, as the change itself would.
void CheckNames(const CStore& store, const TNames& names) {
    const TTable table = store.Read();
    for (const std::string& name : names) {
        if (table.Find(name) == nullptr)
            throw CError(EError::cNotFound,
                         fmt::format("there is no task \"{}\"; vxsched list shows all", name));
    }
}

template <typename Change>
int ChangeNames(const TCommon& common, const TNames& names, const char* done, const char* would,
                COutput& output, const Change& change) {
    const CStore store(common.store);
    if (common.dryRun)
        CheckNames(store, names);
    else
        change(store);
    for (const std::string& name : names)
        Say(output, fmt::format("{} {}", common.dryRun ? would : done, name));
    return cDone;
}

}  // namespace

int Create(const TCommon& common, const TTaskArguments& texts, bool replace, COutput& output) {
    const TTime now = Now();
    const TNewTask task{texts.name, ParseTime(texts.at.value_or("now"), now),
                        ParsePeriod(texts.every.value_or("once")), texts.program.value_or(""),
                        texts.parameter.value_or("")};
    const CStore store(common.store);
    if (common.dryRun) {
        for (const TValidationError& error : store.Check(task, common.forced))
            throw CError(EError::cRefused, error.text);
        if (const TTable table = store.Read(); table.Find(task.name) != nullptr && !replace)
            throw CError(EError::cRefused,
                         fmt::format("there is a task \"{}\" already; --replace it, or choose "
                                     "another name",
                                     task.name));
        Say(output, "would create " + Describe(common, {task.name, task.start, TTime(), task.period,
                                                        "", "", false}));
        return cDone;
    }
    Say(output, "created " + Describe(common, store.Create(task, replace, common.forced)));
    return cDone;
}

int Edit(const TCommon& common, const TTaskArguments& texts, COutput& output) {
    TEdit edit;
    if (texts.at)
        edit.start = ParseTime(*texts.at, Now());
    if (texts.every)
        edit.period = ParsePeriod(*texts.every);
    edit.program = texts.program;
    edit.parameter = texts.parameter;
    if (!edit.start && !edit.period && !edit.program && !edit.parameter)
        throw CUsageError("edit: name what is to change: --at, --every, --program or --parameter");
    const CStore store(common.store);
    if (common.dryRun)
        Say(output,
            "would change " + Describe(common, store.Edited(texts.name, edit, common.forced)));
    else
        Say(output, "changed " + Describe(common, store.Edit(texts.name, edit, common.forced)));
    return cDone;
}

int Remove(const TCommon& common, const TNames& names, COutput& output) {
    return ChangeNames(common, names, "removed", "would remove", output,
                       [&](const CStore& store) { store.Remove(names); });
}

int Pause(const TCommon& common, const TNames& names, COutput& output) {
    return ChangeNames(common, names, "paused", "would pause", output,
                       [&](const CStore& store) { store.Pause(names); });
}

int Resume(const TCommon& common, const TNames& names, COutput& output) {
    if (common.dryRun)
        CStore(common.store).CheckResume(names, common.forced);
    return ChangeNames(common, names, "resumed", "would resume", output,
                       [&](const CStore& store) { store.Resume(names, common.forced); });
}

int SetPeriod(const TCommon& common, const std::string& name, const std::string& every,
              COutput& output) {
    const std::uint32_t hours = ParsePeriod(every);
    const CStore store(common.store);
    TEdit edit;
    edit.period = hours;
    if (common.dryRun)
        Say(output, "would change " + Describe(common, store.Edited(name, edit, common.forced)));
    else
        Say(output, "changed " + Describe(common, store.SetPeriod(name, hours, common.forced)));
    return cDone;
}

int Run(const TCommon& common, const std::string& name, bool force, bool wait, COutput& output) {
    const CStore store(common.store);
    if (common.dryRun) {
        store.CheckRun(name, force);
        Say(output, "would run " + name);
        return cDone;
    }
    const TRun run = store.Run(name, force, wait, [&](pid_t process) {
        Say(output, fmt::format("started {} as process {}", name, process));
        try {
            output.Finish();
        } catch (const CError&) {
            // The start is not to be cut short for that; the end of the command says it.
        }
    });
    if (!run.status)
        return cDone;
    if (WIFSIGNALED(*run.status)) {
        Say(output,
            fmt::format("{} was killed by SIG{}", name, sigabbrev_np(WTERMSIG(*run.status))));
        return cRefusedStatus;
    }
    Say(output, fmt::format("{} ended with status {}", name, WEXITSTATUS(*run.status)));
    return WEXITSTATUS(*run.status) == 0 ? cDone : cRefusedStatus;
}

int Wake(const TCommon& common, COutput& output) {
    const CStore store(common.store);
    if (!store.Wake())
        throw CError(EError::cNoScheduler,
                     fmt::format("there is no scheduling process to wake in {}; start "
                                 "vxschedd there",
                                 common.store.directory.string()));
    output.Line("woke the scheduling process");
    return cDone;
}

}  // namespace vxsched
