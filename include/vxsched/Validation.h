#pragma once

#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Public.h>
#include <vxsched/Table.h>

namespace vxsched {

// A reason not to put a task into the table.
struct VXSCHED_PUBLIC TValidationError {
    enum EKind {
        cEmptyName,
        cZeroByte,           // in a text: calls and programs see it cut off there
        cNoProgram,          // the path names nothing
        cRelativePath,       // it would be looked up in the scheduling process's directory
        cPathTooLong,        // beyond what the system opens
        cNotExecutable,      // or not a file
        cMissingProgram,     // nothing is there
        cAlteredPath,        // the start would cut characters off its end
        cAbortingExtension,  // the start would abort the scheduling process
        cEndlessPeriod,      // a step of zero: the first late start would hang the store
        cTooFarBack,         // a load would catch up with the start for more than a second
        cWrappedPeriod,      // the step is not the period
        cPastDue,            // of a task that runs once
    };
    EKind kind;
    bool canBeForced;  // unwise, but nobody else is harmed
    std::string text;  // what is wrong, with which input, and what to do

    // The name by which it is forced: "missing-program".
    std::string_view Name() const;

    // It is about the program, and not about the name, the start or the period.
    bool IsAboutProgram() const;
};

// The path that a start makes of a task's program: every '.', 'e' and 'x' at its end is cut off.
VXSCHED_PUBLIC std::string LaunchedPath(std::string_view program);

// Whether the start of a program ends the scheduling process: it does for an extension other than .exe.
VXSCHED_PUBLIC bool AbortsLaunch(const std::string& program);

// How a task's program is started.
enum class EProgram {
    cAsNamed,
    cThroughLink,  // with a safe name, so that the program's own does not matter
};

// All that speaks against the task, the worst first; empty when it is sound. Looks at the file
// system (whether the program is there and may be executed by this user) and changes nothing.
VXSCHED_PUBLIC std::vector<TValidationError> Validate(const TTaskEntry& task, TTime now,
                                                      EProgram how = EProgram::cAsNamed);

}  // namespace vxsched
