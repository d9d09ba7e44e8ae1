#include <vxsched/Changes.h>

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

#include "base/IsoTime.h"
#include "client/CPlan.h"
#include "client/Change.h"
#include "client/EditTask.h"
#include "store/CSchedule.h"
#include "store/NoSuchTask.h"

namespace vxsched {

namespace {

// How often a change is planned again because a task changes meanwhile.
constexpr int cTries = 20;

const TTaskEntry& Require(CPlan& plan, const std::string& name) {
    const TTaskEntry* const found = plan.Tasks().Find(name);
    if (found == nullptr)
        throw NoSuchTask(name, {plan.Tasks().Tasks(), {}});
    return *found;
}

TCall CallOf(TCall::EFunction function, const std::string& name) {
    TCall call{.function = function};
    call.task.name = name;
    return call;
}

// Whether `first` was launched for its due time since it was read. `found` is the task that has its
// name now; null if none has.
bool IsLaunchedSince(const TTaskEntry& first, const TTaskEntry* found) {
    return found != nullptr ? found->last > first.last
                            : first.period == 0 && first.next <= CurrentMoment();
}

// A new task, or one in place of another. It is due when it was first planned for.
class CCreation {
public:
    CCreation(TNewTask created, bool mayReplace, TForced skipped)
        : task(std::move(created)), replace(mayReplace), forced(std::move(skipped)) {}

    void operator()(CPlan& plan) {
        const bool isFirst = entry.name != task.name || entry.program.empty();
        if (isFirst) {
            entry = EntryOf(task);
            RefuseFor(FindUnforced(plan.Options().directory, entry, forced));
        }
        const TTaskEntry* const found = replace ? plan.Tasks().Find(task.name) : nullptr;
        if (isFirst && found != nullptr && found->next == entry.next)
            first = *found;
        // A tick may launch the task for the time that the new one names. That launch is then the new one's,
        // which is due a period later, or has had its only run.
        if (first && first->next == entry.next && IsLaunchedSince(*first, found)) {
            if (entry.period == 0 && found == nullptr)
                return plan.Keep(entry);
            entry.next = entry.period == 0
                             ? found->next
                             : CSchedule(entry).FirstFrom(entry.next + std::chrono::seconds(1));
        }
        TCall call{.function = TCall::cCreate, .task = entry};
        call.mustExist = false;
        call.mustBeNew = !replace;
        call.mustBeAsSeen = first && found != nullptr;
        if (call.mustBeAsSeen)
            call.seen = *found;
        // A task that is due now must not be taken for a missed one a second later; a repeating one that
        // is past is to be rescheduled.
        call.keepDue = entry.period == 0 || entry.next >= Now() - cJustPast;
        plan.Add(std::move(call));
    }

private:
    TNewTask task;
    bool replace;
    TForced forced;
    TTaskEntry entry = {};
    std::optional<TTaskEntry> first = {};  // the task that is replaced, if it has the same due time
};

// The call that makes `entry` of the task that was seen.
TCall EditCall(const TTaskEntry& seen, const TTaskEntry& entry) {
    TCall call{.function = TCall::cCreate, .task = entry};
    call.task.name = seen.name;
    if (entry.name != seen.name)
        call.newName = entry.name;
    // An edit must not cost a due task its run.
    call.keepDue = true;
    call.mustBeAsSeen = true;
    call.seen = seen;
    return call;
}

class CEdit {
public:
    CEdit(std::string edited, TEdit wanted, TForced skipped)
        : name(std::move(edited)), edit(std::move(wanted)), forced(std::move(skipped)) {}

    void operator()(CPlan& plan) {
        const TTaskEntry seen = Require(plan, name);
        // A tick may launch and reschedule the task between the read and the change. An edit of the old
        // entry would undo that, and the task would run twice. Launched meanwhile for the due time that
        // the edit names, it is not due for that again.
        if (first && edit.due == first->next && seen.last > first->last)
            edit.due.reset();
        if (!first)
            first = seen;
        if (IsOnlyRename(edit) && *edit.name == name)
            return plan.Keep(seen);
        plan.Add(EditCall(seen, Edited(plan.Options().directory, seen, edit, forced)));
    }

private:
    std::string name;
    TEdit edit;
    TForced forced;
    std::optional<TTaskEntry> first = {};
};

void PlanPeriod(CPlan& plan, const std::string& name, std::uint32_t hours, const TForced& forced) {
    const TTaskEntry seen = Require(plan, name);
    const TTaskEntry entry = Edited(plan.Options().directory, seen, {.period = hours}, forced);
    // A task that is to run once keeps its due time.
    if (hours == 0)
        return plan.Add(EditCall(seen, entry));
    TCall call = CallOf(TCall::cSetPeriod, name);
    call.task.period = hours;
    plan.Add(std::move(call));
}

}  // namespace

CChanges::CChanges(TStoreOptions storeOptions) : options(std::move(storeOptions)) {}

void CChanges::Create(TNewTask task, bool replace, TForced forced) {
    steps.emplace_back(CCreation(std::move(task), replace, std::move(forced)));
}

void CChanges::Edit(std::string name, TEdit edit, TForced forced) {
    steps.emplace_back(CEdit(std::move(name), std::move(edit), std::move(forced)));
}

void CChanges::ForEach(const std::vector<std::string>& names,
                       const std::function<void(const std::string&)>& note) {
    std::set<std::string_view> isNoted;
    for (const std::string& name : names) {
        if (isNoted.insert(name).second)
            note(name);
    }
}

void CChanges::Remove(const std::vector<std::string>& names) {
    ForEach(names, [this](const std::string& name) {
        steps.emplace_back([name](CPlan& plan) { plan.Add(CallOf(TCall::cDestroy, name)); });
    });
}

void CChanges::Pause(const std::vector<std::string>& names) {
    ForEach(names, [this](const std::string& name) {
        steps.emplace_back([name](CPlan& plan) { plan.Add(CallOf(TCall::cPause, name)); });
    });
}

void CChanges::Resume(const std::vector<std::string>& names, const TForced& forced) {
    const bool mayRemove = forced.contains("past-due");
    ForEach(names, [&](const std::string& name) {
        TCall call = CallOf(TCall::cResume, name);
        call.mayRemove = mayRemove;
        steps.emplace_back([call](CPlan& plan) { plan.Add(call); });
    });
}

void CChanges::SetPeriod(std::string name, std::uint32_t hours, TForced forced) {
    steps.emplace_back([name = std::move(name), hours, forced = std::move(forced)](CPlan& plan) {
        PlanPeriod(plan, name, hours, forced);
    });
}

std::vector<TTaskEntry> CChanges::Check() {
    CPlan plan(options);
    for (const auto& step : steps)
        step(plan);
    CheckChange(options, plan.Calls());
    return plan.Left(plan.Tasks());
}

std::vector<TTaskEntry> CChanges::Commit() {
    for (int tries = cTries;; --tries) {
        CPlan plan(options);
        const TTime since = Now();
        for (const auto& step : steps)
            step(plan);
        try {
            std::vector<TTaskEntry> tasks;
            if (!plan.Calls().empty())
                tasks = MakeChange(options, {.calls = plan.Calls(),
                                             .findMissing =
                                                 [&](const TOutcome& made) {
                                                     return FindMissing(made, plan.Calls(), since);
                                                 }})
                            .table.tasks;
            steps.clear();
            CNamedTasks made(std::move(tasks));
            return plan.Left(made);
        } catch (const CChangedMeanwhile&) {
            if (tries == 0)
                throw;
        }
    }
}

}  // namespace vxsched
