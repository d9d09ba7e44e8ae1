#include <vxsched/Repair.h>

#include <limits.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <unordered_set>

#include "base/Quoted.h"
#include "store/CDecoder.h"
#include "store/Grid.h"

namespace vxsched {

namespace {

constexpr std::size_t cCount = 8;  // bytes of the number of tasks, before the first task
constexpr std::size_t cLongestName = 4096;
constexpr std::chrono::seconds cFarFromNow = std::chrono::hours(24LL * 365 * 10'000);

bool IsPlausibleTime(TTime time) {
    return time >= TTime() && time < TTime() + cFarFromNow;
}

// Bytes that are not a task hardly ever pass these checks by chance.
bool IsPlausible(const TTaskEntry& task, std::uint32_t flag) {
    return !task.name.empty() && task.name.size() <= cLongestName &&
           task.name.find('\0') == std::string::npos && IsPlausibleTime(task.next) &&
           IsPlausibleTime(task.last) && !task.program.empty() && task.program.size() < PATH_MAX &&
           flag <= 1;
}

// A task decoded from zeros: after a power failure a file may have zeros in place of the last
// writes.
bool IsBlank(const TTaskEntry& task) {
    return task == TTaskEntry();
}

struct TFound {
    TTaskEntry task;
    std::size_t end;
};

std::optional<TFound> TaskAt(std::string_view bytes, std::size_t offset, bool mustBePlausible) {
    CDecoder decoder(bytes, offset);
    try {
        std::uint32_t flag = 0;
        TTaskEntry task = decoder.TakeTask(CDecoder::cNoTask, flag);
        if (IsBlank(task) || (mustBePlausible && !IsPlausible(task, flag)))
            return {};
        return TFound{std::move(task), decoder.Offset()};
    } catch (const CError&) {
        return {};
    }
}

// A cheap check that rules most offsets out: a task begins with the length of its name.
bool MayBeginName(std::string_view bytes, std::size_t offset) {
    std::uint32_t length = 0;
    std::memcpy(&length, bytes.data() + offset, sizeof length);
    return length > 0 && length <= cLongestName && length < bytes.size() - offset;
}

std::optional<TFound> FindNextTask(std::string_view bytes, std::size_t offset) {
    for (; offset + cSmallestTask <= bytes.size(); ++offset) {
        if (!MayBeginName(bytes, offset))
            continue;
        if (std::optional<TFound> found = TaskAt(bytes, offset, true))
            return found;
    }
    return {};
}

void RepairHarm(TTaskEntry& task, TProblem::EKind kind, TTime now,
                std::vector<std::string>& notes) {
    if (kind == TProblem::cEndless) {
        notes.push_back("altered " + Quoted(task.name) + ": its period of " +
                        std::to_string(task.period) +
                        " hours is a step of zero; it is paused now, with a period of " +
                        std::to_string(cLongestPeriod) + " hours");
        task.period = cLongestPeriod;
        task.paused = true;
    } else {
        notes.push_back("altered " + Quoted(task.name) +
                        ": its due time was too far back; it is rescheduled to its next one");
    }
    task.next = NextOnGrid(task.next, StepOf(task.period), now);
}

}  // namespace

TSalvaged Salvage(std::string_view bytes) {
    TSalvaged salvaged;
    std::size_t offset = std::min(bytes.size(), cCount);
    while (offset < bytes.size()) {
        std::optional<TFound> found = TaskAt(bytes, offset, false);
        if (!found) {
            const std::size_t bad = offset;
            found = FindNextTask(bytes, offset + 1);
            const std::size_t end = found ? found->end : bytes.size();
            salvaged.notes.push_back("bytes " + std::to_string(bad) + " to " + std::to_string(end) +
                                     " were not readable as tasks");
            if (!found)
                break;
        }
        offset = found->end;
        salvaged.tasks.push_back(std::move(found->task));
    }
    return salvaged;
}

std::vector<TTaskEntry> DecodeIntactTable(std::string_view bytes, TTime now) {
    std::vector<TTaskEntry> tasks = DecodeTable(bytes, now).tasks;
    if (std::any_of(tasks.begin(), tasks.end(), IsBlank))
        CDecoder::Damaged(0, "it has zeros in place of a task");
    const std::size_t end = EncodeTable(tasks).size();
    if (end < bytes.size() && (tasks.empty() || Salvage(bytes).tasks.size() > tasks.size()))
        CDecoder::Damaged(
            end, "its count is " + std::to_string(tasks.size()) + " tasks, but more tasks follow");
    return tasks;
}

TRepair PlanRepair(std::string_view bytes, const TBackup* backup, TTime now) {
    TRepair repair;
    try {
        repair.tasks = DecodeIntactTable(bytes, now);
    } catch (const CError& error) {
        TSalvaged salvaged = Salvage(bytes);
        repair.notes.push_back(error.what());
        repair.notes.insert(repair.notes.end(), salvaged.notes.begin(), salvaged.notes.end());
        repair.tasks = std::move(salvaged.tasks);
        std::unordered_set<std::string> names;
        for (const TTaskEntry& task : repair.tasks) {
            names.insert(task.name);
            repair.notes.push_back("kept " + Quoted(task.name) + " from the damaged table");
        }
        for (const TTaskEntry& task :
             backup != nullptr ? backup->tasks : std::vector<TTaskEntry>()) {
            if (!names.insert(task.name).second)
                continue;
            repair.tasks.push_back(task);
            repair.notes.push_back("kept " + Quoted(task.name) + " from " + backup->name);
        }
    }
    for (TTaskEntry& task : repair.tasks) {
        const TTable alone = DecodeTable(EncodeTable({task}), now);
        for (const TProblem& problem : alone.problems) {
            if (problem.kind != TProblem::cUnusual)
                RepairHarm(task, problem.kind, now, repair.notes);
        }
    }
    return repair;
}

}  // namespace vxsched
