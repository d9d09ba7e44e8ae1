#include "host/RunRecord.h"

#include <nlohmann/json.hpp>

using TJson = nlohmann::ordered_json;

static constexpr int cVersion = 1;

static const char* NameOf(TRunRecord::EOutcome outcome) {
    switch (outcome) {
        case TRunRecord::cExited:
            return "exited";
        case TRunRecord::cKilled:
            return "killed";
        case TRunRecord::cUnknown:
            return "unknown";
        case TRunRecord::cLeftRunning:
            return "left running";
        case TRunRecord::cNotStarted:
            return "not started";
        case TRunRecord::cMovedOn:
        case TRunRecord::cRemovedUnrun:
            return "missed";
    }
    return "";
}

static TJson TimeOrNull(const std::string& time) {
    return time.empty() ? TJson(nullptr) : TJson(time);
}

static double Seconds(std::chrono::microseconds time) {
    return std::chrono::duration<double>(time).count();
}

std::string JsonLine(const TRunRecord& record) {
    TJson json;
    json["version"] = cVersion;
    json["outcome"] = NameOf(record.outcome);
    json["name"] = record.task ? TJson(*record.task) : TJson(nullptr);
    json["due"] = record.due ? TimeOrNull(UtcTime(*record.due)) : TJson(nullptr);
    if (record.outcome == TRunRecord::cMovedOn || record.outcome == TRunRecord::cRemovedUnrun)
        json["task"] = record.outcome == TRunRecord::cMovedOn ? "moved on" : "removed unrun";
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
    if (record.outcome == TRunRecord::cExited || record.outcome == TRunRecord::cKilled) {
        json["user"] = Seconds(record.usage.user);
        json["system"] = Seconds(record.usage.system);
        json["peakMemory"] = record.usage.peakMemory;
    }
    if (record.process != 0)
        json["process"] = record.process;
    return json.dump(-1, ' ', false, TJson::error_handler_t::replace) + '\n';
}
