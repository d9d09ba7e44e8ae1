#include "host/startup/SetUpCheck.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>

#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "base/DisplayText.h"
#include "host/startup/AddInFile.h"
#include "host/startup/Descriptors.h"
#include "host/startup/NamespaceChecks.h"
#include "host/startup/RepairPlan.h"
#include "host/startup/WorkDirectory.h"
#include "store/CStoreMutexLock.h"
#include "store/Layout.h"
#include "store/StoreSemaphores.h"
#include "store/TableFile.h"

namespace {

class CReport {
public:
    static void Ok(const std::string& message) { Print(std::cout, "ok", message); }
    static void Warn(const std::string& message) { Print(std::cerr, "warning", message); }
    void Fail(TExitStatus failure, const std::string& message) {
        Print(std::cerr, "error", message);
        if (status == cStopped)
            status = failure;
    }
    TExitStatus Status() const { return status; }

private:
    static void Print(std::ostream& stream, const char* kind, const std::string& message) {
        stream << kind << ": " << vxsched::Show(message).string << std::endl;
    }

    TExitStatus status = cStopped;
};

void CheckAddIn(const std::string& path, CReport& report) {
    if (path.find('/') == std::string::npos) {
        CReport::Warn(fmt::format(
            "{} is not installed next to vxschedd, so the dynamic linker will search for "
            "it. To have it checked, pass its path with --addin.",
            path));
        return;
    }
    const std::string message = WhyAddInIsRefused(path);
    if (message.empty())
        CReport::Ok(fmt::format("{} is an add-in", path));
    else
        report.Fail(cNoAddIn, message);
}

void CheckTask(const vxsched::TTaskEntry& task, vxsched::TTime now) {
    for (const vxsched::TValidationError& error : vxsched::Validate(task, now)) {
        if (error.kind != vxsched::TValidationError::cPastDue)
            CReport::Warn(fmt::format("task \"{}\": {}", task.name, error.message));
    }
}

// Takes only the store mutex, after the directory lock and the writer lock in the lock order: the
// table is read, not written. Returns nothing if the mutex cannot be locked. A holder that keeps it
// is only a warning: a host ignores it after the lock timeout.
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

// Plans under the mutex and returns without it: printing the report may block for long.
TRepairPlan PlanUnderMutex(const THostOptions& options, CReport& report) {
    const std::optional<vxsched::CStoreMutexLock> lock = LockStore(options, report);
    return PlanStartupRepair(options.directory);
}

bool IsTableMissing(const std::string& directory) {
    std::error_code error;
    return std::filesystem::symlink_status(vxsched::TableFile(directory), error).type() ==
           std::filesystem::file_type::not_found;
}

void CheckTable(const THostOptions& options, CReport& report) {
    try {
        const TRepairPlan plan = PlanUnderMutex(options, report);
        for (const std::string& value : plan.unusualValues)
            CReport::Warn(value);
        for (const std::string& loss : plan.possibleLosses)
            CReport::Warn(loss);
        if (plan.repairs.empty() && IsTableMissing(options.directory))
            CReport::Ok("there is no table yet");
        else if (plan.repairs.empty())
            CReport::Ok(fmt::format("the table is valid and has {} task(s)", plan.tasks.size()));
        else
            CReport::Warn(
                fmt::format("vxschedd would repair the table; it would then have {} task(s)",
                            plan.tasks.size()));
        for (const std::string& repair : plan.repairs)
            CReport::Warn(repair);
        for (const vxsched::TTaskEntry& task : plan.tasks)
            CheckTask(task, vxsched::Now());
    } catch (const vxsched::CError& error) {
        report.Fail(cBadTable, error.what());
    }
}

// Why a file or directory can neither be written nor created; empty if it can.
std::string WhyNotWritable(const std::string& path) {
    if (faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0)
        return "";
    const int error = errno;
    if (error != ENOENT)
        return std::strerror(error);
    const std::string directory = std::filesystem::path(path).parent_path().string();
    return faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0
               ? ""
               : std::strerror(errno);
}

void CheckLog(const std::string& path, CReport& report) {
    if (const std::string reason = WhyNotWritable(path); !reason.empty())
        report.Fail(cFailed, fmt::format("cannot write to {}: {}. Choose another file with --log.",
                                         path, reason));
}

// The host removes nothing that it does not know.
void CheckControlSocket(const std::string& directory) {
    const std::filesystem::path path = std::filesystem::path(directory) / vxsched::cControlSocket;
    struct stat status {};
    if (lstat(path.c_str(), &status) == 0 && !S_ISSOCK(status.st_mode))
        CReport::Warn(
            fmt::format("{} is not a socket, so vxsched run reaches no host: it launches programs "
                        "itself. Remove it.",
                        path.string()));
}

}  // namespace

TExitStatus CheckSetUp(const THostOptions& options) {
    CReport report;
    const std::vector<std::string> reasons = WhyNotToWorkIn(options.directory, options.network);
    for (const std::string& reason : reasons)
        report.Fail(cNoDirectory, reason);
    if (reasons.empty())
        CReport::Ok(fmt::format("{} can be used", options.directory));
    if (const std::string warning = WarningOfAccess(options.directory); !warning.empty())
        CReport::Warn(warning);
    if (const std::string reason = vxsched::WhySemaphoresAreRefused(options.directory);
        !reason.empty())
        report.Fail(cNoStore, reason);
    CheckAddIn(options.addIn, report);
    if (reasons.empty())
        CheckTable(options, report);
    CheckControlSocket(options.directory);
    if (!options.logFile.empty())
        CheckLog(options.logFile, report);
    if (const std::string reason = WhyTooFewDescriptors(); !reason.empty())
        report.Fail(cFailed, reason);
    if (const std::string notice = NoticeOfPrivateNamespace(); !notice.empty())
        CReport::Warn(notice);
    if (report.Status() == cStopped)
        CReport::Ok("a host could run");
    return report.Status();
}
