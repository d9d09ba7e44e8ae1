#include "cli/output/TaskFields.h"

#include <algorithm>

#include "base/ShellWord.h"
#include "cli/output/JobFormat.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/JobOptions.h"

namespace vxsched {

TTaskFields FieldsOf(const std::string& directory, const TTaskEntry& task) {
    const TJob job = JobOf(directory, task);
    TTaskFields fields;
    if (!job.shell)
        fields.emplace_back("command", JoinWords(job.command));
    for (const TJobOption& option : cJobOptions) {
        if (option.name == cTaskOption)
            continue;
        const std::vector<std::string> values = option.values(job);
        if (!values.empty())
            fields.emplace_back(option.name,
                                option.isRepeatable ? JoinWords(values) : values.front());
    }
    if (job.cron.empty())
        fields.emplace_back("every", FormatPeriod(task.period));
    return fields;
}

std::vector<TFieldChange> Difference(const TTaskFields& before, const TTaskFields& after) {
    const auto valueIn = [](const TTaskFields& fields, const std::string& field) -> std::string {
        const auto found = std::find_if(fields.begin(), fields.end(),
                                        [&](const auto& one) { return one.first == field; });
        return found == fields.end() ? "" : found->second;
    };
    std::vector<TFieldChange> changes;
    for (const auto& [field, value] : before) {
        if (const std::string now = valueIn(after, field); now != value)
            changes.push_back({field, value, now});
    }
    for (const auto& [field, value] : after) {
        if (valueIn(before, field).empty() && !value.empty())
            changes.push_back({field, "", value});
    }
    return changes;
}

}  // namespace vxsched
