#include "host/startup/SetUpCheck.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "host/startup/AddInFile.h"
#include "host/startup/NamespaceChecks.h"
#include "host/startup/RepairPlan.h"
#include "host/startup/WorkDirectory.h"
#include "store/CStoreMutexLock.h"

namespace {

class CReport {
public:
    static void Well(const std::string& text) { std::cout << "well: " << text << std::endl; }
    static void Warn(const std::string& text) { std::cerr << "warning: " << text << std::endl; }
    void Fail(TExitStatus failure, const std::string& text) {
        std::cerr << "error: " << text << std::endl;
        if (status == cStopped)
            status = failure;
    }
    TExitStatus Status() const { return status; }

private:
    TExitStatus status = cStopped;
};

void CheckAddIn(const std::string& path, CReport& report) {
    if (path.find('/') == std::string::npos) {
        CReport::Warn(
            fmt::format("{} is not beside vxschedd and is left to the dynamic linker; name "
                        "its path with --addin to have it checked",
                        path));
        return;
    }
    const std::string reason = WhyNotAnAddIn(path);
    if (reason.empty())
        CReport::Well(fmt::format("{} is an add-in", path));
    else
        report.Fail(cNoAddIn,
                    fmt::format("{} is not an add-in: {}. Name another library with --addin.", path,
                                reason));
}

void CheckTask(const vxsched::TTaskEntry& task, vxsched::TTime now) {
    for (const vxsched::TValidationError& error : vxsched::Validate(task, now)) {
        if (error.kind != vxsched::TValidationError::cPastDue)
            CReport::Warn(fmt::format("task \"{}\": {}", task.name, error.text));
    }
}

// None when it may not be had. A start goes over a holder that does not give it back.
std::optional<vxsched::CStoreMutexLock> LockStore(const THostOptions& options, CReport& report) {
    try {
        return std::optional<vxsched::CStoreMutexLock>(std::in_place, options.lockTimeout);
    } catch (const vxsched::CError& error) {
        if (error.Code() == vxsched::EError::cBusy)
            CReport::Warn(error.what());
        else
            report.Fail(cNoStore, error.what());
        return std::nullopt;
    }
}

// Whoever reads the report may be slow: the mutex is not held meanwhile.
TRepairPlan PlanUnderTheMutex(const THostOptions& options, CReport& report) {
    const std::optional<vxsched::CStoreMutexLock> lock = LockStore(options, report);
    return PlanStartupRepair(options.directory);
}

void CheckTable(const THostOptions& options, CReport& report) {
    try {
        const TRepairPlan plan = PlanUnderTheMutex(options, report);
        for (const std::string& warning : plan.warnings)
            CReport::Warn(warning);
        for (const std::string& alarm : plan.alarms)
            CReport::Warn(alarm);
        if (plan.repairs.empty())
            CReport::Well(
                fmt::format("the table can be read and holds {} task(s)", plan.tasks.size()));
        else
            CReport::Warn(
                fmt::format("a start would mend the table, with {} task(s)", plan.tasks.size()));
        for (const std::string& mend : plan.repairs)
            CReport::Warn(mend);
        for (const vxsched::TTaskEntry& task : plan.tasks)
            CheckTask(task, vxsched::Now());
    } catch (const vxsched::CError& error) {
        report.Fail(cBadTable, error.what());
    }
}

// Of a file or directory that is there, or can be made.
void CheckWritable(const std::string& path, TExitStatus failure, CReport& report) {
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0)
        return;
    int error = errno;
    if (error == ENOENT) {
        const std::string directory = std::filesystem::path(path).parent_path().string();
        if (faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0)
            return;
        error = errno;
    }
    report.Fail(failure, fmt::format("cannot write to {}: {}", path, std::strerror(error)));
}

}  // namespace

TExitStatus CheckSetUp(const THostOptions& options) {
    CReport report;
    const std::vector<std::string> reasons = WhyNotToWorkIn(options.directory);
    for (const std::string& reason : reasons)
        report.Fail(cNoDirectory, reason);
    if (reasons.empty())
        CReport::Well(fmt::format("{} can be worked in", options.directory));
    CheckAddIn(options.addIn, report);
    if (reasons.empty())
        CheckTable(options, report);
    if (!options.logFile.empty())
        CheckWritable(options.logFile, cFailed, report);
    if (options.output != "inherit" && options.output != "journal")
        CheckWritable(options.output, cNoDirectory, report);
    for (const std::string& trap : {WarningOfRemoval(geteuid()), NoticeOfPrivateNamespace()}) {
        if (!trap.empty())
            CReport::Warn(trap);
    }
    if (report.Status() == cStopped)
        CReport::Well("a host could run");
    return report.Status();
}
