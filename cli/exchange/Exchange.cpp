// export and import: the table as JSON and back, without losing a byte.

#include <fmt/format.h>

#include <filesystem>
#include <iostream>
#include <nlohmann/json.hpp>
#include <system_error>
#include <unordered_map>
#include <vector>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "cli/commands/Commands.h"
#include "cli/exchange/ReadInput.h"
#include "cli/output/JobFormat.h"
#include "cli/output/Json.h"
#include "client/GiveToRunner.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"
#include "store/StoreOwner.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// Reads and checks the tasks of an input. Throws CError (cRefused) with the input's name.
std::vector<TImported> ReadImport(const std::string& file) {
    try {
        return ReadTasks(ReadInput(file));
    } catch (const CError& error) {
        throw MakeError(error.Code(), "cannot import {}: {}",
                        file == cStandardInput ? "standard input" : file, error.what());
    }
}

void Warn(const std::string& name, const std::string& message) {
    std::cerr << "vxsched: task \"" << Show(name).string << "\": " << Show(message).string << '\n';
}

// True if the task's program is a link of a store to the program of which the export has the path.
bool IsLinkToReal(const TCommon& common, const TImported& imported) {
    return imported.realProgram.starts_with('/') &&
           (IsLinkPath(common.store.directory, imported.task.program) ||
            IsLinkPathOfAnotherStore(common.store.directory, imported.task.program));
}

// Has the runner execute the programs that the tasks launch through links. A link of another store that
// cannot be resolved is only warned about: its task harms no other.
void ResolveLinks(const TCommon& common, std::vector<TImported>& imported) {
    for (TImported& one : imported) {
        TTaskEntry& task = one.task;
        if (IsLinkPathOfAnotherStore(common.store.directory, task.program) &&
            !IsLinkToReal(common, one)) {
            std::error_code error;
            one.realProgram = std::filesystem::read_symlink(task.program, error).string();
            if (!IsLinkToReal(common, one) && !std::filesystem::exists(task.program, error))
                Warn(task.name, fmt::format("its program \"{}\" is a link of another store, which "
                                            "cannot be resolved; edit the task's program (vxsched "
                                            "edit {} --program PROGRAM)",
                                            task.program, ShellWord(task.name)));
        }
        if (IsLinkToReal(common, one)) {
            TJob job;
            job.command = {one.realProgram, task.parameter};
            GiveToRunner(task, job);
        }
    }
}

// True for an error that would abort or hang each process that loads the add-in, that no command
// could correct afterwards, since such a name cannot be typed, or with which no launch can succeed.
bool IsHarmful(TValidationError::EKind kind) {
    switch (kind) {
        case TValidationError::cAbortingExtension:
        case TValidationError::cEndlessPeriod:
        case TValidationError::cTooFarBack:
        case TValidationError::cEmptyName:
        case TValidationError::cZeroByte:
        case TValidationError::cPathTooLong:
        case TValidationError::cParameterTooLong:
            return true;
        default:
            return false;
    }
}

// Throws CError (cRefused) for a task that would harm other tasks or processes. Prints a warning
// about one that would harm only itself.
void CheckImported(const std::vector<TImported>& imported) {
    for (const TImported& one : imported) {
        for (const TValidationError& error : Validate(one.task, Now())) {
            if (IsHarmful(error.kind))
                throw MakeError(EError::cRefused, "cannot import task \"{}\": {}", one.task.name,
                                error.message);
            Warn(one.task.name, error.message);
        }
    }
}

std::vector<TTaskEntry> Joined(const std::vector<TTaskEntry>& present,
                               const std::vector<TImported>& imported, EImport how) {
    std::vector<TTaskEntry> tasks = how == EImport::cReplace ? std::vector<TTaskEntry>() : present;
    // Of several tasks of one name, the first counts.
    std::unordered_map<std::string, std::size_t> indices;
    for (std::size_t index = 0; index < tasks.size(); ++index)
        indices.try_emplace(tasks[index].name, index);
    for (const TImported& one : imported) {
        const auto [found, isNew] = indices.try_emplace(one.task.name, tasks.size());
        if (isNew || how == EImport::cReplace)
            tasks.push_back(one.task);
        else if (how == EImport::cMerge)
            tasks[found->second] = one.task;
        else
            throw MakeError(EError::cRefused,
                            "a task \"{}\" already exists; use --merge to overwrite it, or "
                            "--replace to replace the whole table",
                            one.task.name);
    }
    return tasks;
}

}  // namespace

TExitStatus Export(const TCommon& common, COutput& output) {
    const TTable table = CStore(common.store).Read();
    nlohmann::ordered_json tasks = nlohmann::ordered_json::array();
    for (const TTaskEntry& task : table.tasks) {
        nlohmann::ordered_json json = JsonOfTask(task);
        const std::string real = RealProgram(common.store.directory, task.program);
        if (real != task.program)
            json["real_program"] = JsonOfString(real);
        if (const std::optional<TJob> job = FindJob(task))
            AddJob(json, *job);
        tasks.push_back(json);
    }
    output.Raw(Document({{"tasks", tasks}}));
    return cDone;
}

TExitStatus Import(const TCommon& common, const std::string& file, EImport how, COutput& output) {
    std::vector<TImported> imported = ReadImport(file);  // which the store's owner may not read
    BecomeForeignOwner(common.store.directory);
    ResolveLinks(common, imported);
    CheckImported(imported);
    const CStore store(common.store);
    const TTable present = store.Read();
    std::vector<TTaskEntry> tasks = Joined(present.tasks, imported, how);
    const std::string count = CountOf(imported.size(), "task");
    if (common.dryRun) {
        output.Line(fmt::format("would import {}; the table would have {}", count, tasks.size()));
        return cDone;
    }
    // Called with the writer lock and the store mutex held. The tasks were joined without a lock:
    // a change since then would be lost.
    store.ReplaceAll(tasks, [&](const std::string& bytes) {
        if (DecodeTable(bytes, Now()).tasks != present.tasks)
            throw CError(EError::cBusy,
                         "the table changed during the import; nothing was imported; try again");
    });
    output.Line(fmt::format("imported {}; the table has {} now", count, tasks.size()));
    return cDone;
}

}  // namespace vxsched
