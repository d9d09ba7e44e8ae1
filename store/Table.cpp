#include <vxsched/Table.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unordered_set>

#include <vxsched/Error.h>
#include "base/AbsolutePath.h"
#include "store/COwnerAccess.h"
#include "store/CStoreMutexLock.h"
#include "store/EntryFields.h"
#include "store/Grid.h"
#include "store/MakeError.h"
#include "store/Salvage.h"
#include "store/TableFile.h"

namespace vxsched {

namespace {

// Finds what loading the add-in would do about a past due time.
void FindHarm(const TTaskEntry& task, TTime now, std::size_t offset,
              std::vector<TProblem>& problems) {
    if (task.period == 0 || task.next >= now)
        return;
    if (StepOf(task.period) == std::chrono::seconds(0))
        problems.push_back(
            {TProblem::cEndless, offset,
             fmt::format(
                 "task \"{}\" has a period of {} hours, which is a step of zero, and a past "
                 "due time: a process that loads the add-in would hang",
                 task.name, task.period)});
    else if (IsTooFarBack(task.next, task.period, now))
        problems.push_back(
            {TProblem::cSlow, offset,
             fmt::format("the due time of task \"{}\" is too far back: a process that "
                         "loads the add-in would catch up for more than a second",
                         task.name)});
}

template <typename Value>
void Put(std::string& bytes, const Value& value) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof raw);
}

// Appends a field as its type demands.
struct TFieldPutter {
    std::string& bytes;

    void operator()(const TField<const std::string>& field) const {
        Put(bytes, static_cast<std::uint32_t>(field.value.size()));
        bytes += field.value;
    }
    void operator()(const TField<const TTime>& field) const {
        Put(bytes, std::int64_t{field.value.time_since_epoch().count()});
    }
    void operator()(const TField<const std::uint32_t>& field) const { Put(bytes, field.value); }
};

}  // namespace

bool TTable::IsSafeToLoad() const {
    return std::none_of(problems.begin(), problems.end(),
                        [](const TProblem& problem) { return problem.kind != TProblem::cUnusual; });
}

TTable DecodeTable(std::string_view bytes, TTime now) {
    TTable table;
    CDecoder decoder(bytes);
    const auto count = decoder.Take<std::uint64_t>("the number of tasks");
    if (decoder.HasFailed())
        decoder.ThrowFailure(0);
    if (count > decoder.Left() / cSmallestTask)
        CDecoder::Damaged(0, fmt::format("its count is {} tasks, but only {} bytes follow it",
                                         count, decoder.Left()));
    // The set holds views of the tasks' names: no task may move, so there is memory for all of
    // them.
    table.tasks.reserve(count);
    std::unordered_set<std::string_view> names;
    names.reserve(count);
    for (std::uint64_t number = 1; number <= count; ++number) {
        const std::size_t offset = decoder.Offset();
        const TTaskView view = decoder.TakeTask();
        if (decoder.HasFailed())
            decoder.ThrowFailure(number);
        if (IsBlank(view))
            CDecoder::Damaged(offset, "it has zeros in place of a task");
        const TTaskEntry& task = table.tasks.emplace_back(EntryOf(view));
        const std::size_t flagOffset = decoder.Offset() - sizeof view.flag;
        if (view.flag > 1)
            table.problems.push_back({TProblem::cUnusual, flagOffset,
                                      fmt::format("the pause flag{} is {}, which counts as paused",
                                                  CDecoder::Of(number), view.flag)});
        if (task.name.find('\0') != std::string::npos)
            table.problems.push_back(
                {TProblem::cUnusual, offset,
                 fmt::format("the name{} holds a zero byte: calls by name cannot find it",
                             CDecoder::Of(number))});
        if (!names.insert(task.name).second)
            table.problems.push_back(
                {TProblem::cUnusual, offset,
                 fmt::format(
                     "the name{}, \"{}\", is a duplicate: calls by name find the first task",
                     CDecoder::Of(number), task.name)});
        FindHarm(task, now, offset, table.problems);
    }
    // Tasks that the count leaves out would be lost at the next write.
    if (decoder.Left() > 0 && (count == 0 || FindTask(bytes, decoder.Offset())))
        CDecoder::Damaged(decoder.Offset(),
                          fmt::format("its count is {} tasks, but more tasks follow", count));
    if (decoder.Left() > 0)
        table.problems.push_back(
            {TProblem::cUnusual, decoder.Offset(),
             fmt::format("{} bytes follow the last task: the next write drops them",
                         decoder.Left())});
    return table;
}

std::string EncodeTable(const std::vector<TTaskEntry>& tasks) {
    std::string bytes;
    Put(bytes, std::uint64_t{tasks.size()});
    for (const TTaskEntry& task : tasks) {
        const std::uint32_t flag = task.paused ? 1 : 0;
        TransferFields(task, flag, TFieldPutter{bytes});
    }
    return bytes;
}

TTime Now() {
    return TTime(std::chrono::seconds(std::time(nullptr)));
}

TTable ReadTable(const std::filesystem::path& directory, std::chrono::milliseconds lockTimeout) {
    const COwnerAccess ownerAccess(directory);
    std::error_code error;
    const bool isThere = std::filesystem::is_directory(directory, error);
    if (error == std::errc::permission_denied)
        throw SystemError("cannot enter " + AbsolutePath(directory), error.value());
    if (!isThere)
        throw MakeError(EError::cFailed,
                        "there is no directory {}; set --directory or VXSCHED_DIRECTORY to the "
                        "host's working directory",
                        AbsolutePath(directory));
    std::string bytes;
    {
        // The store mutex alone: a reader need not wait for a change of several calls, which holds
        // the writer lock throughout. Lock order: directory lock, writer lock, store mutex.
        const CStoreMutexLock lock(lockTimeout);
        bytes = ReadTableBytes(directory);
    }
    return DecodeTable(bytes, Now());
}

const TTaskEntry* TTable::Find(std::string_view name) const {
    const auto found = std::find_if(tasks.begin(), tasks.end(),
                                    [&](const TTaskEntry& task) { return task.name == name; });
    return found == tasks.end() ? nullptr : &*found;
}

}  // namespace vxsched
