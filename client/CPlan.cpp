#include "client/CPlan.h"

#include <utility>

#include "base/IsoTime.h"
#include "client/LockForChange.h"
#include "store/COwnerAccess.h"
#include "store/ProgramLinks.h"

namespace vxsched {

CNamedTasks& CPlan::Tasks() {
    if (!applied) {
        const TTable table =
            DoBeforeChange([&] { return ReadTable(options.directory, options.lockTimeout); });
        applied.emplace(table.tasks);
        for (const TCall& call : calls)
            Apply(call);
    }
    return applied->tasks;
}

void CPlan::Apply(const TCall& call) {
    const COwnerAccess ownerAccess(options.directory);
    applied->Apply(options.directory, call, options.evenIfDue);
}

void CPlan::Add(TCall call) {
    if (applied)
        Apply(call);
    std::optional<TTaskEntry>& task = Note(call.task.name);
    if (call.function == TCall::cCreate)
        task = call.task;
    TNoted& note = noted[indices.find(call.task.name)->second];
    note.isRemoved = call.function == TCall::cDestroy;
    if (!call.newName.empty()) {
        note.name = call.newName;
        note.task->name = call.newName;
        auto node = indices.extract(call.task.name);
        node.key() = call.newName;
        indices.insert(std::move(node));
    }
    calls.push_back(std::move(call));
}

std::optional<TTaskEntry>& CPlan::Note(const std::string& name) {
    const auto [found, isNew] = indices.try_emplace(name, noted.size());
    if (isNew)
        noted.push_back({name, {}});
    return noted[found->second].task;
}

std::vector<TTaskEntry> CPlan::Left(CNamedTasks& tasks) const {
    std::vector<TTaskEntry> left;
    for (const TNoted& note : noted) {
        if (note.isRemoved)
            continue;
        if (const TTaskEntry* const task = tasks.Find(note.name))
            left.push_back(*task);
        else if (note.task)
            left.push_back(*note.task);
    }
    return left;
}

namespace {

// True if the task that was found, null if there is none, is as requested, or as a tick since then has
// left it: launched and rescheduled, or removed after its only run.
bool IsThere(const TTaskEntry* found, const TTaskEntry& wanted, TTime since) {
    // The host launches by the precise clock, which Now() may lag behind.
    if (found == nullptr)
        return wanted.period == 0 && !wanted.paused && wanted.next <= CurrentMoment();
    const bool hasRun = found->last >= since;
    return (found->program == wanted.program || found->program == LaunchedPath(wanted.program)) &&
           found->parameter == wanted.parameter && found->period == wanted.period &&
           found->paused == wanted.paused &&
           (found->next == wanted.next || hasRun || wanted.next < since);
}

// Whether the tasks show what a call has made of its task, which no later one has changed. A renamed task
// that runs once and that the table has under neither name was launched after the change.
bool IsMade(CNamedTasks& tasks, const TCall& call, TTime since) {
    const TTaskEntry* const found =
        tasks.Find(call.newName.empty() ? call.task.name : call.newName);
    switch (call.function) {
        case TCall::cCreate:
            return IsThere(found, call.task, since) && (found != nullptr || call.newName.empty() ||
                                                        tasks.Find(call.task.name) == nullptr);
        case TCall::cDestroy:
            return found == nullptr;
        case TCall::cPause:
            return found != nullptr && found->paused;
        case TCall::cResume:
            return found == nullptr ? call.mayRemove : !found->paused;
        case TCall::cSetPeriod:
            return found != nullptr && found->period == call.task.period;
        case TCall::cExecute:
            break;
    }
    return true;
}

}  // namespace

std::optional<std::string> FindMissing(const TOutcome& outcome, const std::vector<TCall>& calls,
                                       TTime since) {
    std::map<std::string_view, const TCall*> last;
    for (const TCall& call : calls) {
        if (!call.newName.empty())
            last.erase(call.task.name);
        last[call.newName.empty() ? call.task.name : call.newName] = &call;
    }
    CNamedTasks tasks(outcome.table.tasks);
    for (const auto& [name, call] : last) {
        if (!IsMade(tasks, *call, since))
            return call->task.name;
    }
    return {};
}

}  // namespace vxsched
