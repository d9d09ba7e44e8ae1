#include <fmt/format.h>
#include <fmt/ranges.h>

#include <nlohmann/json.hpp>
#include <string_view>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/exchange/TaskFile.h"
#include "cli/output/JobFormat.h"
#include "cli/time/PeriodFormat.h"
#include "jobs/JobLine.h"
#include "jobs/JobOptions.h"
#include "store/Grid.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

bool IsBareKey(std::string_view key) {
    constexpr std::string_view cBare =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-";
    return !key.empty() && key.find_first_not_of(cBare) == std::string_view::npos;
}

// As JSON writes it, of whose escapes TOML has all; what a terminal would obey is escaped as well. Not by the
// library that reads TOML: that takes bytes which are not UTF-8 for others.
std::string TomlString(const std::string& string) {
    if (!IsUtf8(string))
        throw MakeError(EError::cRefused, "TOML has text in UTF-8 only, not \"{}\"",
                        ShowBeginning(string));
    return EscapeControls(nlohmann::json(string).dump(), EEscape::cToml);
}

std::string TomlStrings(const std::vector<std::string>& strings) {
    std::vector<std::string> written;
    written.reserve(strings.size());
    for (const std::string& string : strings)
        written.push_back(TomlString(string));
    return fmt::format("[{}]", fmt::join(written, ", "));
}

// A time outside of TOML's years is text.
std::string TomlTime(TTime time) {
    const std::string iso = FormatIsoTime(time);
    return iso.starts_with('@') ? TomlString(iso) : iso;
}

void RequirePeriod(std::uint32_t period) {
    if (period > cLongestPeriod)
        throw MakeError(EError::cRefused, "its period of {} hours is longer than --every takes",
                        period);
}

}  // namespace

std::string WriteFileTask(const std::string& directory, const TTaskEntry& task) {
    if (IsRunner(task.program) && !FindJob(task))
        throw MakeError(EError::cRefused, "its parameter is no job that vxrun could execute");
    const TJob job = JobOf(directory, task);
    std::string written =
        fmt::format("[tasks.{}]\n", IsBareKey(task.name) ? task.name : TomlString(task.name));
    const auto add = [&](std::string_view key, const std::string& value) {
        written += fmt::format("{} = {}\n", key, value);
    };
    if (!job.shell)
        add("command", TomlStrings(job.command));
    for (const TJobOption& option : cJobOptions) {
        const std::vector<std::string> values = option.values(job);
        if (values.empty() || option.name == cTaskOption)
            continue;
        add(option.name, option.name == cUntilOption ? TomlTime(*job.until)
                         : option.isRepeatable       ? TomlStrings(values)
                                                     : TomlString(values.front()));
    }
    if (job.cron.empty()) {
        RequirePeriod(task.period);
        if (task.period != 0)
            add("every", TomlString(FormatPeriod(task.period)));
        add("at", TomlTime(task.next));
    }
    if (task.paused)
        add("paused", "true");
    return written;
}

}  // namespace vxsched
