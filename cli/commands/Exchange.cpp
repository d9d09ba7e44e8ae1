// export and import: the whole table as JSON, and back to the byte.

#include <fmt/format.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/output/Json.h"
#include "store/ProgramLinks.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

std::string ReadText(const std::string& file) {
    std::ifstream stream;
    std::istream* input = &std::cin;
    if (std::filesystem::is_directory(file))
        throw CError(EError::cRefused, "cannot import: " + file + " is a directory");
    if (file != "-") {
        stream.open(file, std::ios::binary);
        input = &stream;
    }
    std::string text{std::istreambuf_iterator<char>(*input), {}};
    if (text.empty())
        throw CError(EError::cRefused, "cannot import: " + file + " is empty or cannot be read");
    return text;
}

void Warn(const std::string& name, const std::string& text) {
    std::cerr << "vxsched: task \"" << Show(name).text << "\": " << Show(text).text << '\n';
}

// Whether the task's program is a link of this directory, of which the import says what it leads to.
bool HasItsLink(const TCommon& common, const TImported& imported) {
    return !imported.realProgram.empty() &&
           IsLinkPath(common.store.directory, imported.task.program);
}

bool IsHarmful(TValidationError::EKind kind) {
    switch (kind) {
        case TValidationError::cAbortingExtension:
        case TValidationError::cEndlessPeriod:
        case TValidationError::cTooFarBack:
        case TValidationError::cEmptyName:
        case TValidationError::cZeroByte:
            return true;
        default:
            return false;
    }
}

// What would do harm to others is refused, what is unwise is said.
void Judge(const TCommon& common, const std::vector<TImported>& imported) {
    for (const TImported& one : imported) {
        TTaskEntry task = one.task;
        const bool isLink = HasItsLink(common, one);
        if (isLink)
            task.program = one.realProgram;
        for (const TValidationError& error :
             Validate(task, Now(), isLink ? EProgram::cThroughLink : EProgram::cAsNamed)) {
            if (IsHarmful(error.kind))
                throw CError(EError::cRefused,
                             fmt::format("cannot import task \"{}\": {}", task.name, error.text));
            Warn(task.name, error.text);
        }
    }
}

std::vector<TTaskEntry> Joined(const std::vector<TTaskEntry>& present,
                               const std::vector<TImported>& imported, EImport how) {
    std::vector<TTaskEntry> tasks = how == EImport::cReplace ? std::vector<TTaskEntry>() : present;
    for (const TImported& one : imported) {
        const auto found = std::find_if(tasks.begin(), tasks.end(), [&](const TTaskEntry& task) {
            return task.name == one.task.name;
        });
        if (found == tasks.end() || how == EImport::cReplace)
            tasks.push_back(one.task);
        else if (how == EImport::cMerge)
            *found = one.task;
        else
            throw CError(EError::cRefused,
                         fmt::format("there is a task \"{}\" already; import with --merge to "
                                     "overwrite it, or with --replace to make the import the "
                                     "whole table",
                                     one.task.name));
    }
    return tasks;
}

void MakeLinks(const TCommon& common, const std::vector<TImported>& imported) {
    for (const TImported& one : imported) {
        if (HasItsLink(common, one))
            MakeLink(one.task.program, one.realProgram);
    }
}

}  // namespace

int Export(const TCommon& common, COutput& output) {
    const TTable table = CStore(common.store).Read();
    nlohmann::ordered_json tasks = nlohmann::ordered_json::array();
    for (const TTaskEntry& task : table.tasks) {
        nlohmann::ordered_json json = JsonOfTask(task);
        const std::string real = RealProgram(common.store.directory, task.program);
        if (real != task.program)
            json["real_program"] = JsonOfText(real);
        tasks.push_back(json);
    }
    output.Raw(Document({{"tasks", tasks}}));
    return 0;
}

int Import(const TCommon& common, const std::string& file, EImport how, COutput& output) {
    const std::vector<TImported> imported = ReadTasks(ReadText(file));
    Judge(common, imported);
    const CStore store(common.store);
    const TTable present = store.Read();
    const std::vector<TTaskEntry> tasks = Joined(present.tasks, imported, how);
    const std::string what = fmt::format("{} task{}, the table has {}", imported.size(),
                                         imported.size() == 1 ? "" : "s", tasks.size());
    if (common.dryRun) {
        output.Line(fmt::format("would import {} then", what));
        return 0;
    }
    store.ReplaceAll(tasks, [&](const std::string& bytes) {
        if (DecodeTable(bytes, Now()).tasks != present.tasks)
            throw CError(EError::cBusy,
                         "the table was changed meanwhile; nothing was imported; try again");
        MakeLinks(common, imported);
    });
    output.Line(fmt::format("imported {} now", what));
    return 0;
}

}  // namespace vxsched
