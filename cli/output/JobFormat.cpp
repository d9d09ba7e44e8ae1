#include "cli/output/JobFormat.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "base/ShellWord.h"
#include "cli/output/Json.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/CJobError.h"
#include "jobs/JobLine.h"
#include "jobs/JobOptions.h"
#include "store/ProgramLinks.h"

namespace vxsched {

static nlohmann::ordered_json JsonOfStrings(const std::vector<std::string>& strings) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const std::string& string : strings)
        array.push_back(JsonOfString(string));
    return array;
}

std::optional<TJob> FindJob(const TTaskEntry& task) {
    if (!IsRunner(task.program))
        return {};
    try {
        return ReadJobLine(task.parameter);
    } catch (const CJobError&) {
        return {};
    }
}

TJob JobOf(const std::string& directory, const TTaskEntry& task) {
    if (std::optional<TJob> job = FindJob(task))
        return *std::move(job);
    TJob job;
    job.command = {RealProgram(directory, task.program), task.parameter};
    return job;
}

std::string ProgramOf(const std::string& directory, const TTaskEntry& task) {
    return CommandOf(JobOf(directory, task)).front();
}

std::string FormatCommand(const std::string& directory, const TTaskEntry& task) {
    const std::optional<TJob> job = FindJob(task);
    if (job)
        return job->shell ? *job->shell : JoinWords(job->command);
    const std::string program = RealProgram(directory, task.program);
    return task.parameter.empty() ? program : program + ' ' + task.parameter;
}

std::string FormatSchedule(const TTaskEntry& task) {
    const std::optional<TJob> job = FindJob(task);
    if (!job || job->cron.empty())
        return FormatPeriod(task.period);
    return job->zone.empty() ? job->cron : fmt::format("{} {}", job->cron, job->zone);
}

void AddJob(nlohmann::ordered_json& json, const TJob& job) {
    if (job.shell)
        json["shell"] = JsonOfString(*job.shell);
    else
        json["command"] = JsonOfStrings(job.command);
    nlohmann::ordered_json options = nlohmann::ordered_json::object();
    for (const TJobOption& option : cJobOptions) {
        const std::vector<std::string> values = option.values(job);
        if (values.empty() || option.name == cTaskOption || option.name == cShellOption)
            continue;
        options[option.name] =
            option.isRepeatable ? JsonOfStrings(values) : JsonOfString(values.front());
    }
    json["options"] = options;
}

}  // namespace vxsched
