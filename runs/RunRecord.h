#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "base/IsoTime.h"

struct rusage;

// The resources that a program used, including those of the processes that it has made and that have
// ended before it; of a program without a runner, of those that it has waited for. The system counts
// no process whose parent ignores SIGCHLD.
struct TUsage {
    std::chrono::microseconds user{0};
    std::chrono::microseconds system{0};
    long peakMemory = 0;  // KiB

    bool operator==(const TUsage&) const = default;
};

inline constexpr char cScheduled[] = "schedule";
inline constexpr char cCaughtUp[] = "catch-up";
inline constexpr char cManual[] = "manual";
inline constexpr char cRetried[] = "retry";

// The trigger of a launch for a due time: cCaughtUp if the task fell due before its host was up, or
// more than a minute ago, as in a suspend; else cScheduled. Without a reason no tick comes later.
const char* TriggerOf(std::chrono::sys_seconds due, TMoment launched, TMoment upSince);

// The record of one launch, or of one due time without a launch that is known of.
struct TRunRecord {
    enum EOutcome {
        cExited,       // `number` is its exit status
        cKilled,       // `number` is the signal
        cUnknown,      // it ended, but another process collected its status
        cLeftRunning,  // the host stopped before the program ended
        cNotStarted,   // the launch failed or was cancelled; `error` is the reason
        cRescheduled,  // missed while no host ran; the task was rescheduled
        cRemoved,      // missed while no host ran; the task, which runs once, was removed
        // The power failed during the launch; the task was rescheduled, or removed.
        cLaunchUnknownRescheduled,
        cLaunchUnknownRemoved,
        cRunnerDied,  // the runner was killed; what became of its program is not known
        cSkipped,     // not launched, since another run was under way, `underWay`
    };
    EOutcome outcome = cExited;
    std::optional<std::string> task;  // empty if the launch cannot be assigned to a task
    std::optional<std::chrono::sys_seconds> due;
    std::string program;
    std::string parameter;
    pid_t process = 0;               // 0: there was none
    std::uint64_t processStart = 0;  // TProcessStat::start, of cRunnerDied: the process may go on
    std::optional<TMoment> started;
    std::optional<TMoment> ended;  // when its status was collected
    int number = 0;                // see EOutcome
    TUsage usage;
    std::string error;
    std::string id;       // of the run, unique in the store
    std::string trigger;  // why it was launched: cScheduled or another
    int attempt = 0;      // from 1; 0: none was made
    std::string retryOf;  // the id of the first attempt, of a later one
    // The runner's records only:
    std::string output;             // the file of its output, from the working directory
    std::uint64_t outputBytes = 0;  // that it has written until its end
    std::string outputError;        // why not all of these were kept; empty if they were
    std::string stoppedBy;          // the user who has had it stopped
    std::string underWay;           // the id of a run
    // The job's time limit, if it was terminated for having exceeded that.
    std::optional<std::chrono::seconds> timeLimit;
    // Due times without a launch that the record stands for, of which `due` is the first; 0: that one.
    std::size_t missed = 0;
    std::optional<bool> success;  // whether its end is good; only of a job that says which ends are
    // The line of a job whose program has not begun; only in the file of its run, not in the history.
    std::string job;

    bool operator==(const TRunRecord&) const = default;
};

// Has the record be that of a launch that was not made, because of `error`.
void RecordNotStarted(TRunRecord& run, const std::string& error);

// Has the record be that of a launch that was not made, since the run of that id was under way.
void RecordSkipped(TRunRecord& run, const std::string& underWay);

// Has the record be that of a program that ends now, by what wait4() reports.
void RecordProgramEnd(TRunRecord& run, int waitStatus, const rusage& usage);

// What the field "outcome" of the record's JSON says.
const char* OutcomeName(const TRunRecord& run);

// False for a run that needs attention: it exited with a status other than 0, or than those that its
// job says are good, was killed, has exceeded its time limit, could not start or was missed, or it is
// unknown whether it was launched. An outcome that the host could not learn, or that a later one has
// recorded, is no failure: the program may have succeeded.
bool HasNoFailure(const TRunRecord& run);

// The record of the attempt after `run`, which begins now with this process as its runner.
TRunRecord MakeRetry(const TRunRecord& run);

// The runner's process, which the id of a run ends with; empty if `id` is none.
std::optional<pid_t> RunnerOf(const std::string& id);

// The id of a run that begins now with this process as its runner. It is greater than `latest`, the id
// of an earlier run or empty, also if the clock was set back since.
std::string MakeRunId(TMoment now, const std::string& latest);

// The id of a run that has no runner, and that this process records. It is greater than the former one.
std::string MakeOwnRunId();

// Converts a record to JSON; docs/operating.md lists the fields. Any thread may call these
// functions.
nlohmann::ordered_json JsonOf(const TRunRecord& record);

// The line of files/history.jsonl for a record, with its line break. Bytes that are not UTF-8 are
// replaced by U+FFFD.
std::string JsonLine(const TRunRecord& record);

// `string` as it reads in a record that was written and read back: with U+FFFD for bytes that are
// not UTF-8. For comparing names with records.
std::string AsRecorded(const std::string& string);

// Parses a line that JsonLine() wrote; its strings come back as AsRecorded() makes them. Empty for
// anything else, including a line that was cut off or has another version. Unknown fields are
// ignored.
std::optional<TRunRecord> ReadJsonLine(std::string_view line);
