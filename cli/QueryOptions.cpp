// The commands that change nothing, and their options.

#include <fmt/format.h>

#include "cli/ArgumentChecks.h"
#include "cli/CCommandLine.h"
#include "cli/commands/DefaultCounts.h"

namespace vxsched {

void CCommandLine::AddQueries() {
    const auto addJson = [this](CLI::App& command) {
        command.add_flag("--json", common.json, "Print JSON, with the version of its format");
    };
    Add(
        "list", "List all tasks by their next due time",
        [this] { return List(common, namesOnly, output); },
        [this, addJson](CLI::App& list) {
            addJson(list);
            list.add_flag("--names", namesOnly,
                          "Print only the names, one per line, in the table's order");
        });
    Add(
        "show", "Show one task, its last runs, and why it is not running",
        [this] { return ShowTask(common, task.name, output); },
        [this, addJson](CLI::App& show) {
            addJson(show);
            AddName(show);
        });
    Add(
        "next", "List the coming runs of all tasks in time order",
        [this] { return Next(common, count, until, output); },
        [this, addJson](CLI::App& next) {
            addJson(next);
            next.add_option(
                    "--count", count,
                    fmt::format("Number of runs; {} unless --until is given", cDefaultComingRuns))
                ->check(CheckNumber)
                ->type_name("NUMBER");
            next.add_option("--until", until, "List runs up to this time")->type_name("TIME");
        });
    Add(
        "calendar", "Show what a cron expression means, and its next launches",
        [this] { return Calendar(common, calendarOptions, output); },
        [this, addJson](CLI::App& calendar) {
            addJson(calendar);
            calendar
                .add_option(
                    "expression", calendarOptions.expression,
                    "Minute, hour, day, month and weekday: \"30 2 * * mon-fri\"; or @daily, "
                    "...")
                ->type_name("EXPRESSION")
                ->required();
            calendar
                .add_option("--zone", calendarOptions.zone,
                            "Whose wall time it is, as Europe/Berlin; default the machine's")
                ->type_name("ZONE");
            calendar
                .add_option("--from", calendarOptions.from,
                            "List launches after this time; default now")
                ->type_name("TIME");
            calendar.add_option("--count", calendarOptions.count, "Number of launches; default 5")
                ->check(CheckNumber)
                ->type_name("NUMBER");
        },
        EIdentity::cCaller);
    Add(
        "history", "List the recorded runs of one task or of all tasks",
        [this] { return History(common, task.name, historyOptions, output); },
        [this, addJson](CLI::App& history) {
            addJson(history);
            history.add_option("name", task.name, "The task; it may have been removed since")
                ->type_name("NAME");
            history
                .add_option(
                    "--count", historyOptions.count,
                    fmt::format("Number of runs; {} unless --since is given", cDefaultRecords))
                ->check(CheckNumber)
                ->type_name("NUMBER");
            history
                .add_option("--since", historyOptions.since,
                            "List runs from this time on: 3h ago, yesterday, friday 14:30, ...")
                ->type_name("TIME");
            history.add_flag(
                "--failed", historyOptions.failedOnly,
                "List only runs that failed (status other than 0), were killed, could "
                "not start or were missed, whose launch is unknown or whose runner died");
        });
    Add(
        "stop", "Terminate the runs of a task that are under way, and wait for their end",
        [this] { return Stop(common, task.name, output); },
        [this](CLI::App& stop) {
            AddName(stop);
            AddDryRun(stop);
        });
    Add(
        "output", "Print what the last run of a task has written, or an earlier one",
        [this] { return PrintOutput(common, task.name, outputOptions, output); },
        [this](CLI::App& print) {
            print.add_option("name", task.name, "The task; it may have been removed since")
                ->required()
                ->type_name("NAME");
            print
                .add_option("--run", outputOptions.run,
                            "Which run: 1 is the last, 2 the one before, up to 10")
                ->check(CheckNumber)
                ->type_name("NUMBER");
            print.add_flag("--follow", outputOptions.follow,
                           "Print also what the run writes from now on, until it ends");
        });
    Add(
        "status", "Show the scheduling process, the store mutex and the table",
        [this] { return Status(common, output); }, addJson);
    Add(
        "check", "Check the table and report its problems",
        [this] { return CheckTable(common, file, output); },
        [this, addJson](CLI::App& check) {
            addJson(check);
            check.add_option("file", file, "File to check instead of the directory's table")
                ->type_name("FILE");
        },
        EIdentity::cCaller);
}

}  // namespace vxsched
