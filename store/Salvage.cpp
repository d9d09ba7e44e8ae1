#include "store/Salvage.h"

#include <fmt/format.h>
#include <limits.h>

#include <algorithm>

#include <vxsched/Repair.h>

namespace vxsched {

namespace {

constexpr std::size_t cCount = 8;  // bytes of the number of tasks, before the first task
constexpr std::size_t cLongestTaskName = 4096;
constexpr std::chrono::seconds cFarFromNow = std::chrono::hours(24LL * 365 * 10'000);

bool IsPlausibleTime(TTime time) {
    return time >= TTime() && time < TTime() + cFarFromNow;
}

// Bytes that are not a task hardly ever pass these checks by chance.
bool IsPlausible(const TTaskView& task) {
    return !task.name.empty() && task.name.size() <= cLongestTaskName &&
           IsPlausibleTime(task.next) && IsPlausibleTime(task.last) && !task.program.empty() &&
           task.program.size() < PATH_MAX && task.flag <= 1 &&
           task.name.find('\0') == std::string_view::npos &&
           task.program.find('\0') == std::string_view::npos;
}

std::optional<TFoundTask> TaskAt(std::string_view bytes, std::size_t offset) {
    CDecoder decoder(bytes, offset);
    const TTaskView task = decoder.TakeTask();
    if (decoder.HasFailed() || IsBlank(task))
        return {};
    return TFoundTask{task, offset, decoder.Offset()};
}

}  // namespace

bool IsBlank(const TTaskView& task) {
    return task.name.empty() && task.program.empty() && task.parameter.empty() &&
           task.next == TTime() && task.last == TTime() && task.period == 0 && task.flag == 0;
}

TTaskEntry EntryOf(const TTaskView& task) {
    return {std::string(task.name),
            task.next,
            task.last,
            task.period,
            std::string(task.program),
            std::string(task.parameter),
            task.flag != 0};
}

std::optional<TFoundTask> FindTask(std::string_view bytes, std::size_t offset) {
    for (; offset + cSmallestTask <= bytes.size(); ++offset) {
        const std::optional<TFoundTask> found = TaskAt(bytes, offset);
        if (found && IsPlausible(found->task))
            return found;
    }
    return {};
}

TSalvaged Salvage(std::string_view bytes) {
    TSalvaged salvaged;
    std::size_t offset = std::min(bytes.size(), cCount);
    while (offset < bytes.size()) {
        std::optional<TFoundTask> found = TaskAt(bytes, offset);
        if (!found) {
            found = FindTask(bytes, offset + 1);
            salvaged.notes.push_back(fmt::format("bytes {} to {} were not readable as tasks",
                                                 offset, found ? found->begin : bytes.size()));
            if (!found)
                break;
        }
        offset = found->end;
        salvaged.tasks.push_back(EntryOf(found->task));
        salvaged.isDoubtful.push_back(!IsPlausible(found->task));
    }
    return salvaged;
}

}  // namespace vxsched
