// The commands of vxsched, one function each.

#pragma once

#include <fmt/format.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Store.h>
#include "cli/commands/ExitStatus.h"
#include "cli/output/COutput.h"
#include "cli/time/TimeFormat.h"
#include "client/TaskJob.h"

namespace vxsched {

// The options that all commands share.
struct TCommon {
    TStoreOptions store;
    EZone zone = EZone::cLocal;
    bool json = false;
    bool dryRun = false;
    TForced forced = {};
    uid_t caller = 0;  // who runs this command; the superuser works as the owner of the store
};

// Conventions of the commands:
// 1. A command prints to `output` and returns the exit status. The caller calls output.Finish().
// 2. A failure is thrown: CUsageError, CParseError for a time or period, CError for all else.
// 3. With `dryRun` a command prints what it would do, and changes nothing.
// 4. Reading the table waits for the store mutex, changing it for all locks of a change, each up to
//    the lock timeout.

// A number of things: "1 task", "3 tasks".
inline std::string CountOf(std::size_t count, std::string_view thing) {
    return fmt::format("{} {}{}", count, thing, count == 1 ? "" : "s");
}

// The arguments contradict each other or are incomplete.
class CUsageError : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

TExitStatus List(const TCommon& common, bool namesOnly, COutput& output);
TExitStatus ShowTask(const TCommon& common, const std::string& name, COutput& output);

// Prints the coming runs: `count` of them, or those up to the time `until`, or 10.
TExitStatus Next(const TCommon& common, std::optional<std::size_t> count, const std::string& until,
                 COutput& output);

// What is asked of an expression; empty: the machine's zone, now.
struct TCalendarOptions {
    std::string expression;
    std::string zone;
    std::string from;
    std::size_t count = 5;
};

// Prints a cron expression normalised and in words, and its next launches. Uses no store.
TExitStatus Calendar(const TCommon& common, const TCalendarOptions& options, COutput& output);

// Which runs are listed.
struct THistoryOptions {
    std::optional<std::size_t> count;  // the last ones; 20 unless `since` is given
    std::string since;                 // those since this time, as ParsePastTime() reads it
    bool failedOnly = false;
};

// Prints runs, the latest last; of all tasks if `name` is empty.
TExitStatus History(const TCommon& common, const std::string& name, const THistoryOptions& options,
                    COutput& output);

// Which output of a task is printed, and for how long.
struct TOutputOptions {
    std::size_t run = 1;  // 1: that of the last run
    bool follow = false;  // until the run ends
};

// Prints what a run has written, as far as it is kept.
TExitStatus PrintOutput(const TCommon& common, const std::string& name,
                        const TOutputOptions& options, COutput& output);

// Terminates the runs of a task and waits for their ends; what has not ended after ten seconds is
// killed by its runner.
TExitStatus Stop(const TCommon& common, const std::string& name, COutput& output);
TExitStatus Status(const TCommon& common, COutput& output);

// Checks `file`, or the directory's table if it is empty. Returns cDamagedStatus for a table that
// is damaged or harmful to load.
TExitStatus CheckTable(const TCommon& common, const std::string& file, COutput& output);

// Quarantines a damaged table and writes a repaired one.
TExitStatus Repair(const TCommon& common, COutput& output);
TExitStatus Export(const TCommon& common, COutput& output);

// Prints the table as a crontab, the system's with a column of users. What that cannot say of a task is
// a message, and the status cRefusedStatus.
TExitStatus ExportCrontab(const TCommon& common, bool isSystem, COutput& output);

// Prints the table as a file of tasks, which `apply` reads. What that cannot say is a message, and the
// status cRefusedStatus.
TExitStatus ExportToml(const TCommon& common, COutput& output);

// Writes a timer and a service of systemd for each task into a directory, which it makes, or which is empty.
// What those cannot say is a message, and the status cRefusedStatus.
TExitStatus ExportSystemd(const TCommon& common, const std::string& path, COutput& output);

// Has the tasks of a file, or of the *.toml files of a directory, be as it says, as one change; "-" is
// standard input. With `prune`, removes those that an earlier call has made from it and that it has no more.
TExitStatus Apply(const TCommon& common, const std::string& path, bool prune, COutput& output);

// What to do about tasks that the table already has: refuse, overwrite them, replace the whole
// table.
enum class EImport { cAdd, cMerge, cReplace };

// How a crontab is imported.
struct TCrontabOptions {
    std::string user;       // whose it is; empty: the store's owner's
    bool isSystem = false;  // each line has a user
    bool isCronie = false;
    bool isPartial = false;  // the other lines of a file with wrong ones
};

// Imports a crontab from `file`, which may be a directory of them if they are the system's, or from
// standard input for "-". With `merge` it changes tasks that have another command, calendar or
// environment by now.
TExitStatus ImportCrontab(const TCommon& common, const std::string& file,
                          const TCrontabOptions& options, bool merge, COutput& output);

// Imports `file`, or standard input for "-".
TExitStatus Import(const TCommon& common, const std::string& file, EImport how, COutput& output);

using TNames = std::vector<std::string>;

// The arguments for one task as they were typed. An omitted one is empty, which differs from "".
struct TTaskArguments : TJobChange {
    std::string name;
    std::optional<std::string> at = {};
    std::optional<std::string> every = {};
    std::optional<std::string> newName = {};
    // Short forms of a calendar: "daily", "weekly" or "monthly", and the value.
    std::vector<std::pair<std::string, std::string>> calendar = {};
};
TExitStatus Create(const TCommon& common, const TTaskArguments& task, bool replace,
                   COutput& output);

// These change all of the selected tasks in one step, or none. `task` has the changes, but no name.
struct TSelection;
TExitStatus Edit(const TCommon& common, const TSelection& selection, const TTaskArguments& task,
                 COutput& output);
TExitStatus Remove(const TCommon& common, const TSelection& selection, COutput& output);
TExitStatus Pause(const TCommon& common, const TSelection& selection, COutput& output);
TExitStatus Resume(const TCommon& common, const TSelection& selection, COutput& output);
TExitStatus SetPeriod(const TCommon& common, const TSelection& selection, const std::string& every,
                      COutput& output);

// Launches the program of a task now. With `wait` it prints what the program writes until it exits,
// without limit, and returns its exit status; 128 plus the number of the signal that killed it.
TExitStatus Run(const TCommon& common, const std::string& name, bool force, bool wait,
                COutput& output);
TExitStatus Wake(const TCommon& common, COutput& output);

TExitStatus PrintCompletion(const std::string& shell, COutput& output);

}  // namespace vxsched
