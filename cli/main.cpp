// vxsched: shows and changes the tasks of a directory.

#include <CLI/CLI.hpp>
#include <filesystem>
#include <functional>
#include <iostream>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/ExitStatus.h"
#include "cli/time/PeriodFormat.h"

namespace vxsched {

namespace {

int StatusOf(EError error) {
    switch (error) {
        case EError::cNotFound:
            return cNotFoundStatus;
        case EError::cNoAccess:
            return cNoAccessStatus;
        case EError::cDamaged:
            return cDamagedStatus;
        case EError::cNoScheduler:
            return cNoSchedulerStatus;
        case EError::cFailed:
        case EError::cBusy:
        case EError::cRefused:
            break;
    }
    return cRefusedStatus;
}

// What the command line says, and what is to be done for it.
class CCommandLine {
public:
    CCommandLine();

    // The exit status. Throws CLI::ParseError and what the commands throw.
    int Run(int argc, const char* const* argv);

    int Explain(const CLI::Success& request) const {
        return app.exit(request, std::cout, std::cerr);
    }

    // What is wrong with the command line.
    std::string Problem(const CLI::ParseError& error) const {
        const std::vector<std::string> unknown = app.remaining();
        if (app.get_subcommands().empty() && !unknown.empty())
            return "there is no command \"" + unknown.front() + '"';
        return error.what();
    }

private:
    using TCommand = std::function<int()>;

    // Adds to a command what it takes.
    using TOptions = std::function<void(CLI::App&)>;

    // `options` is called when it is this command that is asked for: describing all options of all
    // commands takes a quarter of a short command's time.
    void Add(const char* name, const char* description, TCommand command, TOptions options);
    void AddForNames(const char* name, const char* description,
                     int (*command)(const TCommon&, const TNames&, COutput&), bool isForcible);
    void AddReading();
    void AddChanging();
    void AddKeeping();
    void AddDryRun(CLI::App& command);
    void AddForce(CLI::App& command);
    void AddName(CLI::App& command);
    void WarnOfNoHost() const;

    CLI::App app{"Shows and changes the scheduled tasks of a directory.", "vxsched"};
    COutput output;
    TCommon common;
    TCommand chosen;

    std::string directory = ".";
    double lockTimeout = 60;  // seconds
    bool utc = false;
    std::vector<std::string> forced;

    bool namesOnly = false;
    bool failedOnly = false;
    std::optional<std::size_t> count;
    std::string until;
    TTaskArguments task;
    TNames names;
    bool replace = false;
    bool merge = false;
    bool force = false;
    bool wait = false;
    std::string period;
    std::string file;
    std::string shell;
};

CCommandLine::CCommandLine() {
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", "vxsched " VXSCHED_VERSION);
    app.add_option("--directory", directory,
                   "Working directory of the scheduling process; the table is "
                   "DIR/files/scheduler.dat")
        ->envname("VXSCHED_DIRECTORY")
        ->type_name("DIR")
        ->capture_default_str();
    app.add_option("--patience", lockTimeout, "How long to wait for others, in seconds")
        ->check(CLI::Range(0.0, 86400.0).description(""))
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--utc", utc, "Show times in UTC");
    app.footer(
        "Times: 2026-11-21 14:30 (local; Z or +01:00 behind it for others), 14:30, tomorrow "
        "02:00,\n"
        "now, \"in 3h\", +90m. Periods: 6h, 1d, 2w, once.\n"
        "Exit status: 0 done, 1 refused or failed, 2 wrong usage, 3 no such task, 4 no access,\n"
        "5 damaged table, 6 no scheduling process.");
    AddReading();
    AddChanging();
    AddKeeping();
}

void CCommandLine::Add(const char* name, const char* description, TCommand command,
                       TOptions options) {
    CLI::App* const added = app.add_subcommand(name, description);
    added->callback([this, command = std::move(command)] { chosen = command; });
    added->preparse_callback(
        [added, options = std::move(options)](std::size_t /*left*/) { options(*added); });
}

void CCommandLine::AddReading() {
    const auto addJson = [this](CLI::App& command) {
        command.add_flag("--json", common.json, "As JSON, with a version");
    };
    Add(
        "list", "All tasks, by their next start",
        [this] { return List(common, namesOnly, output); },
        [this, addJson](CLI::App& list) {
            addJson(list);
            list.add_flag("--names", namesOnly, "Only the names, one a line, in the table's order");
        });
    Add(
        "show", "All of one task, its last runs, and why it is not running",
        [this] { return ShowTask(common, task.name, output); },
        [this, addJson](CLI::App& show) {
            addJson(show);
            AddName(show);
        });
    Add(
        "next", "The coming runs of all tasks, in time order",
        [this] { return Next(common, count, until, output); },
        [this, addJson](CLI::App& next) {
            addJson(next);
            next.add_option("--count", count, "How many; 10 unless --until is given")
                ->check(CLI::Range(1, 1'000'000).description(""));
            next.add_option("--until", until, "Not beyond this time")->type_name("TIME");
        });
    Add(
        "history", "The last runs of one task or of all, as the host recorded them",
        [this] { return History(common, task.name, count, failedOnly, output); },
        [this, addJson](CLI::App& history) {
            addJson(history);
            history.add_option("name", task.name, "The task; it may be gone by now");
            history.add_option("--count", count, "How many; 20 unless given")
                ->check(CLI::Range(1, 1'000'000).description(""));
            history.add_flag(
                "--failed", failedOnly,
                "Only what exited with another status than 0, was killed, not started or missed");
        });
    Add(
        "status", "The scheduling process, the mutex and the table",
        [this] { return Status(common, output); }, addJson);
    Add(
        "check", "What is wrong with the table, and where",
        [this] { return CheckTable(common, file, output); },
        [this, addJson](CLI::App& check) {
            addJson(check);
            check.add_option("file", file, "Another table's file");
        });
}

void CCommandLine::AddDryRun(CLI::App& command) {
    command.add_flag("--dry-run", common.dryRun, "Say what would be done, and change nothing");
    command.add_flag("--even-if-due", common.store.evenIfDue,
                     "Go on when tasks are due and no scheduling process is there; they stay due");
}

void CCommandLine::AddForce(CLI::App& command) {
    command
        .add_option("--force", forced,
                    "Pass over what is unwise: missing-program, not-executable, relative-path, "
                    "wrapped-period, past-start")
        ->type_name("WHAT")
        ->check(CLI::IsMember({"missing-program", "not-executable", "relative-path",
                               "wrapped-period", "past-start"})
                    .description(""))
        ->expected(1)
        ->take_all();
}

void CCommandLine::AddName(CLI::App& command) {
    command.add_option("name", task.name, "The task")->required();
}

void CCommandLine::AddForNames(const char* name, const char* description,
                               int (*command)(const TCommon&, const TNames&, COutput&),
                               bool isForcible) {
    Add(
        name, description, [this, command] { return command(common, names, output); },
        [this, isForcible](CLI::App& added) {
            added.add_option("names", names, "The tasks")->required();
            AddDryRun(added);
            if (isForcible)
                AddForce(added);
        });
}

void CCommandLine::AddChanging() {
    Add(
        "create", "Add a task, or replace one",
        [this] { return Create(common, task, replace, output); },
        [this](CLI::App& create) {
            AddName(create);
            create.add_option("--at", task.at, "The first start; now unless given")
                ->type_name("TIME");
            create.add_option("--every", task.every, "The period; once unless given")
                ->type_name("PERIOD");
            create.add_flag("--replace", replace, "In the place of the task of that name");
            create
                .add_option("program", task.program,
                            "The program's absolute path; put -- in front of it and its parameter")
                ->required();
            create.add_option("parameter", task.parameter,
                              "The one parameter text that it is started with");
            AddDryRun(create);
            AddForce(create);
        });
    Add(
        "edit", "Change only what is named", [this] { return Edit(common, task, output); },
        [this](CLI::App& edit) {
            AddName(edit);
            edit.add_option("--at", task.at, "The next start")->type_name("TIME");
            edit.add_option("--every", task.every, "The period")->type_name("PERIOD");
            edit.add_option("--program", task.program, "The program's absolute path")
                ->type_name("PATH");
            edit.add_option("--parameter", task.parameter, "The parameter text")->type_name("TEXT");
            AddDryRun(edit);
            AddForce(edit);
        });
    AddForNames("remove", "Remove tasks; all of them, or none if one is not there", Remove, false);
    AddForNames("pause", "Pass tasks over from now on", Pause, false);
    AddForNames("resume", "Undo a pause; a missed start is moved on", Resume, true);
    Add(
        "period", "Another period, counted on from the last time on the task's grid",
        [this] { return SetPeriod(common, task.name, period, output); },
        [this](CLI::App& added) {
            AddName(added);
            added.add_option("period", period, "6h, 1d, 2w, once")->required();
            AddDryRun(added);
            AddForce(added);
        });
    Add(
        "run", "Start a task's program now, outside the schedule",
        [this] { return vxsched::Run(common, task.name, force, wait, output); },
        [this](CLI::App& run) {
            AddName(run);
            run.add_flag("--force", force, "Although it is running already");
            run.add_flag("--wait", wait, "Wait for its end; its failure is status 1");
            AddDryRun(run);
        });
    Add(
        "wake", "Have the scheduling process look at once", [this] { return Wake(common, output); },
        [](CLI::App& /*wake*/) {});
}

void CCommandLine::AddKeeping() {
    const auto addDryRun = [this](CLI::App& command) {
        command.add_flag("--dry-run", common.dryRun, "Say what would be done, and change nothing");
    };
    Add(
        "repair", "Make a sound table of a damaged one, keeping what can be",
        [this] { return Repair(common, output); }, addDryRun);
    Add(
        "export", "The whole table as JSON", [this] { return Export(common, output); },
        [](CLI::App& /*export*/) {});
    Add(
        "import", "Add the tasks of an export",
        [this] {
            return Import(common, file.empty() ? "-" : file,
                          replace ? EImport::cReplace
                          : merge ? EImport::cMerge
                                  : EImport::cAdd,
                          output);
        },
        [this, addDryRun](CLI::App& import) {
            import.add_option("file", file, "The export; standard input unless given, or -");
            CLI::Option* const whole =
                import.add_flag("--replace", replace, "Make the import the whole table");
            import.add_flag("--merge", merge, "Overwrite tasks of the same name")->excludes(whole);
            addDryRun(import);
        });
    Add(
        "completion", "Print what a shell needs to complete this command",
        [this] { return PrintCompletion(shell, output); },
        [this](CLI::App& completion) {
            completion.add_option("shell", shell, "The shell")
                ->required()
                ->check(CLI::IsMember({"bash", "zsh", "fish"}));
        });
}

// The wrong directory looks like an empty table.
void CCommandLine::WarnOfNoHost() const {
    std::error_code ignored;
    if (std::filesystem::is_directory(directory, ignored) &&
        !std::filesystem::exists(directory + "/files", ignored))
        std::cerr << "vxsched: no host has run in " << directory
                  << "; --directory or VXSCHED_DIRECTORY names another directory\n";
}

int CCommandLine::Run(int argc, const char* const* argv) {
    app.parse(argc, argv);
    common.store.directory = directory;
    common.store.lockTimeout =
        std::chrono::milliseconds(static_cast<std::int64_t>(lockTimeout * 1000));
    common.zone = utc ? EZone::cUtc : EZone::cLocal;
    common.forced = TForced(forced.begin(), forced.end());
    if (file.empty() && shell.empty())
        WarnOfNoHost();
    const int status = chosen();
    try {
        output.Finish();
    } catch (const CError& error) {
        throw CError(error.Code(), std::string(error.what()) + "; all but this was done as asked");
    }
    return status;
}

int Fail(const std::string& text, int status) {
    // A message may have several lines, each of them shown safely.
    std::string shown;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\n', start), text.size());
        shown += (shown.empty() ? "vxsched: " : "\n") + Show(text.substr(start, end - start)).text;
        start = end + 1;
    }
    std::cerr << shown << '\n';
    return status;
}

int Main(int argc, const char* const* argv) {
    CCommandLine line;
    try {
        return line.Run(argc, argv);
    } catch (const CLI::Success& request) {
        return line.Explain(request);
    } catch (const CLI::ParseError& error) {
        return Fail(line.Problem(error) + ". vxsched --help shows how it is used.", cUsageStatus);
    } catch (const CParseError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CUsageError& error) {
        return Fail(error.what(), cUsageStatus);
    } catch (const CError& error) {
        return Fail(error.what(), StatusOf(error.Code()));
    } catch (const std::exception& error) {
        return Fail(error.what(), cRefusedStatus);
    }
}

}  // namespace

}  // namespace vxsched

int main(int argc, char** argv) {
    try {
        return vxsched::Main(argc, argv);
    } catch (...) {
        return vxsched::cRefusedStatus;  // not even its message could be made
    }
}
