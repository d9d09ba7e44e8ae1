#pragma once

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/Table.h>

// Validating a task before it gets into the table. Any thread may call these functions; they take
// no lock, change nothing and do not fail.
namespace vxsched {

// A due time of a new or edited task that is past by no more than this counts as now: between the
// moment in which a caller read the clock and the one in which the task is made, a second may begin,
// or several on a busy machine.
inline constexpr std::chrono::seconds cJustPast(10);

// A reason not to put a task into the table.
struct VXSCHED_PUBLIC TValidationError {
    enum EKind {
        cEmptyName,
        cZeroByte,           // in a string: calls and programs would see it cut off there
        cNoProgram,          // the path is empty
        cRelativePath,       // it would be resolved in the scheduling process's directory
        cPathTooLong,        // PATH_MAX bytes or more
        cNotExecutable,      // not a regular file, or not within reach or executable for this user
        cMissingProgram,     // there is no such file
        cAlteredPath,        // the launch would cut characters off the end of the path
        cAbortingExtension,  // the launch would abort the scheduling process
        cEndlessPeriod,      // the step is zero: once late, the task would hang the store
        cTooFarBack,         // loading the add-in would catch up for more than a second
        cWrappedPeriod,      // the period in seconds exceeds 32 bits, so the step is another
        cPastDue,            // the due time of a task that runs once is past, see cJustPast
        cParameterTooLong,   // 128 KiB or more: the system passes no such argument to a program
        cNoJob,              // the program is vxrun, which does not understand the parameter
    };
    EKind kind;
    bool canBeForced;     // unwise for the task itself, harmless for everything else
    std::string message;  // for a person: what is wrong, with which input, and what to do

    // The name for TForced, --force and reports: "missing-program". Points to static memory.
    std::string_view Name() const;

    // True if it concerns the program, and not the name, the strings, the due time or the period.
    bool IsAboutProgram() const;

    // True if it concerns the name, or a zero byte in any string.
    bool IsAboutName() const;
};

// The path that the add-in launches for a task's program: every '.', 'e' and 'x' at its end is cut
// off.
VXSCHED_PUBLIC std::string LaunchedPath(std::string_view program);

// True if launching `program` would abort the scheduling process: its extension is not ".exe".
VXSCHED_PUBLIC bool AbortsLaunch(const std::string& program);

// How the table will refer to a task's program.
enum class EProgram {
    cAsNamed,      // by its own path
    cThroughLink,  // by a link with a safe name, so that its own name is not checked
};

// Validates a task as of `now`: its strings, program, period and due time; of the line of a job for
// vxrun, the program that it names. Returns the errors that
// cannot be forced first; empty if the task is valid. Inspects the program in the file system with
// this process's permissions and working directory, which may differ from the scheduling process's.
VXSCHED_PUBLIC std::vector<TValidationError> Validate(const TTaskEntry& task, TTime now,
                                                      EProgram how = EProgram::cAsNamed);

}  // namespace vxsched
