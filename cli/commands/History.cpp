// history: the last runs, from the host's history.

#include <fmt/format.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include <vxsched/Error.h>
#include "base/DisplayText.h"
#include "cli/commands/Commands.h"
#include "cli/commands/DefaultCounts.h"
#include "cli/commands/RequireTask.h"
#include "cli/output/Json.h"
#include "cli/output/RunFormat.h"
#include "cli/time/PastTime.h"
#include "runs/HistoryReader.h"

namespace vxsched {

namespace {

EColour ColourOf(const TRunRecord& run) {
    if (HasNoFailure(run))
        return EColour::cPlain;
    return HasLaunch(run) ? EColour::cRed : EColour::cYellow;
}

// Its launch or, without one, its due time.
std::optional<TTime> BeginningOf(const TRunRecord& run) {
    return run.started ? std::chrono::floor<std::chrono::seconds>(*run.started) : run.due;
}

// The time from the due time to the launch.
std::string Lateness(const TRunRecord& run) {
    return run.due && run.started ? FormatSpan(*run.started - *run.due) : cNoValue;
}

std::string ProcessorTime(const TRunRecord& run) {
    return FormatSpan(
        std::chrono::floor<std::chrono::milliseconds>(run.usage.user + run.usage.system));
}

std::string Memory(const TRunRecord& run) {
    return fmt::format("{:.1f} MiB", static_cast<double>(run.usage.peakMemory) / 1024);
}

void PrintTable(const std::vector<TRunRecord>& runs, EZone zone, COutput& output) {
    CColumns columns(
        {"DUE", "STARTED", "LATE", "TOOK", "CPU", "MEMORY", "OUTCOME", "NAME", "TRIGGER", "RUN"});
    for (const TRunRecord& run : runs) {
        const std::optional<std::chrono::milliseconds> taken = TimeTaken(run);
        const bool hasUsage = run.usage != TUsage();
        columns.Add(FormatMoment(run.due, zone));
        columns.Add(FormatMoment(run.started, zone));
        columns.Add(Lateness(run));
        columns.Add(taken ? FormatSpan(*taken) : cNoValue);
        columns.Add(hasUsage ? ProcessorTime(run) : cNoValue);
        columns.Add(hasUsage ? Memory(run) : cNoValue);
        columns.Add(FormatOutcome(run), ColourOf(run));
        columns.Add(run.task.value_or(cNoValue), EColour::cBold);
        columns.Add(run.trigger.empty() ? cNoValue : run.trigger);
        columns.Add(run.id.empty() ? cNoValue : run.id);
    }
    columns.Print(output);
}

void PrintJson(const std::vector<TRunRecord>& runs, COutput& output) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const TRunRecord& run : runs)
        json.push_back(JsonOf(run));
    output.Raw(Document({{"runs", json}}));
}

}  // namespace

TExitStatus History(const TCommon& common, const std::string& name, const THistoryOptions& options,
                    COutput& output) {
    std::optional<TTime> since;
    if (!options.since.empty())
        since = ParsePastTime(options.since, Now());
    THistory history =
        ReadHistory(common.store.directory, name.empty() ? std::nullopt : std::optional(name));
    for (const std::string& problem : history.problems)
        std::cerr << "vxsched: " << Show(problem).string << '\n';
    std::vector<TRunRecord>& runs = history.runs;
    if (runs.empty() && !name.empty())
        RequireTask(common, name);
    if (options.failedOnly)
        std::erase_if(runs, HasNoFailure);
    if (since)
        std::erase_if(runs, [&](const TRunRecord& run) { return BeginningOf(run) < *since; });
    const std::size_t most = options.count.value_or(since ? runs.size() : cDefaultRecords);
    const std::size_t all = runs.size();
    if (all > most)
        runs.erase(runs.begin(), runs.end() - static_cast<std::ptrdiff_t>(most));
    if (common.json) {
        PrintJson(runs, output);
        return cDone;
    }
    PrintTable(runs, common.zone, output);
    output.Line("");
    output.Line(runs.size() < all
                    ? fmt::format("the last {} of {} records; --count shows more", runs.size(), all)
                    : CountOf(all, "record"));
    return cDone;
}

}  // namespace vxsched
