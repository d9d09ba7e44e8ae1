// next: the coming runs of all tasks.

#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <queue>

#include "cli/commands/Commands.h"
#include "cli/commands/DefaultCounts.h"
#include "cli/output/JobFormat.h"
#include "cli/output/Json.h"
#include "store/CSchedule.h"
#include "store/Grid.h"

namespace vxsched {

namespace {

constexpr TTime cFarthest(std::chrono::seconds(1LL << 60));  // a run from then on is a task's last
constexpr std::size_t cMost = 100'000;  // bounds the output for a distant end time

struct TComing {
    TTime time;
    std::size_t index;  // of the task, so that equal times come in the table's order

    bool operator>(const TComing& other) const {
        return std::tie(time, index) > std::tie(other.time, other.index);
    }
};

// The coming runs of all active tasks in time order. A task that is already due runs once now, and
// then by its schedule.
class CComingRuns {
public:
    CComingRuns(const std::vector<TTaskEntry>& allTasks, TTime moment)
        : tasks(allTasks), now(moment) {
        for (std::size_t index = 0; index < tasks.size(); ++index) {
            if (!tasks[index].paused && tasks[index].next != cNever)
                coming.push({std::max(tasks[index].next, now), index});
        }
    }

    std::optional<TComing> Take() {
        if (coming.empty())
            return {};
        const TComing first = coming.top();
        coming.pop();
        const TTaskEntry& task = tasks[first.index];
        if (StepOf(task.period) == std::chrono::seconds(0) || first.time >= cFarthest)
            return first;
        const CSchedule& schedule = schedules.try_emplace(first.index, task).first->second;
        const TTime next = schedule.FirstFrom(first.time + std::chrono::seconds(1));
        if (!schedule.IsOver(next) && (next < cNever || !schedule.HasCalendar()))
            coming.push({next, first.index});
        return first;
    }

private:
    const std::vector<TTaskEntry>& tasks;
    const TTime now;
    std::map<std::size_t, CSchedule> schedules;  // by the index of the task
    std::priority_queue<TComing, std::vector<TComing>, std::greater<>> coming;
};

}  // namespace

TExitStatus Next(const TCommon& common, std::optional<std::size_t> count, const std::string& until,
                 COutput& output) {
    const TTime now = Now();
    const TTime end = until.empty() ? TTime::max() : ParseTime(until, now);
    const std::size_t most = count.value_or(until.empty() ? cDefaultComingRuns : cMost);
    const TTable table = CStore(common.store).Read();
    CComingRuns runs(table.tasks, now);
    CColumns columns({"TIME", "LEFT", "EVERY", "NAME"});
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (std::size_t shown = 0; shown < most; ++shown) {
        const std::optional<TComing> run = runs.Take();
        if (!run || run->time > end)
            break;
        const TTaskEntry& task = table.tasks[run->index];
        if (common.json) {
            json.push_back({{"time", FormatIsoTime(run->time)},
                            {"seconds", run->time.time_since_epoch().count()},
                            {"name", JsonOfString(task.name)}});
            continue;
        }
        columns.Add(FormatTime(run->time, common.zone));
        columns.Add(FormatDistance(Between(now, run->time)));
        columns.Add(FormatSchedule(task));
        columns.Add(task.name);
    }
    // The limit was this command's choice, so the user must learn of it.
    if (!count && !until.empty() && runs.Take().value_or(TComing{TTime::max(), 0}).time <= end &&
        std::max(json.size(), columns.Count()) == most)
        std::cerr << "vxsched: only the first " << most << " runs are listed\n";
    if (common.json)
        output.Raw(Document({{"runs", json}}));
    else
        columns.Print(output);
    return cDone;
}

}  // namespace vxsched
