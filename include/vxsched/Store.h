#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/StoreOptions.h>
#include <vxsched/Table.h>
#include <vxsched/Validation.h>

namespace vxsched {

// The objections to pass over, by their names ("missing-program"); only what canBeForced can be.
using TForced = std::set<std::string, std::less<>>;

struct TNewTask {
    std::string name;
    TTime start;
    std::uint32_t period = 0;  // hours; 0 runs once
    std::string program;       // the real one: what cannot be named directly gets a link
    std::string parameter;
};

// What an edit changes; what is not named stays as it is.
struct TEdit {
    std::optional<TTime> start = {};
    std::optional<std::uint32_t> period = {};
    std::optional<std::string> program = {};
    std::optional<std::string> parameter = {};
};

// What came of a start. A program that could not be started throws instead.
struct TRun {
    pid_t process = 0;
    std::optional<int> status;  // as waitpid reports it; none when its end was not waited for
};

// The tasks of one directory. Reading has no effect on the store. Changing goes through the add-in,
// in a short-lived process of its own, and only when that harms nobody:
//
// - The turn and the store mutex are taken as one more waiter, so that neither a tick nor another
//   client is cut off.
// - A table that is damaged or would hang who loads it is left as it is.
// - While an active task is due, the scheduling process is woken and waited for. Without one,
//   nothing is changed unless evenIfDue says so; such tasks then stay due, none is removed or moved
//   on.
// - The table is read back. When the change could not be finished and has left a damaged table, the
//   one from before is put back.
// - A scheduling process is woken, so that the change takes effect at once.
//
// Every call throws CError; a call that throws has changed nothing unless its text says so.
// Threads may use an object each.
class VXSCHED_PUBLIC CStore {
public:
    explicit CStore(TStoreOptions storeOptions);

    // See ReadTable(). Programs are as in the table; RealProgram() says what a link leads to.
    TTable Read() const;

    // The process that starts what is due, and what has it look at once. Wake() is false when there
    // is none.
    bool Wake() const;

    // What speaks against the task, forced objections left out; empty when Create() would take it.
    std::vector<TValidationError> Check(const TNewTask& task, const TForced& forced) const;

    // Adds a task, active; with `replace`, in the place of one of that name, which keeps its last
    // start. Throws cRefused when something speaks against it.
    TTaskEntry Create(const TNewTask& task, bool replace, const TForced& forced = {}) const;

    // Changes a task; paused stays paused. The entry as it will be, without and with doing it.
    TTaskEntry Edited(std::string_view name, const TEdit& edit, const TForced& forced = {}) const;
    TTaskEntry Edit(std::string_view name, const TEdit& edit, const TForced& forced = {}) const;

    // Each of these takes all of the names or, when one is unknown, none (cNotFound).
    void Remove(const std::vector<std::string>& names) const;
    void Pause(const std::vector<std::string>& names) const;
    // A task that runs once and whose time passed while it was paused would be removed unrun:
    // refused, unless "past-start" is forced.
    void Resume(const std::vector<std::string>& names, const TForced& forced = {}) const;

    // Throws what Resume() would now.
    void CheckResume(const std::vector<std::string>& names, const TForced& forced = {}) const;

    // Gives a task another period, counted on from its last time on the grid; the entry afterwards.
    // A period of 0 keeps the next start and makes it the only one.
    TTaskEntry SetPeriod(std::string_view name, std::uint32_t hours,
                         const TForced& forced = {}) const;

    // Starts the task's program now, outside the schedule; a paused one, too. Throws cRefused when
    // it is running already, unless `force`. With `waitForEnd` the program's end is waited for,
    // without limit; `onStart` is told its process before that, and must not
    // throw. A program that is not waited for has /dev/null as its output.
    TRun Run(std::string_view name, bool force, bool waitForEnd,
             const std::function<void(pid_t)>& onLaunch = {}) const;

    // Throws what Run() would now.
    void CheckRun(std::string_view name, bool force) const;

    // Makes `tasks` the whole table, not through the add-in but by replacing the file under the
    // mutex, and tells the scheduling process. What was there is kept as the copy from before, if it
    // was a table.
    // `canReplace` looks at the bytes that are there, and throws to leave them. Objections are not
    // looked for: that is for who puts the tasks together.
    void ReplaceAll(const std::vector<TTaskEntry>& tasks,
                    const std::function<void(const std::string& bytes)>& canReplace = {}) const;

    const TStoreOptions& Options() const { return options; }

private:
    TTaskEntry Get(std::string_view name) const;
    TTaskEntry TryEdit(const TTaskEntry& seen, const TEdit& edit, const TForced& forced) const;

    TStoreOptions options;
};

}  // namespace vxsched
