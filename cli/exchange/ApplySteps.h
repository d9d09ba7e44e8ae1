#pragma once

#include <optional>
#include <string>
#include <vector>

#include <vxsched/Changes.h>
#include <vxsched/Table.h>
#include "cli/commands/Commands.h"
#include "cli/exchange/FileTasks.h"
#include "cli/output/TaskFields.h"

namespace vxsched {

// What an apply does about a task.
struct TApplyStep {
    enum EKind {
        cCreate,
        cEdit,
        cRemove,   // the file has it no more
        cLeave,    // the same, but somebody has changed it since
        cGone,     // the same, and it is not to be removed
        cNothing,  // it is as the file says
        cPast,     // its last launch is past
    };
    EKind kind = cNothing;
    TTaskEntry task;                  // as the file wants it; of one that it has no more, as it is
    std::optional<TTime> due = {};    // set if it changes
    std::optional<bool> paused = {};  // set if it changes
    std::vector<TFieldChange> fields = {};  // what differs
    std::string where = {};                 // of the file, for a message
    TTaskEntry former = {};                 // of an edit

    bool IsChange() const { return kind == cCreate || kind == cEdit || kind == cRemove; }
};

// The steps for a table of tasks: those that files want, in their order, then those of `made` that no file
// has any more: of tasks that an earlier apply has made, as it has made them. With `prune` these are to be
// removed. Changes nothing.
std::vector<TApplyStep> FindApplySteps(const TCommon& common, std::vector<TTaskEntry> present,
                                       const std::vector<TWantedTask>& wanted,
                                       const std::vector<TTaskEntry>& made, bool prune);

// Why a step cannot be made, with its place; empty if it can. What it leaves alone is no reason.
std::string FindProblem(const TCommon& common, const TApplyStep& step);

// Notes the changes of a step.
void AddStep(const TApplyStep& step, const TForced& forced, CChanges& changes);

}  // namespace vxsched
