#include "cli/commands/Selection.h"

#include <fnmatch.h>

#include <algorithm>
#include <set>

#include <vxsched/Error.h>
#include "store/CNamedTasks.h"
#include "store/MakeError.h"
#include "store/NoSuchTask.h"

namespace vxsched {

namespace {

// How often a selection is made anew because a task is gone.
constexpr int cTries = 20;

bool IsPattern(const std::string& typed) {
    return typed.find_first_of("*?[") != std::string::npos;
}

TNames Match(const TTable& table, const std::string& pattern) {
    TNames names;
    for (const TTaskEntry& task : table.tasks) {
        if (fnmatch(pattern.c_str(), task.name.c_str(), 0) == 0)
            names.push_back(task.name);
    }
    if (names.empty())
        throw MakeError(EError::cNotFound, "no task matches \"{}\"; see vxsched list", pattern);
    return names;
}

TNames Select(const TTable& table, const TSelection& selection) {
    TNames names;
    std::set<std::string, std::less<>> isSelected;
    const auto select = [&](const std::string& name) {
        if (isSelected.insert(name).second)
            names.push_back(name);
    };
    if (selection.all) {
        for (const TTaskEntry& task : table.tasks)
            select(task.name);
    }
    CNamedTasks tasks(table.tasks);
    for (const std::string& typed : selection.patterns) {
        if (tasks.Find(typed) != nullptr)
            select(typed);
        else if (!IsPattern(typed))
            throw NoSuchTask(typed, table, selection.advice);
        else
            std::ranges::for_each(Match(table, typed), select);
    }
    return names;
}

}  // namespace

void ForSelected(const TCommon& common, const TSelection& selection,
                 const std::function<void(const TNames&)>& change) {
    if (selection.patterns.empty() != selection.all)
        throw CUsageError(selection.all ? "give either names or --all, not both"
                                        : "a task is required: give names, or --all for all tasks");
    if (selection.patterns.size() == 1 && !IsPattern(selection.patterns.front()))
        return change(selection.patterns);
    for (int tries = cTries;; --tries) {
        const TNames names = Select(CStore(common.store).Read(), selection);
        try {
            return change(names);
        } catch (const CError& error) {
            if (error.Code() != EError::cNotFound || tries == 0)
                throw;
        }
    }
}

}  // namespace vxsched
