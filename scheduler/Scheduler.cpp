// The scheduler, from the record to the entry points: the task list and its file, the next-run
// rule, the launcher, the tick, the exported functions, the add-in object, and the hooks of the
// library.

#include "scheduler/Scheduler.h"

#include <CEvent.h>
#include <COpen.h>
#include <CPopen.h>
#include <VXC_File.h>
#include <VXC_Information.h>
#include <VXC_Log.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <exception>
#include <ios>
#include <iterator>
#include <memory>

#include "scheduler/CSchedulerAddin.h"
#include "scheduler/TaskFields.h"
#include "sync/CMutex.h"

// The assertions of this file stay active in every build: hosts rely on a program that must not be
// started ending the process.
#undef NDEBUG
#include <cassert>

// ---- The process-wide objects
// -------------------------------------------------------------------------

// Created and deleted by the add-in object. The store mutex guards the list and the file; callers
// of every file-local function below hold it. After Lock() they go on whether or not it succeeded.
constinit std::list<TTask*>* gTaskList = nullptr;
static constinit CMutex* gMutex = nullptr;
static constinit CEvent* gTaskChangedEvent = nullptr;

// The thread that ran the latest tick, 0 until the first; written by the tick, read without a lock.
static constinit std::atomic<pthread_t> gSchedulerThread{0};

// The one add-in object, kept by the entry points.
static constinit CSchedulerAddin* gInstance = nullptr;

static constexpr char cAddInName[] = "libVantrixScheduler.so";
static constexpr char cMutexName[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";
static constexpr char cTaskChangedName[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";

// ---- The task list
// ------------------------------------------------------------------------------------

using TPosition = std::list<TTask*>::iterator;

// The first task of that name, or the list's end. A name that holds a zero byte is never found.
static TPosition FindTask(const char* name) {
    TPosition position = gTaskList->begin();
    while (position != gTaskList->end() && (*position)->name.compare(name) != 0)
        ++position;
    return position;
}

static void ClearTasks() {
    for (const TTask* task : *gTaskList)
        delete task;
    gTaskList->clear();
}

static void RemoveTask(const char* name) {
    const TPosition position = FindTask(name);
    if (position == gTaskList->end())
        return;
    delete *position;
    gTaskList->erase(position);
}

// ---- The task file
// ------------------------------------------------------------------------------------

namespace {

struct TFieldWriter {
    COpen& file;

    void operator()(const std::string& text) const { file.WriteString(text); }
    void operator()(const time_t& time) const { file.Write(&time, sizeof time); }
    void operator()(const std::uint32_t& value) const { file.WriteUnsigned(value); }
    void operator()(const std::int32_t& flag) const {
        file.WriteUnsigned(static_cast<std::uint32_t>(flag));
    }
};

struct TFieldReader {
    COpen& file;

    void operator()(std::string& text) const { file.ReadString(text); }
    void operator()(time_t& time) const { file.Read(&time, sizeof time); }
    void operator()(std::uint32_t& value) const { value = file.ReadUnsigned(); }
    void operator()(std::int32_t& flag) const {
        flag = static_cast<std::int32_t>(file.ReadUnsigned());
    }
};

}  // namespace

static void ReportLoss(const char* message) {
    VXC_LogMessage(message);
    VXC_SetInformation("TasksDeleted", 1);
}

// Writes the whole list in place. A file that cannot be opened is silently left alone; an
// error while writing empties the list as well, is logged and flagged, and the caller does not
// learn of it.
static void SaveTasks() {
    try {
        COpen file(cTaskFile, O_RDWR | O_CREAT | O_TRUNC, 0644);
        if (!file.IsValid()) {
            file.Close();
            return;
        }
        const std::uint64_t count = gTaskList->size();
        file.Write(&count, sizeof count);
        for (const TTask* task : *gTaskList)
            ForEachField(*task, TFieldWriter{file});
        file.Close();
    } catch (const std::exception&) {
        ClearTasks();
        ReportLoss(
            "An exception was generated while writing schedule tasks from file. "
            "All the programed tasks were lost.");
    }
}

// Reads the file into the list. True when the list is now exactly the file. A file that is missing
// or cannot be opened leaves the list as it was; one that cannot be read to its end is reset to an
// empty table, so that the next call does not fail on it again. Field values are not validated. The
// file is opened for writing too, so a process that may not change the table does not read it
// either.
static bool LoadTasks() {
    try {
        struct stat status {};
        if (stat(cTaskFile, &status) != 0)
            return false;
        COpen file(cTaskFile, O_RDWR, 0644);
        if (!file.IsValid()) {
            file.Close();
            return false;
        }
        ClearTasks();
        std::uint64_t count = 0;
        file.Read(&count, sizeof count);
        for (std::uint64_t index = 0; index < count; ++index) {
            auto task = std::make_unique<TTask>();
            ForEachField(*task, TFieldReader{file});
            gTaskList->push_back(task.get());
            static_cast<void>(task.release());
        }
        file.Close();
        return true;
    } catch (const std::exception&) {
        ClearTasks();
        SaveTasks();
        ReportLoss(
            "An exception was generated while reading schedule tasks from file. "
            "All the programed tasks were lost.");
        return false;
    }
}

// ---- The next-run rule
// --------------------------------------------------------------------------------

// Wraps at the ends of the range instead of being undefined.
static time_t AddWrapping(time_t time, std::uint64_t seconds) {
    return static_cast<time_t>(static_cast<std::uint64_t>(time) + seconds);
}

// Reschedules a due task to the first point of its grid that is not in the past. If the task runs
// once, removes the first task of its name from the list, which may be another task. Missed runs
// are not made up for. `task` may be deleted afterwards. `save` writes the file unless the task is
// not due.
static void SetNextTime(TTask* task, bool save) {
    // Not assert(): its message would hold the parameter's name and, with clang++, a blank in the
    // signature.
    if (task == nullptr)
        __assert_fail("Task", __FILE__, __LINE__, "void SetNextTime(TTask*, bool)");

    const time_t now = time(nullptr);
    if (now < task->nextExecution)
        return;
    if (task->period == 0) {
        RemoveTask(task->name.c_str());
    } else {
        // The product wraps at 2^32 on purpose: files hold such periods, and their grids depend on
        // it. A step of 0 makes the catch-up endless; read as volatile, so that no compiler may
        // assume that it ends.
        const volatile std::uint32_t step = task->period * 3600U;
        while (task->nextExecution < now)
            task->nextExecution = AddWrapping(task->nextExecution, step);
    }
    if (save)
        SaveTasks();
}

// ---- The program launcher
// -----------------------------------------------------------------------------

// Launches the task's program as a child process and waits two seconds. The child is never waited
// for again. A launch that fails is logged and takes no time.
static void Execute(TTask*& task) {
    char fileName[256];
    char extension[128] = "";
    VXC_File::VXC_StripPathUrl(task->program.c_str(), nullptr, fileName, extension);
    if (extension[0] != '\0' && std::strcmp(extension, ".exe") != 0)
        __assert_fail("false", __FILE__, __LINE__, "void Execute(TTask*&)");

    // Cuts off every trailing '.', 'e' and 'x', not the suffix ".exe", and does so in the task
    // itself: the file, and programs named accordingly, depend on the shortened path.
    std::string& program = task->program;
    program.erase(program.find_last_not_of(".exe") + 1);

    char* arguments[] = {program.data(), task->parameters.data(), nullptr};
    pid_t process = 0;
    if (posix_spawn(&process, program.c_str(), nullptr, nullptr, arguments, environ) != 0) {
        VXC_LogMessage("Not possible to execute program.");
        return;
    }
    // Checked once and at once, so the message is the usual one for a program that still runs.
    int status = 0;
    if (waitpid(process, &status, WNOHANG) != process)
        VXC_LogMessage("Failed waitpid.");
    sleep(2);
    if (task != nullptr)
        task->lastExecuted = time(nullptr);
}

// ---- The tick
// -----------------------------------------------------------------------------------------

namespace {

// Holds the store mutex for a scope. The release asks the mutex whether it is locked, and that
// stays true after a release: what was released early inside the scope is released once more at its
// end.
class CStoreLock {
public:
    CStoreLock() { gMutex->Lock(); }
    ~CStoreLock() {
        if (gMutex->isLocked())
            gMutex->Unlock();
    }
    CStoreLock(const CStoreLock&) = delete;
    CStoreLock& operator=(const CStoreLock&) = delete;
};

}  // namespace

static std::int32_t CountTasks() {
    return static_cast<std::int32_t>(std::distance(gTaskList->begin(), gTaskList->end()));
}

void CSchedulerAddin::OnTick() {
    const CStoreLock lock;
    gSchedulerThread.store(pthread_self(), std::memory_order_relaxed);
    if (gTaskChangedEvent->Wait(0) != 0) {
        LoadTasks();
        gTaskChangedEvent->ResetEvent();
    }
    // One reading for the whole tick: the time that launches take makes no further task due.
    const time_t now = time(nullptr);
    bool changed = false;
    for (TPosition position = gTaskList->begin(); position != gTaskList->end(); ++position) {
        TTask* task = *position;
        if (task->paused != 0 || now < task->nextExecution)
            continue;
        const std::int32_t count = CountTasks();
        Execute(task);
        if (task != nullptr)
            SetNextTime(task, false);
        changed = true;
        // The position may be invalid: back to the first task, and on from there at once. So the
        // first task is skipped in the rest of this tick; hosts see it run at the next one.
        if (gTaskChangedEvent->Wait(0) != 0 || CountTasks() != count) {
            position = gTaskList->begin();
            if (position == gTaskList->end())
                break;
        }
    }
    if (changed)
        SaveTasks();
}

// ---- The exported functions: queries
// ------------------------------------------------------------------

// Brings the list up to date with the file, unless the caller is the scheduling thread, whose list
// is the current one. False when the file could not be read.
static bool ReloadTasks() {
    const pthread_t scheduler = gSchedulerThread.load(std::memory_order_relaxed);
    return pthread_self() == scheduler || LoadTasks();
}

// The task of that name in the reloaded list; null when the reload failed or there is none.
static TTask* ReloadAndFind(const char* name) {
    if (!ReloadTasks())
        return nullptr;
    const TPosition position = FindTask(name);
    return position == gTaskList->end() ? nullptr : *position;
}

bool IsScheduled(const char* name) {
    const CStoreLock lock;
    return ReloadAndFind(name) != nullptr;
}

void GetNextExecution(const char* name, long* next) {
    const CStoreLock lock;
    if (const TTask* task = ReloadAndFind(name))
        *next = task->nextExecution;
}

void GetLastExecuted(const char* name, long* last) {
    const CStoreLock lock;
    if (const TTask* task = ReloadAndFind(name))
        *last = task->lastExecuted;
}

bool GetTaskPeriod(const char* name, unsigned int* period) {
    const CStoreLock lock;
    const TTask* task = ReloadAndFind(name);
    *period = task != nullptr ? task->period : 0;
    return task != nullptr;
}

bool IsTaskRunning(const char* name) {
    const CStoreLock lock;
    const TTask* task = ReloadAndFind(name);
    if (task == nullptr)
        return false;
    const std::string program = task->program;
    // The probe runs without the mutex. The end of the scope releases it a second time: clients
    // count on the value that this leaves.
    gMutex->Unlock();
    const std::string command = "ps -e | grep " + program;
    CPopen pipe(command.c_str(), "r");
    char output[1024];
    pipe.Read(output, sizeof output);
    const bool running = std::strstr(output, program.c_str()) != nullptr;
    pipe.Close();
    return running;
}

// ---- The exported functions: changes
// ------------------------------------------------------------------

// After every change, and for an unknown name as well: the table as this process has it becomes the
// file, and the scheduling process reads it at its next tick.
static void SaveAndSignal() {
    SaveTasks();
    gTaskChangedEvent->SetEvent();
}

void CreateTask(const char* name, const long* start, unsigned int period, const char* program,
                const char* parameters) {
    const CStoreLock lock;
    ReloadTasks();  // the one function that goes on when this failed, with the list as it is
    const TPosition position = FindTask(name);
    std::unique_ptr<TTask> created;
    if (position == gTaskList->end())
        created = std::make_unique<TTask>();
    TTask* const task = created ? created.get() : *position;

    task->name = name != nullptr ? name : "";
    task->nextExecution = *start;
    task->period = period;
    task->program = program != nullptr ? program : "";
    task->parameters = parameters != nullptr ? parameters : "";
    task->paused = 0;
    // A new task is not in the list yet, so the rule cannot remove it: one that runs once and whose
    // time has passed runs at the next tick. An existing one is removed here.
    SetNextTime(task, false);
    if (created) {
        gTaskList->push_back(created.get());
        static_cast<void>(created.release());
    }
    SaveAndSignal();
}

void DestroyTask(const char* name) {
    const CStoreLock lock;
    if (!ReloadTasks())
        return;
    RemoveTask(name);
    SaveAndSignal();
}

void PauseTask(const char* name) {
    const CStoreLock lock;
    if (!ReloadTasks())
        return;
    const TPosition position = FindTask(name);
    if (position != gTaskList->end())
        (*position)->paused = 1;
    SaveAndSignal();
}

void ResumeTask(const char* name) {
    const CStoreLock lock;
    if (!ReloadTasks())
        return;
    const TPosition position = FindTask(name);
    if (position != gTaskList->end()) {
        (*position)->paused = 0;
        SetNextTime(*position, false);
    }
    SaveAndSignal();
}

// The period in seconds, by way of the calendar: the hours of the period, counted from the first
// day of 1970 in local standard time, with the zone's own offset put into minutes and seconds.
static time_t SecondsOfPeriod(std::uint32_t period) {
    tm record{};
    record.tm_year = 70;
    record.tm_mday = 1;
    // From 2^31 hours on this is negative, and the grid moves the other way.
    record.tm_hour = static_cast<int>(period);
    const time_t wanted = static_cast<time_t>(record.tm_hour) * 3600;
    // The error of mktime is the zone's offset; once more where the offset changed in between. An
    // hour that a zone skipped or had twice can be expressed in one kind of time and not in
    // another.
    for (const int daylightSaving : {0, 1, -1}) {
        record.tm_isdst = daylightSaving;
        time_t offset = 0;
        for (int round = 0; round < 3; ++round) {
            // Whole minutes go into the minutes: mktime adds seconds beyond a minute only after
            // its conversion.
            tm local = record;
            local.tm_min = static_cast<int>(offset / 60);
            local.tm_sec = static_cast<int>(offset % 60);
            const time_t converted = mktime(&local);
            if (converted == wanted)
                return converted;
            if (converted == -1)
                break;
            offset += wanted - converted;
        }
    }
    return mktime(&record);
}

bool SetTaskPeriod(const char* name, unsigned int period) {
    const CStoreLock lock;
    if (!ReloadTasks())
        return false;
    const TPosition position = FindTask(name);
    const bool found = position != gTaskList->end();
    if (found) {
        TTask* const task = *position;
        const time_t oldPeriod = SecondsOfPeriod(task->period);
        task->nextExecution =
            AddWrapping(task->nextExecution, -static_cast<std::uint64_t>(oldPeriod));
        task->period = period;
        SetNextTime(task, false);
    }
    SaveAndSignal();
    return found;
}

void ExecuteTaskNow(const char* name, bool force) {
    if (!force && IsTaskRunning(name))
        return;
    const CStoreLock lock;
    if (!ReloadTasks())
        return;
    const TPosition position = FindTask(name);
    if (position == gTaskList->end())
        return;
    Execute(*position);
    // Neither signalled nor rescheduled: the scheduler still runs the task when it is due.
    SaveTasks();
}

// ---- The add-in object
// --------------------------------------------------------------------------------

CSchedulerAddin::CSchedulerAddin() : CAddInInterface(cAddInName) {
    gTaskList = new std::list<TTask*>;
    gMutex = new CMutex(cMutexName);
    gTaskChangedEvent = new CEvent(cTaskChangedName, true);

    gMutex->Lock();
    LoadTasks();
    for (TPosition position = gTaskList->begin(); position != gTaskList->end();) {
        TTask* const task = *position;
        ++position;  // before the rule, which may remove the task
        SetNextTime(task, false);
    }
    SaveTasks();
    gMutex->Unlock();
}

CSchedulerAddin::~CSchedulerAddin() {
    if (gTaskList != nullptr) {
        ClearTasks();
        delete gTaskList;
        gTaskList = nullptr;
    }
    if (gTaskChangedEvent != nullptr) {
        delete gTaskChangedEvent;
        gTaskChangedEvent = nullptr;
    }
    if (gMutex != nullptr) {
        delete gMutex;
        gMutex = nullptr;
    }
}

void CSchedulerAddin::Run() {
    while (!stopRequested.load(std::memory_order_relaxed)) {
        gInstance->OnTick();
        if (stopEvent != nullptr)
            stopEvent->WaitSignalOrTimeout(60);
    }
}

// It only writes this message; to hosts it indicates that they called Load().
void CSchedulerAddin::Load() {
    if (gInstance != nullptr)
        VXC_LogMessage("Failed to start up thread in Scheduler AddIn.");
}

void CSchedulerAddin::Unload() {
    gMutex->Lock();
    ClearTasks();
    gMutex->Unlock();
}

bool CSchedulerAddin::isLoad() {
    return gInstance != nullptr;
}

// ---- The entry points
// ---------------------------------------------------------------------------------

static void ConstructInstance() {
    if (gInstance == nullptr)
        gInstance = new CSchedulerAddin;
}

VANTRIX_SCHEDULER_EXPORT CAddInInterface* CreateAddIn() {
    ConstructInstance();
    return gInstance;
}

VANTRIX_SCHEDULER_EXPORT void DestroyAddIn(CAddInInterface* addIn) {
    const bool registered = addIn == gInstance;
    delete addIn;
    if (registered)
        gInstance = nullptr;
}

void SharedLibraryConstructor() {
    ConstructInstance();
}

void SharedLibraryDestructor() {
    if (gInstance != nullptr) {
        delete gInstance;
        gInstance = nullptr;
    }
}

// The library's one load-time initialiser. Every process that loads the library builds the add-in
// with it, and an exception of the construction passes on to the loader.
[[gnu::constructor]] static void OnLibraryLoad() {
    // The standard streams, before anything may use them. Static, because the destructor flushes
    // what a host in C has buffered: it runs at the unload, after the finaliser below, or at the
    // exit, and not at each load. At namespace scope it would be a second initialiser.
    static const std::ios_base::Init streams;
    SharedLibraryConstructor();
}

// The library's one unload-time finaliser, run by dlclose and at the exit of the process.
[[gnu::destructor]] static void OnLibraryUnload() {
    SharedLibraryDestructor();
}
