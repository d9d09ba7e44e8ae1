#include "runs/RunRecord.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "base/DisplayText.h"
#include "base/InSeconds.h"
#include "base/Processes.h"
#include "runs/ParseJson.h"

using TJson = nlohmann::ordered_json;

static constexpr int cVersion = 1;

// The value of the field "outcome" for each outcome, and of the field "task" where no launch is
// known of.
struct TOutcomeNames {
    TRunRecord::EOutcome outcome;
    const char* name;
    const char* task;
};
static constexpr TOutcomeNames cOutcomes[] = {
    {TRunRecord::cExited, "exited", nullptr},
    {TRunRecord::cKilled, "killed", nullptr},
    {TRunRecord::cUnknown, "unknown", nullptr},
    {TRunRecord::cLeftRunning, "left running", nullptr},
    {TRunRecord::cNotStarted, "not started", nullptr},
    {TRunRecord::cRescheduled, "missed", "rescheduled"},
    {TRunRecord::cRemoved, "missed", "removed"},
    {TRunRecord::cLaunchUnknownRescheduled, "launch unknown", "rescheduled"},
    {TRunRecord::cLaunchUnknownRemoved, "launch unknown", "removed"},
    {TRunRecord::cRunnerDied, "runner died", nullptr},
    {TRunRecord::cSkipped, "skipped", nullptr},
};

static const TOutcomeNames& NamesOf(TRunRecord::EOutcome outcome) {
    return *std::find_if(std::begin(cOutcomes), std::end(cOutcomes),
                         [&](const TOutcomeNames& one) { return one.outcome == outcome; });
}

const char* OutcomeName(const TRunRecord& run) {
    return NamesOf(run.outcome).name;
}

void RecordNotStarted(TRunRecord& run, const std::string& error) {
    run.outcome = TRunRecord::cNotStarted;
    if (run.id.empty())
        run.id = MakeOwnRunId();
    run.ended = run.started;
    run.error = error;
}

void RecordSkipped(TRunRecord& run, const std::string& underWay) {
    run.outcome = TRunRecord::cSkipped;
    run.ended = run.started;
    run.attempt = 0;
    run.underWay = underWay;
}

bool HasNoFailure(const TRunRecord& run) {
    if (run.timeLimit)
        return false;
    switch (run.outcome) {
        case TRunRecord::cExited:
        case TRunRecord::cKilled:
            return run.success.value_or(run.outcome == TRunRecord::cExited && run.number == 0);
        case TRunRecord::cLeftRunning:
        case TRunRecord::cUnknown:
        case TRunRecord::cSkipped:
            return true;
        default:
            return false;
    }
}

TRunRecord MakeRetry(const TRunRecord& run) {
    TRunRecord retry;
    retry.task = run.task;
    retry.due = run.due;
    retry.program = run.program;
    retry.parameter = run.parameter;
    retry.trigger = cRetried;
    retry.attempt = run.attempt + 1;
    retry.retryOf = run.retryOf.empty() ? run.id : run.retryOf;
    retry.started = CurrentMoment();
    retry.id = MakeRunId(*retry.started, run.id);
    return retry;
}

static std::chrono::microseconds TimeOf(const timeval& time) {
    return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
}

void RecordProgramEnd(TRunRecord& run, int waitStatus, const rusage& usage) {
    run.ended = CurrentMoment();
    run.outcome = WIFSIGNALED(waitStatus) ? TRunRecord::cKilled : TRunRecord::cExited;
    run.number = WIFSIGNALED(waitStatus) ? WTERMSIG(waitStatus) : WEXITSTATUS(waitStatus);
    run.usage = {.user = TimeOf(usage.ru_utime),
                 .system = TimeOf(usage.ru_stime),
                 .peakMemory = usage.ru_maxrss};
}

std::optional<pid_t> RunnerOf(const std::string& id) {
    return vxsched::ParseProcess(std::string_view(id).substr(id.rfind('-') + 1));
}

// The same digits as a number that is greater by one. As a time it may be none, and only orders the ids.
static std::string After(std::string time) {
    for (auto digit = time.rbegin(); digit != time.rend(); ++digit) {
        if (*digit >= '0' && *digit < '9') {
            ++*digit;
            break;
        }
        if (*digit == '9')
            *digit = '0';
    }
    return time;
}

std::string MakeRunId(TMoment now, const std::string& latest) {
    std::string time = UtcTime(now);
    std::erase_if(time, [](char character) { return character == ':' || character == '-'; });
    const std::string former = latest.substr(0, latest.rfind('-'));
    if (former.size() == time.size() && former >= time)
        time = After(former);
    return fmt::format("{}-{}", time, getpid());
}

std::string MakeOwnRunId() {
    static std::mutex mutex;
    static std::string latest;
    const std::lock_guard<std::mutex> lock(mutex);
    latest = MakeRunId(CurrentMoment(), latest);
    return latest;
}

const char* TriggerOf(std::chrono::sys_seconds due, TMoment launched, TMoment upSince) {
    // The second in which the host came up is its own.
    const bool isLate = due < std::chrono::floor<std::chrono::seconds>(upSince) ||
                        launched - due > std::chrono::minutes(1);
    return isLate ? cCaughtUp : cScheduled;
}

static TJson TimeOrNull(const std::string& time) {
    return time.empty() ? TJson(nullptr) : TJson(time);
}

// Bounded, so that sums of such times are in range.
static std::chrono::microseconds Microseconds(double seconds) {
    constexpr double cMost = 1e12;
    return std::chrono::round<std::chrono::microseconds>(
        std::chrono::duration<double>(std::clamp(seconds, 0.0, cMost)));
}

TJson JsonOf(const TRunRecord& record) {
    const TOutcomeNames& names = NamesOf(record.outcome);
    TJson json;
    json["version"] = cVersion;
    json["outcome"] = names.name;
    json["name"] = record.task ? TJson(*record.task) : TJson(nullptr);
    json["due"] = record.due ? TimeOrNull(UtcTime(*record.due)) : TJson(nullptr);
    if (names.task != nullptr)
        json["task"] = names.task;
    json["program"] = record.program;
    json["parameter"] = record.parameter;
    if (record.started)
        json["started"] = UtcTime(*record.started);
    if (record.ended)
        json["ended"] = UtcTime(*record.ended);
    if (record.outcome == TRunRecord::cExited)
        json["status"] = record.number;
    if (record.outcome == TRunRecord::cKilled)
        json["signal"] = record.number;
    if (record.outcome == TRunRecord::cNotStarted)
        json["error"] = record.error;
    if (record.missed != 0)
        json["missed"] = record.missed;
    if (record.success)
        json["success"] = *record.success;
    if (record.timeLimit)
        json["timeLimit"] = record.timeLimit->count();
    if (!record.underWay.empty())
        json["underWay"] = record.underWay;
    if (record.outcome == TRunRecord::cExited || record.outcome == TRunRecord::cKilled) {
        json["user"] = InSeconds(record.usage.user);
        json["system"] = InSeconds(record.usage.system);
        json["peakMemory"] = record.usage.peakMemory;
    }
    if (record.process != 0)
        json["process"] = record.process;
    if (record.processStart != 0 && record.outcome == TRunRecord::cRunnerDied)
        json["processStart"] = record.processStart;
    if (!record.stoppedBy.empty())
        json["stoppedBy"] = record.stoppedBy;
    if (!record.id.empty())
        json["run"] = record.id;
    if (!record.trigger.empty())
        json["trigger"] = record.trigger;
    if (record.attempt != 0)
        json["attempt"] = record.attempt;
    if (!record.retryOf.empty())
        json["retryOf"] = record.retryOf;
    if (!record.job.empty())
        json["job"] = record.job;
    if (!record.output.empty()) {
        json["output"] = record.output;
        json["outputBytes"] = record.outputBytes;
    }
    if (!record.outputError.empty())
        json["outputError"] = record.outputError;
    return json;
}

std::string JsonLine(const TRunRecord& record) {
    return vxsched::EscapeControls(
               JsonOf(record).dump(-1, ' ', false, TJson::error_handler_t::replace)) +
           '\n';
}

std::string AsRecorded(const std::string& string) {
    return TJson::parse(TJson(string).dump(-1, ' ', false, TJson::error_handler_t::replace))
        .get<std::string>();
}

// ---- Reading: a missing field, or one of another type, throws TJson::exception, an integer that is
// none or out of range std::out_of_range ----

static TRunRecord::EOutcome ReadOutcome(const TJson& json) {
    const std::string name = json.at("outcome");
    const std::string task = json.value("task", "");
    for (const TOutcomeNames& one : cOutcomes) {
        if (name == one.name && task == (one.task == nullptr ? "" : one.task))
            return one.outcome;
    }
    return TRunRecord::cUnknown;
}

static std::optional<TMoment> ReadTime(const TJson& json, const char* field) {
    const auto found = json.find(field);
    return found == json.end() || found->is_null() ? std::nullopt
                                                   : ReadUtcTime(found->get<std::string>());
}

template <typename Number>
static Number ReadInteger(const TJson& json, const char* field) {
    const auto found = json.find(field);
    if (found == json.end())
        return 0;
    const bool fits =
        found->is_number_unsigned()
            ? std::in_range<Number>(found->get<std::uint64_t>())
            : found->is_number_integer() && std::in_range<Number>(found->get<std::int64_t>());
    if (!fits)
        throw std::out_of_range(field);
    return found->get<Number>();
}

static TRunRecord ReadRecord(const TJson& json) {
    TRunRecord record;
    record.outcome = ReadOutcome(json);
    if (!json.at("name").is_null())
        record.task = json.at("name").get<std::string>();
    if (const std::optional<TMoment> due = ReadTime(json, "due"))
        record.due = std::chrono::floor<std::chrono::seconds>(*due);
    record.program = json.at("program");
    record.parameter = json.at("parameter");
    record.process = ReadInteger<pid_t>(json, "process");
    record.processStart = ReadInteger<std::uint64_t>(json, "processStart");
    record.started = ReadTime(json, "started");
    record.ended = ReadTime(json, "ended");
    record.number = ReadInteger<int>(json, json.contains("status") ? "status" : "signal");
    record.usage = {.user = Microseconds(json.value("user", 0.0)),
                    .system = Microseconds(json.value("system", 0.0)),
                    .peakMemory = ReadInteger<long>(json, "peakMemory")};
    record.error = json.value("error", "");
    record.stoppedBy = json.value("stoppedBy", "");
    record.underWay = json.value("underWay", "");
    if (json.contains("timeLimit"))
        record.timeLimit = std::chrono::seconds(ReadInteger<std::int32_t>(json, "timeLimit"));
    record.missed = ReadInteger<std::size_t>(json, "missed");
    if (json.contains("success"))
        record.success = json.at("success").get<bool>();
    record.id = json.value("run", "");
    record.trigger = json.value("trigger", "");
    record.attempt = ReadInteger<int>(json, "attempt");
    record.retryOf = json.value("retryOf", "");
    record.job = json.value("job", "");
    record.output = json.value("output", "");
    record.outputBytes = ReadInteger<std::uint64_t>(json, "outputBytes");
    record.outputError = json.value("outputError", "");
    return record;
}

std::optional<TRunRecord> ReadJsonLine(std::string_view line) {
    try {
        const TJson json = ParseJson(line);
        if (json.at("version") == cVersion)
            return ReadRecord(json);
    } catch (const TJson::exception&) {  // not a record
    } catch (const CJsonTooDeep&) {
    } catch (const std::out_of_range&) {
    }
    return {};
}
