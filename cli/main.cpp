// The command vxsched: parses the command line, runs the command, and maps errors to exit statuses.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "base/FindNearest.h"
#include "base/StandardDescriptors.h"
#include "cli/commands/Commands.h"
#include "cli/commands/DefaultCounts.h"
#include "cli/commands/Interruption.h"
#include "cli/commands/Selection.h"
#include "cli/time/PastTime.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/JobOptions.h"
#include "store/Layout.h"
#include "store/MakeError.h"
#include "store/StoreAccess.h"
#include "store/StoreOwner.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// CLI::Range would print its bounds with six decimals, and accept NaN.
std::string CheckLockTimeout(const std::string& argument) {
    char* end = nullptr;
    const double seconds = std::strtod(argument.c_str(), &end);
    if (!argument.empty() && end == argument.c_str() + argument.size() && seconds >= 0 &&
        seconds <= 86400)
        return "";
    return fmt::format("expected a number of seconds from 0 to 86400, not \"{}\"", argument);
}

// The parser's own checks would have a wording of their own, as "Value x not in range".
std::string CheckNumber(const std::string& argument) {
    constexpr int cMost = 1'000'000;
    int number = 0;
    const char* const end = argument.data() + argument.size();
    const auto [parsed, error] = std::from_chars(argument.data(), end, number);
    if (error == std::errc() && parsed == end && number >= 1 && number <= cMost)
        return "";
    return fmt::format("expected a number from 1 to {}, not \"{}\"", cMost, argument);
}

// A check for one of these words, of which there are two or more.
std::function<std::string(const std::string&)> OneOf(std::vector<std::string> words) {
    return [words = std::move(words)](const std::string& argument) -> std::string {
        if (std::find(words.begin(), words.end(), argument) != words.end())
            return "";
        return fmt::format("expected {} or {}, not \"{}\"",
                           fmt::join(words.begin(), words.end() - 1, ", "), words.back(), argument);
    };
}

// `what`, in the plural for several arguments, and the arguments: unknown options "-a", "-b".
std::string Listed(const std::string& what, const std::vector<std::string>& arguments) {
    return fmt::format("{}{} \"{}\"", what, arguments.size() == 1 ? "" : "s",
                       fmt::join(arguments, "\", \""));
}

// The parser takes an argument in brackets for a list of several, where several are possible.
constexpr char cBracketMark = '\x01';

bool IsInBrackets(std::string_view value) {
    return value.starts_with('[') && value.ends_with(']');
}

// Marks such arguments and values of options at their end, and what ends like the mark.
std::vector<std::string> ProtectBrackets(int argc, const char* const* argv) {
    std::vector<std::string> arguments(argv, argv + argc);
    for (std::string& argument : arguments) {
        const std::size_t equals = argument.starts_with("--") ? argument.find('=') : 0;
        const std::string_view value = std::string_view(argument).substr(
            equals == 0 || equals == std::string::npos ? 0 : equals + 1);
        if (IsInBrackets(value) || value.ends_with(cBracketMark))
            argument += cBracketMark;
    }
    return arguments;
}

// The options of every command and their values, and the command that was chosen.
class CCommandLine {
public:
    CCommandLine();

    // Parses the arguments, runs the command, and returns the exit status. Throws CLI::ParseError,
    // CParseError for a time that was not quoted, and the exceptions of the command.
    TExitStatus Run(int argc, const char* const* argv);

    // Prints the help or the version and returns the exit status.
    int PrintRequested(const CLI::Success& request) const {
        return app.exit(request, std::cout, std::cerr);
    }

    // The message for a command line that could not be parsed: the reason, and which help to read.
    std::string MessageFor(const CLI::ParseError& error) const;

    // The message for an error of the client library.
    std::string MessageFor(const CError& error) const;

private:
    using TCommand = std::function<TExitStatus()>;

    // Adds a command's options and arguments to it.
    using TOptions = std::function<void(CLI::App&)>;

    // As whom a command begins under the superuser, in a store of another user's. One that begins as
    // the caller, or that uses no store, becomes the owner itself if it has to.
    enum class EIdentity { cOwner, cCaller };

    // Adds a command. `options` is called only if the command line has this command: describing the
    // options of all commands would take a quarter of a short command's time.
    void Add(const char* name, const char* description, TCommand command, TOptions options,
             EIdentity identity = EIdentity::cOwner);
    void AddForSelected(const char* name, const char* description,
                        TExitStatus (*command)(const TCommon&, const TSelection&, COutput&),
                        bool isForcible);
    void AddCrontabOptions(CLI::App& import, CLI::Option* whole);
    void AddSelection(CLI::App& command, const char* valueName, const char* description);
    void AddQueries();
    void AddChanges();
    void AddMaintenance();
    void AddDryRun(CLI::App& command);
    void AddChangeOptions(CLI::App& command);
    void AddForce(CLI::App& command);
    void AddName(CLI::App& command);
    void AddJobOptions(CLI::App& command);
    void AddProgram(CLI::App& command);
    void Parse(int argc, const char* const* argv);
    void RestoreBrackets();
    std::string ReasonOf(const CLI::ParseError& error) const;
    void RequireQuotedTime() const;
    void TakeCommandAfterSeparator(std::size_t words);
    std::string ReasonOfUnknown(const std::string& typed) const;
    std::string ReasonOfUnexpected(const std::vector<std::string>& unexpected) const;
    void WarnIfNoHostHasRun() const;

    CLI::App app{"Shows and changes the scheduled tasks of a directory.", "vxsched"};
    COutput output;
    TCommon common;
    TCommand chosen;
    std::vector<std::string> beforeSeparator;  // the arguments before --

    std::string directory = ".";
    double lockTimeout = 60;  // seconds
    std::vector<std::string> forced;

    TCalendarOptions calendarOptions;
    THistoryOptions historyOptions;
    TOutputOptions outputOptions;
    std::optional<std::size_t> count;
    std::string until;
    TTaskArguments task;
    std::string flagValue;  // its option takes it
    TSelection selection;
    TCrontabOptions crontab;
    std::string file;
    std::string shell;
    std::string units;
    bool mustBecomeOwner = false;
    bool utc = false;
    bool namesOnly = false;
    bool replace = false;
    bool merge = false;
    bool force = false;
    bool wait = false;
    bool isCrontab = false;
    bool isToml = false;
    bool prune = false;
};

CCommandLine::CCommandLine() {
    app.require_subcommand(1);
    app.fallthrough();
    app.get_formatter()->label("SUBCOMMAND", "COMMAND");
    app.set_version_flag("--version", "vxsched " VXSCHED_VERSION);
    app.add_option("--directory", directory,
                   "Working directory of the scheduling process; the table is "
                   "DIR/files/scheduler.dat")
        ->envname("VXSCHED_DIRECTORY")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--lock-timeout", lockTimeout,
                   "How long to wait for each lock and for the scheduling process, in seconds")
        ->check(CheckLockTimeout)
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--utc", utc, "Print times in UTC");
    app.footer(
        "Times: 2026-11-21 14:30 (local; append Z or +01:00 for another zone), 14:30,\n"
        "noon, midnight, tomorrow, friday, \"friday 02:00\", now, \"in 3h\", +90m.\n"
        "Periods: 15m, 6h, 1d, 2w, once.\n"
        "Exit status: 0 success, 1 refused or failed, 2 usage error, 3 no such task or\n"
        "output, 4 no permission, 5 damaged table, 6 no scheduling process, 9 cut short, result\n"
        "unknown.");
    AddQueries();
    AddChanges();
    AddMaintenance();
}

void CCommandLine::Add(const char* name, const char* description, TCommand command,
                       TOptions options, EIdentity identity) {
    CLI::App* const added = app.add_subcommand(name, description);
    added->group("Commands");
    added->callback([this, command = std::move(command), identity] {
        chosen = command;
        mustBecomeOwner = identity == EIdentity::cOwner;
    });
    added->preparse_callback(
        [added, options = std::move(options)](std::size_t /*left*/) { options(*added); });
}

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

void CCommandLine::AddCrontabOptions(CLI::App& import, CLI::Option* whole) {
    CLI::Option* const isOf =
        import.add_flag("--crontab", isCrontab, "The file is a crontab; each job becomes a task")
            ->excludes(whole);
    CLI::Option* const user =
        import
            .add_option("--user", crontab.user, "Whose crontab it is; the tasks run as this user")
            ->type_name("USER")
            ->needs(isOf);
    import
        .add_flag("--system", crontab.isSystem,
                  "A crontab of the system, or a directory of these: each line has a user")
        ->needs(isOf)
        ->excludes(user);
    import.add_flag("--partial", crontab.isPartial, "Import the jobs of a file with wrong lines")
        ->needs(isOf);
    const auto takeDialect = [this](const std::string& dialect) {
        crontab.isCronie = dialect == "cronie";
    };
    import
        .add_option_function<std::string>(
            "--dialect", takeDialect, "Whose crontab it is: debian, or cronie, which has CRON_TZ")
        ->type_name("CRON")
        ->check(OneOf({"debian", "cronie"}))
        ->needs(isOf);
}

void CCommandLine::AddMaintenance() {
    Add(
        "repair", "Repair a damaged table, keeping every task that can be read",
        [this] { return Repair(common, output); }, [this](CLI::App& repair) { AddDryRun(repair); },
        EIdentity::cCaller);
    Add(
        "export", "Print the table as JSON, or as what other schedulers read",
        [this] {
            return isCrontab        ? ExportCrontab(common, crontab.isSystem, output)
                   : isToml         ? ExportToml(common, output)
                   : !units.empty() ? ExportSystemd(common, units, output)
                                    : Export(common, output);
        },
        [this](CLI::App& added) {
            CLI::Option* const isOf =
                added.add_flag("--crontab", isCrontab,
                               "Print a crontab, and to standard error what it cannot say");
            added
                .add_flag("--system", crontab.isSystem,
                          "A crontab of the system: each line has a user")
                ->needs(isOf);
            CLI::Option* const isFile =
                added
                    .add_flag(
                        "--toml", isToml,
                        "Print a file of tasks, which apply reads, and to standard error what it "
                        "cannot say")
                    ->excludes(isOf);
            added
                .add_option("--systemd", units,
                            "Write a timer and a service for each task into this directory, a new "
                            "or an empty one")
                ->type_name("DIR")
                ->excludes(isOf)
                ->excludes(isFile);
        });
    Add(
        "apply", "Have the tasks be as a file under version control says",
        [this] { return Apply(common, file, prune, output); },
        [this](CLI::App& apply) {
            apply
                .add_option("file", file,
                            "A TOML file of tasks, or a directory of *.toml files; - is standard "
                            "input")
                ->type_name("FILE|DIRECTORY")
                ->required();
            apply.add_flag("--prune", prune,
                           "Remove the tasks that an earlier apply of the file has made and that "
                           "it has no more");
            apply.add_flag("--json", common.json, "Print JSON, with the version of its format");
            AddChangeOptions(apply);
            AddForce(apply);
        },
        EIdentity::cCaller);
    Add(
        "import", "Import the tasks of an export, or the jobs of a crontab",
        [this] {
            const std::string& from = file.empty() ? "-" : file;
            if (isCrontab)
                return ImportCrontab(common, from, crontab, merge, output);
            return Import(common, from,
                          replace ? EImport::cReplace
                          : merge ? EImport::cMerge
                                  : EImport::cAdd,
                          output);
        },
        [this](CLI::App& import) {
            import.add_option("file", file, "File to read; standard input if omitted or -")
                ->type_name("FILE");
            CLI::Option* const whole =
                import.add_flag("--replace", replace, "Replace the whole table");
            import.add_flag("--merge", merge, "Overwrite tasks that have the same name")
                ->excludes(whole);
            AddCrontabOptions(import, whole);
            AddChangeOptions(import);
        },
        EIdentity::cCaller);
    Add(
        "completion", "Print the completion script for a shell",
        [this] { return PrintCompletion(shell, output); },
        [this](CLI::App& completion) {
            completion.add_option("shell", shell, "bash, zsh or fish")
                ->type_name("SHELL")
                ->required()
                ->check(OneOf({"bash", "zsh", "fish"}));
        },
        EIdentity::cCaller);
}

// A mistyped directory would otherwise look like an empty table.
void CCommandLine::WarnIfNoHostHasRun() const {
    std::error_code error;
    if (std::filesystem::is_directory(directory, error) &&
        !std::filesystem::exists(std::filesystem::path(directory) / cFilesDirectory, error) &&
        !error)
        std::cerr << "vxsched: no host has run in " << Show(AbsolutePath(directory)).string
                  << "; set --directory or VXSCHED_DIRECTORY to select another directory\n";
}

// The second word of a time that was not quoted is read as the program, or as a task's name.
void CCommandLine::RequireQuotedTime() const {
    if (!task.at)
        return;
    std::vector<std::string> rest = selection.patterns;
    if (!task.command.empty())
        rest.push_back(task.command.front());
    for (const std::string& word : rest) {
        const std::string words = *task.at + ' ' + word;
        try {
            ParseTime(words, Now());
        } catch (const CParseError&) {
            continue;
        }
        throw CLI::ValidationError(
            "--at", fmt::format("quote a time of several words: --at \"{}\"", words));
    }
}

// The parser takes all words for names. Those after -- are the command of the edited tasks.
void CCommandLine::TakeCommandAfterSeparator(std::size_t words) {
    const auto first = selection.patterns.end() -
                       static_cast<std::ptrdiff_t>(std::min(words, selection.patterns.size()));
    task.command.assign(first, selection.patterns.end());
    selection.patterns.erase(first, selection.patterns.end());
}

// Takes the mark off every value that ProtectBrackets() may have marked.
void CCommandLine::RestoreBrackets() {
    const auto restore = [](std::string& value) {
        if (value.ends_with(cBracketMark))
            value.pop_back();
    };
    for (std::string* const value : {&directory, &until, &file, &units, &crontab.user, &shell,
                                     &task.name, &calendarOptions.expression, &calendarOptions.zone,
                                     &calendarOptions.from, &historyOptions.since})
        restore(*value);
    for (std::optional<std::string>* const value :
         {&task.at, &task.every, &task.program, &task.parameter, &task.newName}) {
        if (*value)
            restore(**value);
    }
    std::for_each(selection.patterns.begin(), selection.patterns.end(), restore);
    std::for_each(task.command.begin(), task.command.end(), restore);
    for (auto& [option, values] : task.options)
        std::for_each(values.begin(), values.end(), restore);
    for (auto& [option, value] : task.calendar)
        restore(value);
}

void CCommandLine::Parse(int argc, const char* const* argv) {
    const std::vector<std::string> arguments = ProtectBrackets(argc, argv);
    std::vector<const char*> pointers;
    pointers.reserve(arguments.size());
    for (const std::string& argument : arguments)
        pointers.push_back(argument.c_str());
    const auto begin = pointers.begin() + std::min(argc, 1);
    const auto end = pointers.end();
    beforeSeparator.assign(begin, std::find(begin, end, std::string_view("--")));
    try {
        app.parse(argc, pointers.data());
        std::erase_if(task.options, [](const auto& option) { return option.second.empty(); });
        RestoreBrackets();
        const auto left = end - begin - static_cast<std::ptrdiff_t>(beforeSeparator.size());
        if (app.got_subcommand("edit") && left > 0)
            TakeCommandAfterSeparator(static_cast<std::size_t>(left - 1));
        RequireQuotedTime();
    } catch (const CLI::ExtrasError&) {
        RequireQuotedTime();
        // The rest of a time that was not quoted is left over. Report the time: its message has the
        // remedy.
        if (task.at)
            ParseTime(*task.at, Now());
        if (!until.empty())
            ParseTime(until, Now());
        if (!calendarOptions.from.empty())
            ParseTime(calendarOptions.from, Now());
        if (!historyOptions.since.empty())
            ParsePastTime(historyOptions.since, Now());
        throw;
    }
}

std::string CCommandLine::MessageFor(const CLI::ParseError& error) const {
    const std::string reason = ReasonOf(error);
    // "--directory: ..." is about an option that only the general help describes.
    const bool isGeneral = app.get_subcommands().empty() ||
                           app.get_option_no_throw(reason.substr(0, reason.find(':'))) != nullptr;
    return fmt::format("{}. See vxsched {}--help.", reason,
                       isGeneral ? "" : app.get_subcommands().front()->get_name() + ' ');
}

std::string CCommandLine::ReasonOf(const CLI::ParseError& error) const {
    std::vector<std::string> unexpected = app.remaining();
    std::erase(unexpected, "--");
    const bool hasCommand = !app.get_subcommands().empty();
    // Without a command the parser reports that one is required, although it was only mistyped.
    if (!unexpected.empty() &&
        (!hasCommand || dynamic_cast<const CLI::ExtrasError*>(&error) != nullptr))
        return ReasonOfUnexpected(unexpected);
    if (!hasCommand && dynamic_cast<const CLI::RequiredError*>(&error) != nullptr)
        return "a command is required";
    return error.what();
}

std::string CCommandLine::ReasonOfUnknown(const std::string& typed) const {
    std::vector<std::string> commands;
    for (const CLI::App* const one : app.get_subcommands([](const CLI::App*) { return true; }))
        commands.push_back(one->get_name());
    const std::string_view nearest = FindNearest(typed, {commands.begin(), commands.end()});
    return fmt::format("unknown command \"{}\"{}", typed,
                       nearest.empty() ? "" : fmt::format(" (did you mean {}?)", nearest));
}

std::string CCommandLine::ReasonOfUnexpected(const std::vector<std::string>& unexpected) const {
    std::vector<std::string> options;
    std::vector<std::string> arguments;
    for (const std::string& one : unexpected) {
        const bool isOption =
            one.size() > 1 && one.starts_with('-') &&
            std::find(beforeSeparator.begin(), beforeSeparator.end(), one) != beforeSeparator.end();
        (isOption ? options : arguments).push_back(one);
    }
    const CLI::App* const command =
        app.get_subcommands().empty() ? nullptr : app.get_subcommands().front();
    if (command == nullptr && !arguments.empty())
        return ReasonOfUnknown(arguments.front());
    std::string reason;
    if (!options.empty()) {
        reason = Listed("unknown option", options);
        if (!task.command.empty())
            reason += "; write -- before the program to pass options to it";
    }
    if (arguments.empty())
        return reason;
    reason += (reason.empty() ? "" : "; ") + Listed("unexpected argument", arguments);
    const auto takesValue = [](const CLI::Option* option) {
        return option->get_expected_max() > 0;
    };
    return reason +
           (command->get_options(takesValue).empty() ? "" : "; quote an argument of several words");
}

// Adds to the message what the library leaves to its callers, which may not be this command: for a
// refused access whom the store is for, for a damaged table the file and the remedy, and, where they
// may be the reason, which semaphores nobody should use.
std::string CCommandLine::MessageFor(const CError& error) const {
    std::string message = error.what();
    if (error.Code() == EError::cDamaged) {
        const bool hasRemedy = message.find("repair the table") != std::string::npos;
        return fmt::format(
            "{}: {}{}", Show(AbsolutePath(TableFile(directory))).string, message,
            hasRemedy ? "" : "; run vxsched check for details, vxsched repair to repair it");
    }
    if (error.Code() == EError::cNoAccess)
        message += Show(NoteOfUsers(directory)).string;
    if (error.Code() == EError::cNoAccess || error.Code() == EError::cBusy ||
        error.Code() == EError::cFailed) {
        if (const std::string reason = WhySemaphoresAreRefused(directory); !reason.empty())
            message += "; " + reason;
    }
    return message;
}

TExitStatus CCommandLine::Run(int argc, const char* const* argv) {
    Parse(argc, argv);
    common.store.directory = directory;
    common.store.lockTimeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(lockTimeout * 1000));
    common.zone = utc ? EZone::cUtc : EZone::cLocal;
    common.forced = TForced(forced.begin(), forced.end());
    common.caller = getuid();
    if (mustBecomeOwner)
        BecomeForeignOwner(directory);
    if (file.empty() && shell.empty() && !app.got_subcommand("calendar"))
        WarnIfNoHostHasRun();
    common.store.onBegin = CInterruption::ChangeBegins;
    common.store.onRetry = CInterruption::ChangeIsRetried;
    common.store.onWarning = [](const std::string& warning) {
        std::cerr << "vxsched: " << Show(warning).string << '\n';
    };
    const CInterruption interruption;
    const TExitStatus status = chosen();
    try {
        output.Finish();
    } catch (const CError& error) {
        throw MakeError(error.Code(), "{}; the command itself was carried out", error.what());
    }
    return status;
}

// Prints the message, whose line ends are this program's own. If it has several lines, the others are
// indented so that they begin below the first one.
TExitStatus Fail(const std::string& message, TExitStatus status) {
    const std::string prefix = "vxsched: ";
    std::string shown;
    for (std::size_t offset = 0; offset <= message.size();) {
        const std::size_t end = std::min(message.find('\n', offset), message.size());
        shown += (shown.empty() ? prefix : '\n' + std::string(prefix.size(), ' ')) +
                 message.substr(offset, end - offset);
        offset = end + 1;
    }
    std::cerr << shown << '\n';
    return status;
}

int Main(int argc, const char* const* argv) {
    CCommandLine line;
    try {
        return line.Run(argc, argv);
    } catch (const CLI::Success& request) {
        return line.PrintRequested(request);
    } catch (const CLI::ParseError& error) {
        return Fail(Show(line.MessageFor(error)).string, cUsageStatus);
    } catch (const CParseError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CUsageError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CError& error) {
        return Fail(line.MessageFor(error), StatusOf(error.Code()));
    } catch (const std::exception& error) {
        return Fail(Show(error.what()).string, cRefusedStatus);
    }
}

}  // namespace

}  // namespace vxsched

int main(int argc, char** argv) {
    // What cannot be written to a standard output that was closed is an error all the same.
    OpenStandardDescriptors(O_RDONLY);
    try {
        return vxsched::Main(argc, argv);
    } catch (...) {
        return vxsched::cRefusedStatus;  // even the message could not be built
    }
}
