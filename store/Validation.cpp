#include <vxsched/Validation.h>

#include <VXC_File.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <limits.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>

#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "store/Grid.h"

namespace vxsched {

namespace {

// Of an argument of a program, with its terminating zero byte: the kernel's MAX_ARG_STRLEN, which
// no header for programs defines.
constexpr std::size_t cLongestArgument = std::size_t{1} << 17;

// Collects the errors of one task. Refuse() adds one that cannot be forced, Warn() one that can.
class CValidationErrors {
public:
    void Refuse(TValidationError::EKind kind, const std::string& message) {
        found.push_back({kind, false, message});
    }
    void Warn(TValidationError::EKind kind, const std::string& message) {
        found.push_back({kind, true, message});
    }
    std::vector<TValidationError> WorstFirst() {
        std::stable_partition(found.begin(), found.end(),
                              [](const TValidationError& error) { return !error.canBeForced; });
        return std::move(found);
    }

private:
    std::vector<TValidationError> found;
};

std::string ExtensionOf(const std::string& program) {
    char extension[VXC_File::cExtensionCapacity] = "";
    VXC_File::VXC_StripPathUrl(program.c_str(), nullptr, nullptr, extension);
    return extension;
}

// The user as whom this thread accesses files, if that is not its own (COwnerAccess).
std::string OtherUser() {
    const auto user = static_cast<uid_t>(setfsuid(static_cast<uid_t>(-1)));  // changes nothing
    return user == geteuid() ? "" : fmt::format(" for user {}, who owns the store", user);
}

void FindMissing(const std::string& path, CValidationErrors& errors) {
    struct stat status {};
    const int error = stat(path.c_str(), &status) == 0 ? 0 : errno;
    if (error != 0 && error != EACCES)
        errors.Warn(TValidationError::cMissingProgram,
                    fmt::format("there is no program \"{}\": each launch would fail, and the "
                                "add-in would count it as a run; create the program first, or give "
                                "another one",
                                path));
    else if (error != 0 || !S_ISREG(status.st_mode) ||
             faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0)
        errors.Warn(
            TValidationError::cNotExecutable,
            fmt::format("\"{}\" is not an executable file{}{}: each launch would fail, and the "
                        "add-in would count it as a run; {}, or give another program",
                        path, OtherUser(),
                        error != 0 ? ", since a directory of its path may not be searched" : "",
                        error != 0 ? "permit the search" : "chmod +x it"));
}

// Checks whether the add-in would launch the program itself by this path, and not abort or launch
// another.
bool IsLaunchedAsNamed(const std::string& program, CValidationErrors& errors) {
    const std::string extension = ExtensionOf(program);
    if (AbortsLaunch(program)) {
        errors.Refuse(
            TValidationError::cAbortingExtension,
            fmt::format("the extension \"{}\" of \"{}\" would abort the scheduling process when "
                        "the task is due; schedule a link to it whose name has no dot",
                        extension, program));
        return false;
    }
    const std::string named =
        extension.empty() ? program : program.substr(0, program.size() - extension.size());
    const std::string launched = LaunchedPath(program);
    if (launched != named) {
        errors.Refuse(
            TValidationError::cAlteredPath,
            fmt::format("the add-in would launch \"{}\" instead of \"{}\": it cuts every '.', 'e' "
                        "and 'x' off the end; schedule a link to it whose name ends otherwise",
                        launched, program));
        return false;
    }
    return true;
}

void ValidatePath(const std::string& program, const std::string& launched,
                  CValidationErrors& errors) {
    if (launched.size() >= PATH_MAX) {
        errors.Refuse(TValidationError::cPathTooLong,
                      fmt::format("the program's path has {} bytes, but the system opens paths of "
                                  "at most {}; give a shorter one",
                                  launched.size(), PATH_MAX - 1));
        return;
    }
    if (launched.front() != '/')
        errors.Warn(TValidationError::cRelativePath,
                    fmt::format("\"{}\" is relative to the working directory of the scheduling "
                                "process; give an absolute path",
                                program));
    FindMissing(launched, errors);
}

void ValidateProgram(const std::string& program, EProgram how, CValidationErrors& errors) {
    if (program.empty()) {
        errors.Refuse(TValidationError::cNoProgram,
                      "the task has no program; give its absolute path");
        return;
    }
    if (how == EProgram::cAsNamed && !IsLaunchedAsNamed(program, errors))
        return;
    ValidatePath(program, how == EProgram::cAsNamed ? LaunchedPath(program) : program, errors);
}

// The program of a job is executed by its own path.
void ValidateJob(const std::string& line, CValidationErrors& errors) {
    try {
        const std::string program = CommandOf(ReadJobLine(line)).front();
        ValidatePath(program, program, errors);
    } catch (const CJobError& error) {
        errors.Refuse(
            TValidationError::cNoJob,
            fmt::format("the parameter is no job that vxrun could execute: {}", error.what()));
    }
}

void ValidatePeriod(const TTaskEntry& task, TTime now, CValidationErrors& errors) {
    const std::uint32_t step = task.period * 3600U;
    if (task.period != 0 && step == 0)
        errors.Refuse(TValidationError::cEndlessPeriod,
                      fmt::format("a period of {} hours is a step of zero: once the task is late, "
                                  "it would hang the store; the longest period is {} hours",
                                  task.period, cLongestPeriod));
    else if (IsTooFarBack(task.next, task.period, now))
        errors.Refuse(
            TValidationError::cTooFarBack,
            "the due time is so far back that a process that loads the add-in would catch "
            "up for more than a second; give a later one");
    else if (task.period > cLongestPeriod)
        errors.Warn(TValidationError::cWrappedPeriod,
                    fmt::format("a period of {} hours would be a step of {} seconds; the longest "
                                "period is {} hours",
                                task.period, step, cLongestPeriod));
    if (task.period == 0 && task.next < now - cJustPast)
        errors.Warn(TValidationError::cPastDue,
                    "the task runs once and its due time is past: a new task would run at once, an "
                    "existing one would be removed without a run; give a due time in the future");
}

}  // namespace

std::string_view TValidationError::Name() const {
    static constexpr std::array<std::string_view, 15> names = {
        "empty-name",     "zero-byte",       "no-program",   "relative-path",      "path-too-long",
        "not-executable", "missing-program", "altered-path", "aborting-extension", "endless-period",
        "too-far-back",   "wrapped-period",  "past-due",     "parameter-too-long", "no-job"};
    return names.at(static_cast<std::size_t>(kind));
}

bool TValidationError::IsAboutProgram() const {
    return kind >= cNoProgram && kind <= cAbortingExtension;
}

bool TValidationError::IsAboutName() const {
    return kind == cEmptyName || kind == cZeroByte;
}

std::string LaunchedPath(std::string_view program) {
    return std::string(program.substr(0, program.find_last_not_of(".exe") + 1));
}

bool AbortsLaunch(const std::string& program) {
    const std::string extension = ExtensionOf(program);
    return !extension.empty() && extension != ".exe";
}

std::vector<TValidationError> Validate(const TTaskEntry& task, TTime now, EProgram how) {
    CValidationErrors errors;
    if (task.name.empty())
        errors.Refuse(TValidationError::cEmptyName, "the task has no name; give it one");
    for (const std::string* const string : {&task.name, &task.program, &task.parameter}) {
        if (string->find('\0') != std::string::npos)
            errors.Refuse(
                TValidationError::cZeroByte,
                fmt::format("a string holds a zero byte and would be cut off there: \"{}\"",
                            string->substr(0, string->find('\0'))));
    }
    if (task.parameter.size() >= cLongestArgument)
        errors.Refuse(
            TValidationError::cParameterTooLong,
            fmt::format("the parameter has {} bytes, but the system passes at most {} to a "
                        "program; give a shorter one, or the path of a file that has it",
                        task.parameter.size(), cLongestArgument - 1));
    ValidateProgram(task.program.substr(0, task.program.find('\0')), how, errors);
    if (IsRunner(task.program))
        ValidateJob(task.parameter.substr(0, task.parameter.find('\0')), errors);
    ValidatePeriod(task, now, errors);
    return errors.WorstFirst();
}

}  // namespace vxsched
