#include "CModel.h"

#include <LogCapture.h>

#include <algorithm>
#include <cstdint>
#include <utility>

// The library's catch-up advances one period at a time, and a launch that fails and is signalled in
// the very second it is due is repeated: beyond these numbers an operation counts as endless.
static constexpr std::uint64_t cMostSteps = 10'000;
static constexpr std::size_t cMostHappenings = 200;

static constexpr std::size_t cProbeCapacity = 1023;  // without the terminating zero

// The part of a string that a C string function sees.
static std::string Terminated(const std::string& value) {
    return value.substr(0, value.find('\0'));
}

static std::string StringOrEmpty(const char* value) {
    return value == nullptr ? std::string() : value;
}

// ---- The store: mutex, list, file ---------------------------------------------------------------

// Holds the store mutex to the end of the scope, also when an exception leaves it.
class CModel::CHold {
public:
    explicit CHold(CModel& held) : model(held) { Add(-1); }
    ~CHold() { Add(1); }
    CHold(const CHold&) = delete;
    CHold& operator=(const CHold&) = delete;

    void ReleaseEarly() { Add(1); }  // the destructor releases once more

private:
    void Add(int count) {
        if (model.attached)
            model.semaphore += count;
    }
    CModel& model;
};

CModel::TPosition CModel::Find(const char* name) {
    if (list.empty())
        return list.end();
    if (name == nullptr)
        throw TForbidden();
    return std::ranges::find(list, std::string(name), &TRow::name);
}

bool CModel::ReadTable() {
    if (place != TPlace::cFile)
        return false;
    if (!damaged) {
        list = table;
        return true;
    }
    list.clear();
    WriteTable();
    Log(cReadingFailed);
    happened.push_back(FlagSet("TasksDeleted", 1));
    return false;
}

bool CModel::BringUpToDate() {
    return thread == schedulingThread || ReadTable();
}

void CModel::WriteTable() {
    if (place == TPlace::cNoDirectory || place == TPlace::cDirectory)
        return;
    const std::string bytes = BytesOf(list);
    if (!room || bytes.size() <= *room) {
        PutTable(list, "");
        return;
    }
    PutDamaged(bytes.substr(0, *room));
    list.clear();
    Log(cWritingFailed);
    happened.push_back(FlagSet("TasksDeleted", 1));
}

void CModel::WriteAndSignal() {
    WriteTable();
    signalled = true;
}

void CModel::Log(const std::string& line) {
    happened.push_back(Logged(line));
    if (logFails)
        throw TLogFailure();
}

// ---- The schedule -------------------------------------------------------------------------------

// Returns the position of the task that it removed, if any: not always the position of `task`.
std::optional<std::size_t> CModel::Reschedule(TRow& task) {
    if (clock < task.next)
        return {};
    if (task.period == 0) {
        const TPosition first = Find(task.name.c_str());
        if (first == list.end())
            return {};
        const auto position = static_cast<std::size_t>(first - list.begin());
        list.erase(first);
        return position;
    }
    const std::uint64_t late =
        static_cast<std::uint64_t>(clock) - static_cast<std::uint64_t>(task.next);
    if (late == 0)
        return {};
    const std::uint32_t step = task.period * 3600U;
    if (step == 0 || late / step >= cMostSteps)
        throw TForbidden();
    const std::uint64_t steps = (late + step - 1) / step;
    task.next = static_cast<std::int64_t>(static_cast<std::uint64_t>(task.next) + steps * step);
    return {};
}

static bool HasOtherExtension(const std::string& path) {
    const std::string name = path.substr(path.find_last_of("/\\") + 1);
    const std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || dot + 1 == name.size())
        return false;
    return name.substr(dot) != ".exe";
}

void CModel::Launch(TRow& task) {
    if (HasOtherExtension(Terminated(task.program)) || happened.size() > cMostHappenings)
        throw TForbidden();
    while (!task.program.empty() &&
           std::string(".exe").find(task.program.back()) != std::string::npos)
        task.program.pop_back();
    const TLaunchOutcome how = outcomes[launchCount++ % outcomes.size()];
    const std::string path = Terminated(task.program);
    happened.push_back(Started(path, {path, Terminated(task.parameters)}, semaphore));
    if (how.signals)
        signalled = true;
    if (how.deletes && place == TPlace::cFile)
        PutOther(TPlace::cNothing);
    if (how.loads)
        LoadElsewhere();
    if (how.fails) {
        Log(cLaunchFailed);
        return;
    }
    happened.emplace_back(cWaitedForChild);
    if (!how.ended)
        Log(cStillRunning);
    happened.push_back(Slept(2, semaphore));
    clock += 2;
    task.last = clock;
}

void CModel::Tick() {
    const CHold hold(*this);
    schedulingThread = thread;
    if (signalled) {
        ReadTable();
        signalled = false;
    }
    const time_t now = clock;
    bool changed = false;
    for (std::size_t position = 0; position < list.size(); ++position) {
        if (list[position].paused != 0 || now < list[position].next)
            continue;
        const std::size_t count = list.size();
        Launch(list[position]);
        Reschedule(list[position]);
        changed = true;
        // Back to the first task, which the step to the next one then skips.
        if (signalled || list.size() != count)
            position = 0;
    }
    if (changed)
        WriteTable();
}

void CModel::StartUp() {
    const bool failing = std::exchange(logFails, false);
    semaphore = 1;
    attached = true;
    list.clear();
    ReadTable();
    for (std::size_t position = 0; position < list.size();) {
        const std::optional<std::size_t> removed = Reschedule(list[position]);
        // The walk holds its next position already: the removal of that task would invalidate it.
        if (removed == position + 1)
            throw TForbidden();
        if (!removed || *removed > position)
            ++position;
    }
    WriteTable();
    logFails = failing;
}

void CModel::Reload() {
    schedulingThread = cNone;
    StartUp();
}

void CModel::Rebuild() {
    StartUp();
}

void CModel::Load() {
    Log(cLoadCalled);
}

void CModel::Unload() {
    const CHold hold(*this);
    list.clear();
}

bool CModel::IsLoad() {
    return true;
}

// ---- The exported functions ---------------------------------------------------------------------

bool CModel::IsScheduled(const char* name) {
    const CHold hold(*this);
    return BringUpToDate() && Find(name) != list.end();
}

bool CModel::IsTaskRunning(const char* name) {
    CHold hold(*this);
    if (!BringUpToDate())
        return false;
    const TPosition task = Find(name);
    if (task == list.end())
        return false;
    const std::string program = Terminated(task->program);
    hold.ReleaseEarly();
    happened.push_back(Probed("ps -e | grep " + program, "r", semaphore));
    if (listing)
        happened.emplace_back(cProbeClosed);
    const std::string seen = Terminated(listing.value_or("").substr(0, cProbeCapacity));
    return seen.find(program) != std::string::npos;
}

void CModel::GetNextExecution(const char* name, long* next) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task != list.end())
        *next = task->next;
}

void CModel::GetLastExecuted(const char* name, long* last) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task != list.end())
        *last = task->last;
}

bool CModel::GetTaskPeriod(const char* name, unsigned int* period) {
    const CHold hold(*this);
    *period = 0;
    if (!BringUpToDate())
        return false;
    const TPosition task = Find(name);
    if (task == list.end())
        return false;
    *period = task->period;
    return true;
}

void CModel::CreateTask(const char* name, long due, unsigned int period, const char* program,
                        const char* parameters) {
    const CHold hold(*this);
    BringUpToDate();
    const TPosition found = Find(name);
    const bool isNew = found == list.end();
    TRow fresh;
    TRow& task = isNew ? fresh : *found;
    task.name = StringOrEmpty(name);
    task.next = due;
    task.period = period;
    task.program = StringOrEmpty(program);
    task.parameters = StringOrEmpty(parameters);
    task.paused = 0;
    Reschedule(task);
    if (isNew)
        list.push_back(fresh);
    WriteAndSignal();
}

void CModel::DestroyTask(const char* name) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task != list.end())
        list.erase(task);
    WriteAndSignal();
}

void CModel::PauseTask(const char* name) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task != list.end())
        task->paused = 1;
    WriteAndSignal();
}

void CModel::ResumeTask(const char* name) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task != list.end()) {
        task->paused = 0;
        Reschedule(*task);
    }
    WriteAndSignal();
}

bool CModel::SetTaskPeriod(const char* name, unsigned int period) {
    const CHold hold(*this);
    if (!BringUpToDate())
        return false;
    const TPosition task = Find(name);
    const bool found = task != list.end();
    if (found) {
        // The hours of a calendar's record are a signed number.
        const std::int64_t old = std::int64_t{static_cast<std::int32_t>(task->period)} * 3600;
        task->next = static_cast<std::int64_t>(static_cast<std::uint64_t>(task->next) -
                                               static_cast<std::uint64_t>(old));
        task->period = period;
        Reschedule(*task);
    }
    WriteAndSignal();
    return found;
}

void CModel::ExecuteTaskNow(const char* name, bool force) {
    if (!force && IsTaskRunning(name))
        return;
    const CHold hold(*this);
    if (!BringUpToDate())
        return;
    const TPosition task = Find(name);
    if (task == list.end())
        return;
    Launch(*task);
    WriteTable();
}

// ---- The environment ----------------------------------------------------------------------------

void CModel::SetClock(time_t time) {
    clock = time;
}

void CModel::UseThread(bool second) {
    thread = second ? cSecond : cFirst;
}

void CModel::SetSignalled(bool signal) {
    signalled = signal;
}

void CModel::PutTable(const TRows& rows, const std::string& following) {
    PutOther(TPlace::cFile);
    table = rows;
    trailing = following;
}

void CModel::PutDamaged(const std::string& bytes) {
    PutOther(TPlace::cFile);
    damaged = true;
    damage = bytes;
}

void CModel::PutOther(TPlace::TKind kind) {
    place = kind;
    table.clear();
    damaged = false;
}

void CModel::CutFile(std::size_t bytes) {
    if (place != TPlace::cFile || bytes == 0)
        return;
    if (!damaged && bytes <= trailing.size()) {
        trailing.resize(trailing.size() - bytes);
        return;
    }
    std::string all = damaged ? damage : BytesOf(table) + trailing;
    all.resize(all.size() - std::min(bytes, all.size()));
    PutDamaged(all);
}

void CModel::SetRoom(std::optional<std::size_t> bytes) {
    room = bytes;
}

void CModel::SetLaunches(const std::vector<TLaunchOutcome>& launchOutcomes) {
    outcomes = launchOutcomes;
    launchCount = 0;
}

void CModel::SetListing(const std::optional<std::string>& output) {
    listing = output;
}

void CModel::SetLogFails(bool fails) {
    logFails = fails;
}

void CModel::RemoveSemaphore() {
    semaphore = -1;
    attached = false;
}

void CModel::LoadElsewhere() {
    semaphore = 1;
}

TSight CModel::Observe() {
    TSight sight;
    sight.place.kind = place;
    if (place == TPlace::cFile)
        sight.place.bytes = damaged ? damage : BytesOf(table) + trailing;
    sight.list = list;
    sight.happened = std::exchange(happened, {});
    sight.signalled = signalled;
    sight.semaphore = semaphore;
    sight.clock = clock;
    return sight;
}
