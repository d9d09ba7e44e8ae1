// import --crontab: the jobs of crontabs as tasks.

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "base/Users.h"
#include "cli/commands/Commands.h"
#include "cli/commands/DescribeTask.h"
#include "cli/commands/LaunchesAhead.h"
#include "cli/exchange/ReadInput.h"
#include "client/TaskJob.h"
#include "crontab/CrontabName.h"
#include "crontab/ReadCrontab.h"
#include "jobs/CJobError.h"
#include "store/CNamedTasks.h"
#include "store/CSchedule.h"
#include "store/MakeError.h"
#include "store/StoreOwner.h"

namespace vxsched {

namespace fs = std::filesystem;

namespace {

constexpr char cDefaultShell[] = "/bin/sh";

struct TFile {
    std::string name;
    TCrontab crontab;
};

// Of a directory, those files that cron reads: with names of letters, digits, hyphens and underscores.
std::vector<std::string> FilesOf(const std::string& file, bool isSystem) {
    std::error_code error;
    if (!isSystem || !fs::is_directory(file, error))
        return {file};
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(file)) {
        const std::string name = entry.path().filename();
        const bool isRead = std::all_of(name.begin(), name.end(), [](unsigned char one) {
            return std::isalnum(one) != 0 || one == '-' || one == '_';
        });
        if (isRead && entry.is_regular_file())
            files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<TFile> ReadFiles(const std::string& file, const TCrontabOptions& options) {
    const EDialect dialect = options.isCronie ? EDialect::cCronie : EDialect::cDebian;
    std::vector<TFile> files;
    for (const std::string& one : FilesOf(file, options.isSystem)) {
        const std::string name = one == cStandardInput ? "standard input" : one;
        try {
            files.push_back({name, ReadCrontab(ReadInput(one), options.isSystem, dialect)});
        } catch (const CError& error) {
            throw MakeError(error.Code(), "cannot import {}: {}", name, error.what());
        }
    }
    return files;
}

// What the command gets on its standard input, and by which shell.
void SetCommand(const TCrontabJob& line, TJobChange& job) {
    const auto shell = line.environment.find("SHELL");
    const std::string program = shell == line.environment.end() ? cDefaultShell : shell->second;
    if (line.input)
        job.options["shell"] = {fmt::format("printf %s {} | {} -c {}", ShellWord(*line.input),
                                            ShellWord(program), ShellWord(line.command))};
    else if (program == cDefaultShell)
        job.options["shell"] = {line.command};
    else
        job.command = {program, "-c", line.command};
}

// Makes the task of a line. The name is not unique yet.
TTaskEntry TaskOf(const TCommon& common, const TCrontabOptions& options, const TCrontabJob& line,
                  const std::string& name) {
    TJobChange job;
    SetCommand(line, job);
    job.options["cron"] = {line.schedule};
    if (!line.zone.empty())
        job.options["zone"] = {line.zone};
    const std::string& user = line.user.empty() ? options.user : line.user;
    if (!user.empty())
        job.options["user"] = {user};
    for (const auto& [variable, value] : line.environment) {
        if (variable == "MAILTO" && !value.empty())
            job.options["mail"] = {value};
        if (variable != "MAILTO")
            job.options["env"].push_back(fmt::format("{}={}", variable, value));
    }
    // cron executes a job in the home directory, as the runner does for another user.
    const auto home = line.environment.find("HOME");
    if (home != line.environment.end() && home->second.starts_with('/'))
        job.options["chdir"] = {home->second};
    else if (user.empty())
        job.options["chdir"] = {FindUser(geteuid()).home};
    TTaskEntry task;
    task.name = name;
    MakeJob(common.store.directory, task, job);
    if (const CSchedule schedule(task); !schedule.Problem().empty())
        throw MakeError(EError::cRefused, "{}", schedule.Problem());
    return task;
}

// The notes of all files, and the tasks of those lines that can be kept.
struct TPrepared {
    std::vector<TTaskEntry> tasks;
    std::vector<std::string> wrong;
    std::vector<std::string> warnings;
};

std::string NoteOf(const std::string& file, std::size_t line, const std::string& text) {
    return fmt::format("{}:{}: {}", file, line, text);
}

TPrepared Prepare(const TCommon& common, const TCrontabOptions& options,
                  const std::vector<TFile>& files) {
    TPrepared prepared;
    std::map<std::string, int> uses;
    for (const TFile& file : files) {
        for (const TCrontabNote& note : file.crontab.wrong)
            prepared.wrong.push_back(NoteOf(file.name, note.line, note.text));
        for (const TCrontabNote& note : file.crontab.warnings)
            prepared.warnings.push_back(NoteOf(file.name, note.line, note.text));
        for (const TCrontabJob& line : file.crontab.jobs) {
            std::string name = NameOf(line);
            for (int use = ++uses[name]; use > 1; use = ++uses[name])
                name = fmt::format("{}-{}", NameOf(line), use);
            try {
                prepared.tasks.push_back(TaskOf(common, options, line, name));
            } catch (const CJobError& error) {
                prepared.wrong.push_back(NoteOf(file.name, line.line, error.what()));
            } catch (const CError& error) {
                prepared.wrong.push_back(NoteOf(file.name, line.line, error.what()));
            }
        }
    }
    return prepared;
}

void Print(const std::vector<std::string>& notes, const char* kind) {
    for (const std::string& note : notes)
        std::cerr << fmt::format("vxsched: {}{}\n", kind, Show(note).string);
}

// An edit that makes of a task what the crontab has; pauses and last launches stay.
TEdit EditTo(const TTaskEntry& task) {
    TEdit edit;
    edit.program = task.program;
    edit.parameter = task.parameter;
    return edit;
}

}  // namespace

TExitStatus ImportCrontab(const TCommon& common, const std::string& file,
                          const TCrontabOptions& options, bool merge, COutput& output) {
    const std::vector<TFile> files = ReadFiles(file, options);  // which the owner may not read
    BecomeForeignOwner(common.store.directory);
    const TPrepared prepared = Prepare(common, options, files);
    Print(prepared.warnings, "warning: ");
    Print(prepared.wrong, "");
    if (!prepared.wrong.empty() && !options.isPartial)
        throw MakeError(EError::cRefused,
                        "nothing was imported, since {} cannot be kept, and cron runs no job of a "
                        "file with a wrong line; correct them, or import the others (--partial), "
                        "which starts jobs that did not run",
                        CountOf(prepared.wrong.size(), "line"));
    CNamedTasks present(CStore(common.store).Read().tasks);
    CChanges changes(common.store);
    std::size_t unchanged = 0;
    for (const TTaskEntry& task : prepared.tasks) {
        const TTaskEntry* const found = present.Find(task.name);
        if (found == nullptr)
            changes.Create({task.name, Now(), 0, task.program, task.parameter}, false,
                           common.forced);
        else if (found->program == task.program && found->parameter == task.parameter)
            ++unchanged;
        else if (merge)
            changes.Edit(task.name, EditTo(task), common.forced);
        else
            throw MakeError(EError::cRefused,
                            "nothing was imported: there is another task \"{}\"; use --merge to "
                            "change it, or rename it (vxsched edit {} --name NEW)",
                            task.name, ShellWord(task.name));
    }
    const std::vector<TTaskEntry> made = common.dryRun ? changes.Check() : changes.Commit();
    for (const TTaskEntry& task : made) {
        output.Line(
            Show((common.dryRun ? "would import " : "imported ") + DescribeTask(common, task))
                .string);
        if (common.dryRun)
            PrintLaunchesAhead(common, task, output);
    }
    output.Line(fmt::format("{}, {} unchanged", CountOf(made.size(), "task"), unchanged));
    return cDone;
}

}  // namespace vxsched
