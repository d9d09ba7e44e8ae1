#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <vxsched/Table.h>

namespace vxsched {

// The change of one task, as an exported function of the add-in would make it, or a run of it. The
// calls of a request are made in their order, each on what the ones before have left.
struct TCall {
    enum EFunction { cCreate, cDestroy, cPause, cResume, cSetPeriod, cExecute };
    EFunction function = cCreate;
    TTaskEntry task = {};  // the name; cCreate: all but last; cSetPeriod: the period
    // Conditions; if one does not hold, no call of the request is made.
    bool mustBeNew = false;
    bool mustExist = true;
    bool mustNotRun = false;    // no run of the task goes on, and no process of its program
    bool mustBeAsSeen = false;  // the task in the table equals `seen`
    TTaskEntry seen = {};
    // How the call is made.
    bool keepDue = false;      // cCreate: the due time is kept, even if it is past
    std::string newName = {};  // cCreate: the name that the task gets; empty: its own
    bool mayRemove = false;    // cResume: it may remove a task that runs once without a run
};

// The request to a change process: check the conditions, make all of the calls or, if one cannot be
// made, none, and remove the program links that no task uses any more.
struct TRequest {
    std::string directory;
    std::string addIn;
    std::int64_t lockTimeout = 0;  // milliseconds, for the writer lock and the store mutex each
    bool evenIfDue = false;        // make the calls although tasks are due
    bool hasScheduler = false;     // a scheduling process runs; the change process may lack the
                                   // permission to find it
    bool hasHost = false;          // that is a vxschedd, which holds the store's lock
    bool hasOutput = false;        // the change process has cOutputDescriptor
    std::vector<TCall> calls;
};

// cExecute: a stream socket that gets what the launched program writes.
inline constexpr int cOutputDescriptor = 3;

// Whether the calls are a run of a task. There may be none.
inline bool IsRun(const std::vector<TCall>& calls) {
    return !calls.empty() && calls.back().function == TCall::cExecute;
}

std::string Encode(const TRequest& request);
// Decodes what Encode() returned; other bytes are not checked for and may throw std::exception.
TRequest DecodeRequest(std::string_view bytes);

// A message of a change process, sent as two fields.
struct TMessage {
    std::string kind;
    std::string content;
};

// The kinds of messages, with their content:

// Not done: the due task to wait for.
inline constexpr char cMessageDue[] = "due";
// Not done: the task that differs from TCall::seen.
inline constexpr char cMessageChanged[] = "changed";
// Empty: not done, since a tick is under way, although the store mutex was free.
inline constexpr char cMessageTick[] = "tick";
// Empty: all is checked, and the locks are held. The client answers with one byte; without it the
// change is cancelled, so that a client that has been interrupted has changed nothing.
inline constexpr char cMessageReady[] = "ready";
// An EError as a number, a blank, the message.
inline constexpr char cMessageError[] = "error";
// Empty: from here on the change has effects.
inline constexpr char cMessageBegun[] = "begun";
// A log message of the add-in.
inline constexpr char cMessageLog[] = "log";
// What has failed after the change was made, and what that means.
inline constexpr char cMessageWarning[] = "warning";
// cExecute: the process id, a blank, the id of the run, which may be empty.
inline constexpr char cMessageLaunched[] = "launched";
// cExecute: the reason.
inline constexpr char cMessageLaunchFailed[] = "launch failed";
// cExecute: why it is not known whether the program was launched.
inline constexpr char cMessageLaunchUnknown[] = "launch unknown";
// Empty: the calls are made, but a tick is under way, which may overwrite them at its end.
inline constexpr char cMessageMayBeOverwritten[] = "may be overwritten";
// All calls are made: the bytes of the table.
inline constexpr char cMessageTable[] = "table";

// The calls are not made while an active task is due within this time: it might come due during
// them.
inline constexpr std::chrono::seconds cAboutToBeDue(1);

}  // namespace vxsched
