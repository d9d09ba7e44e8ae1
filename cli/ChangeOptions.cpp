// The commands that change tasks one by one or as a selection, and their options.

#include <fmt/format.h>

#include <array>

#include "cli/ArgumentChecks.h"
#include "cli/CCommandLine.h"
#include "jobs/JobOptions.h"

namespace vxsched {

void CCommandLine::AddDryRun(CLI::App& command) {
    command.add_flag("--dry-run", common.dryRun, "Print what would be done and change nothing");
}

// For a change of the table.
void CCommandLine::AddChangeOptions(CLI::App& command) {
    AddDryRun(command);
    command.add_flag(
        "--even-if-due", common.store.evenIfDue,
        "Allow the change while tasks are due and no scheduling process runs; they stay due");
}

void CCommandLine::AddForce(CLI::App& command) {
    command
        .add_option("--force", forced,
                    "Skip a check; repeatable: missing-program, not-executable, relative-path, "
                    "wrapped-period, past-due")
        ->type_name("CHECK")
        ->check(OneOf(
            {"missing-program", "not-executable", "relative-path", "wrapped-period", "past-due"}))
        ->expected(1)
        ->allow_extra_args(false)
        ->take_all();
}

void CCommandLine::AddName(CLI::App& command) {
    command.add_option("name", task.name, "The task")->type_name("NAME")->required();
}

void CCommandLine::AddSelection(CLI::App& command, const char* valueName, const char* description) {
    // The name of an argument must not be that of an option.
    command.add_option("tasks", selection.patterns, description)->type_name(valueName);
    command.add_flag("--all", selection.all, "Change all tasks");
}

// A word of a value that was not quoted, or a program without --, is read as a name.
constexpr char cAdviceOnSeparator[] =
    "quote an argument of several words, write -- before a program, and see vxsched list";

constexpr char cTasksHelp[] = "The tasks; quote a pattern of names, as in 'backup-*'";

void CCommandLine::AddForSelected(const char* name, const char* description,
                                  TExitStatus (*command)(const TCommon&, const TSelection&,
                                                         COutput&),
                                  bool isForcible) {
    Add(
        name, description, [this, command] { return command(common, selection, output); },
        [this, isForcible](CLI::App& added) {
            AddSelection(added, "NAME", cTasksHelp);
            AddChangeOptions(added);
            if (isForcible)
                AddForce(added);
        });
}

// A short form of --cron.
struct TCalendarOption {
    const char* name;
    const char* valueName;
    const char* help;
};
constexpr std::array<TCalendarOption, 3> cCalendarOptions = {
    {{"daily", "TIME", "Launch every day: 02:30"},
     {"weekly", "'DAYS TIME'", "Launch on days of the week: 'mon,fri 08:30'"},
     {"monthly", "'DAYS TIME'", "Launch on days of the month, L is the last: '1,L 08:30'"}}};

// How a task is executed, and by which calendar.
void CCommandLine::AddJobOptions(CLI::App& command) {
    for (const TJobOption& option : cJobOptions) {
        if (option.name == cTaskOption)
            continue;
        if (option.implied != nullptr) {
            // A flag takes a value by = only, so that it does not take the program for one. Without a
            // value it is "true".
            command.add_flag(fmt::format("--{}", option.name), flagValue, option.help)
                ->type_name(fmt::format("[={}]", option.valueName))
                ->each([this, &option](const std::string& value) {
                    task.options[option.name].push_back(value == "true" ? option.implied : value);
                });
            continue;
        }
        command
            .add_option_function<std::vector<std::string>>(
                fmt::format("--{}", option.name),
                [this, &option](const std::vector<std::string>& values) {
                    task.options[option.name] = values;
                },
                option.help)
            ->type_name(option.valueName)
            ->expected(1)
            ->allow_extra_args(false)  // else it would take a -- after its value
            ->take_all();
    }
    for (const TCalendarOption& option : cCalendarOptions) {
        const auto take = [this, &option](const std::string& value) {
            task.calendar.emplace_back(option.name, value);
        };
        command
            .add_option_function<std::string>(fmt::format("--{}", option.name), take, option.help)
            ->type_name(option.valueName);
    }
}

void CCommandLine::AddProgram(CLI::App& command) {
    command
        .add_option("program", task.command,
                    "Absolute path of the program, and its arguments; write -- before it")
        ->type_name("PROGRAM");
}

void CCommandLine::AddChanges() {
    Add(
        "create", "Create a task, or replace one",
        [this] { return Create(common, task, replace, output); },
        [this](CLI::App& create) {
            AddName(create);
            create.add_option("--at", task.at, "First due time; default now")->type_name("TIME");
            create.add_option("--every", task.every, "Period; default once")->type_name("PERIOD");
            create.add_flag("--replace", replace, "Replace the task if one of this name exists");
            AddJobOptions(create);
            AddProgram(create);
            AddChangeOptions(create);
            AddForce(create);
        });
    Add(
        "edit", "Change the given fields of tasks",
        [this] {
            selection.advice = cAdviceOnSeparator;
            return Edit(common, selection, task, output);
        },
        [this](CLI::App& edit) {
            AddSelection(edit, "NAME", cTasksHelp);
            edit.add_option("--name", task.newName, "New name")->type_name("NAME");
            edit.add_option("--at", task.at, "Next due time; a past one is due now")
                ->type_name("TIME");
            edit.add_option("--every", task.every, "Period")->type_name("PERIOD");
            edit.add_option("--program", task.program, "Absolute path of the program")
                ->type_name("PATH");
            edit.add_option("--parameter", task.parameter, "The single argument of the program")
                ->type_name("PARAMETER");
            AddJobOptions(edit);
            AddProgram(edit);
            AddChangeOptions(edit);
            AddForce(edit);
        });
    AddForSelected("remove", "Remove tasks; if one does not exist, none is removed", Remove, false);
    AddForSelected("pause", "Skip tasks until they are resumed", Pause, false);
    AddForSelected("resume", "Undo a pause; a missed task is rescheduled", Resume, true);
    Add(
        "period", "Change the period; the next due time stays on the task's grid",
        [this] {
            if (selection.patterns.empty())
                throw CUsageError("period: a period is required: 6h, 1d, 2w, once");
            const std::string period = selection.patterns.back();
            selection.patterns.pop_back();
            return SetPeriod(common, selection, period, output);
        },
        [this](CLI::App& added) {
            AddSelection(added, "NAME PERIOD",
                         "The tasks, or a quoted pattern of names, as 'backup-*'; then the period: "
                         "6h, 1d, 2w, once");
            AddChangeOptions(added);
            AddForce(added);
        });
    Add(
        "run", "Start a task's program now, outside the schedule",
        [this] { return vxsched::Run(common, task.name, force, wait, output); },
        [this](CLI::App& run) {
            AddName(run);
            run.add_flag("--force", force, "Start it even if it is already running");
            run.add_flag("--wait", wait,
                         "Print what it writes until it exits, and exit with its status");
            AddChangeOptions(run);
        });
    Add(
        "wake", "Make the scheduling process check for due tasks now",
        [this] { return Wake(common, output); }, [](CLI::App& /*wake*/) {});
}

}  // namespace vxsched
