#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// One call of an exported function.
struct TCall {
    enum EFunction { cCreate, cDestroy, cPause, cResume, cSetPeriod, cExecute };
    EFunction function;
    TTaskEntry task;  // its name; for cCreate all of it, for cSetPeriod the period
    // What has to hold, or the call is not made.
    bool mustBeNew = false;
    bool mustExist = true;
    bool mustNotRun = false;    // none of its processes is there
    bool mustBeAsSeen = false;  // the task is exactly `seen`
    TTaskEntry seen;
    // How it is made.
    bool throughLink = false;  // cCreate: the program is the real one, which may need a link
    bool keepDue = false;      // cCreate: the start stays as it is given, whatever the clock says
    bool mayRemove = false;    // cResume: a task that runs once may be removed unrun by it
    bool waitForEnd = false;   // cExecute: the end of the program is waited for and told
};

// What a change process is to do: load the add-in when nothing speaks against it, make the calls,
// and remove the links that no task needs any more.
struct TRequest {
    std::string directory;
    std::string addIn;
    std::int64_t lockTimeout = 0;  // milliseconds, for the turn and for the mutex
    bool evenIfDue = false;        // load although tasks are due
    std::vector<TCall> calls;
};

std::string Encode(const TRequest& request);
// What comes from somewhere else than Encode() is not looked for.
TRequest DecodeRequest(std::string bytes);

// What a change process tells, one after the other, as two texts each.
struct TMessage {
    std::string kind;
    std::string text;
};
inline constexpr char cMessageDue[] = "due";           // not done: this task is due
inline constexpr char cMessageChanged[] = "changed";   // not done: this task is not as it was seen
inline constexpr char cMessageError[] = "error";       // not done: a code, then the text
inline constexpr char cMessageBegun[] = "begun";       // what follows is not without effect
inline constexpr char cMessageProgram[] = "program";   // of cCreate: as it is in the table
inline constexpr char cMessageLog[] = "log";           // the add-in's message
inline constexpr char cMessageLaunched[] = "started";  // a program: its process
inline constexpr char cMessageLaunchFailed[] = "not started";  // a program: why
inline constexpr char cMessageTable[] = "table";  // all calls made: the file's bytes then
inline constexpr char cMessageEnded[] = "ended";  // a program: its wait status

// The calls are not made when an active task is due within this time.
inline constexpr std::chrono::seconds cAboutToBeDue(1);

}  // namespace vxsched
