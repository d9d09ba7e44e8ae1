// check: damage of the table, and validation errors of its tasks.

#include <fmt/format.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/output/Json.h"
#include "store/LostTasks.h"
#include "store/MakeError.h"
#include "store/ProgramLinks.h"
#include "store/StoreOwner.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

const char* NameOf(TProblem::EKind kind) {
    switch (kind) {
        case TProblem::cEndless:
            return "endless";
        case TProblem::cSlow:
            return "slow";
        case TProblem::cUnusual:
            break;
    }
    return "unusual";
}

struct TFinding {
    std::string kind;
    std::string message;
    std::optional<std::size_t> offset = {};
};

std::vector<TFinding> FindingsOf(const TCommon& common, const TTable& table) {
    std::vector<TFinding> findings;
    for (const TProblem& problem : table.problems)
        findings.push_back({NameOf(problem.kind), problem.message, problem.offset});
    for (const TTaskEntry& task : table.tasks) {
        const bool isLink = RealProgram(common.store.directory, task.program) != task.program;
        const EProgram how = isLink ? EProgram::cThroughLink : EProgram::cAsNamed;
        for (const TValidationError& error : Validate(task, Now(), how)) {
            // A past due time is no defect of the table: the next tick launches or reschedules it.
            if (error.kind != TValidationError::cPastDue)
                findings.push_back({std::string(error.Name()),
                                    fmt::format("task \"{}\": {}", task.name, error.message)});
        }
    }
    return findings;
}

void Print(const TCommon& common, const std::vector<TFinding>& findings, const std::string& verdict,
           COutput& output) {
    if (common.json) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const TFinding& finding : findings) {
            nlohmann::ordered_json one = {{"kind", finding.kind},
                                          {"message", JsonOfString(finding.message)}};
            if (finding.offset)
                one["offset"] = *finding.offset;
            list.push_back(one);
        }
        output.Raw(Document({{"verdict", verdict}, {"findings", list}}));
        return;
    }
    for (const TFinding& finding : findings) {
        const std::string where = finding.offset ? fmt::format("offset {}: ", *finding.offset) : "";
        output.Line(Show(fmt::format("{}: {}{}", finding.kind, where, finding.message)).string);
    }
    output.Line(verdict);
}

}  // namespace

TExitStatus CheckTable(const TCommon& common, const std::string& file, COutput& output) {
    // vxsched repair works on the directory's table only, so it is no remedy for a file.
    const std::string remedy = file.empty() ? "; run vxsched repair" : "";
    const std::string checked =
        file.empty() ? AbsolutePath(TableFile(common.store.directory)) : file;
    TTable table;
    try {
        if (!file.empty() && !std::filesystem::exists(file))
            throw MakeError(EError::cFailed, "cannot check {}: there is no such file", file);
        const std::string bytes = file.empty() ? "" : ReadBytes(file);  // as the caller may read it
        BecomeForeignOwner(common.store.directory);
        table = file.empty() ? CStore(common.store).Read() : DecodeTable(bytes, Now());
    } catch (const CError& error) {
        if (error.Code() != EError::cDamaged)
            throw;
        if (common.json)
            Print(common, {{"damaged", error.what()}}, "damaged" + remedy, output);
        else
            output.Line(Show(fmt::format("{}: {}{}", checked, error.what(), remedy)).string);
        return cDamagedStatus;
    }
    std::vector<TFinding> findings = FindingsOf(common, table);
    if (file.empty()) {
        if (auto missing = DescribeMissingTable(common.store.directory))
            findings.push_back({"missing", *std::move(missing)});
    }
    const std::string count = CountOf(table.tasks.size(), "task");
    if (!table.IsSafeToLoad()) {
        Print(common, findings, count + ", harmful to load" + remedy, output);
        return cDamagedStatus;
    }
    Print(common, findings,
          count + (findings.empty() ? ", valid" : ", valid except for the findings above"), output);
    return cDone;
}

}  // namespace vxsched
