#include "CWorld.h"

#include <StoreSemaphore.h>
#include <VXC_Information.h>
#include <VXC_Log.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <scheduler/Scheduler.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>

static CWorld* gWorld = nullptr;
static std::shared_ptr<CAddinLibrary> gKeptLibrary;

static constexpr char cDirectory[] = "files";
static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr pid_t cBeforeFirstProcess = 400'000;  // as CFakeSystem numbers them

static void Require(bool condition, const char* what) {
    if (condition)
        return;
    std::perror(what);
    std::abort();
}

// ---- The file -----------------------------------------------------------------------------------

static void PutBytes(const std::string& bytes) {
    mkdir(cDirectory, 0755);
    rmdir(cTable);
    const int file = open(cTable, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Require(file != -1, cTable);
    Require(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), cTable);
    close(file);
}

static TPlace LookAtPlace() {
    const int file = open(cTable, O_RDONLY | O_CLOEXEC);
    if (file == -1)
        return {access(cDirectory, F_OK) == 0 ? TPlace::cNothing : TPlace::cNoDirectory, {}};
    struct stat status {};
    fstat(file, &status);
    TPlace place{S_ISDIR(status.st_mode) ? TPlace::cDirectory : TPlace::cFile, {}};
    if (place.kind == TPlace::cFile) {
        place.bytes.resize(static_cast<std::size_t>(status.st_size));
        Require(read(file, place.bytes.data(), place.bytes.size()) == status.st_size, cTable);
    }
    close(file);
    return place;
}

void CWorld::PutTable(const TRows& rows, const std::string& trailing) {
    PutBytes(BytesOf(rows) + trailing);
}

void CWorld::PutDamaged(const std::string& bytes) {
    PutBytes(bytes);
}

void CWorld::PutOther(TPlace::TKind kind) {
    unlink(cTable);
    rmdir(cTable);
    if (kind == TPlace::cNoDirectory) {
        rmdir(cDirectory);
        return;
    }
    mkdir(cDirectory, 0755);
    if (kind == TPlace::cDirectory)
        mkdir(cTable, 0755);
}

void CWorld::CutFile(std::size_t bytes) {
    struct stat status {};
    if (stat(cTable, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    const off_t left = status.st_size - static_cast<off_t>(bytes);
    Require(truncate(cTable, std::max<off_t>(left, 0)) == 0, cTable);
}

// ---- The library --------------------------------------------------------------------------------

CWorld::CWorld() : changed(cTaskChanged, true) {
    gWorld = this;
    PutOther(TPlace::cNoDirectory);
    std::signal(SIGXFSZ, SIG_IGN);
    system.onLaunch = [this](const CFakeSystem::TLaunch& launch) { OnLaunch(launch); };
    system.onSleep = [this] { OnSleep(); };
    VXC_SetLogSink(OnLog, this);
    VXC_SetInformationListener(OnInformation, this);
}

CWorld::~CWorld() {
    logFails = false;
    UnloadLibrary();
    VXC_SetInformationListener(nullptr, nullptr);
    VXC_SetLogSink(nullptr, nullptr);
    PutOther(TPlace::cNoDirectory);
    gWorld = nullptr;
}

void CWorld::KeepLibrary() {
    gKeptLibrary = std::make_shared<CAddinLibrary>();
    gKeptLibrary->SharedLibraryDestructor();
}

void CWorld::LoadLibrary() {
    if (gKeptLibrary) {
        library = gKeptLibrary;
        library->SharedLibraryConstructor();
    } else {
        library = std::make_shared<CAddinLibrary>();
    }
}

void CWorld::UnloadLibrary() {
    if (!library)
        return;
    if (gKeptLibrary) {
        ForgetSchedulingThread();
        library->SharedLibraryDestructor();
    }
    library.reset();
}

// A tick over an empty list only records its thread as the scheduling one.
void CWorld::ForgetSchedulingThread() {
    static CSecondThread idle;
    const bool signalled = changed.Wait(0) != 0;
    changed.ResetEvent();
    library->AddIn().Unload();
    idle.Run([this] { library->Tick(); });
    SetSignalled(signalled);
}

// The limit applies to the library alone, not to the test's own files.
void CWorld::WithRoom(const std::function<void()>& work) {
    if (!room) {
        work();
        return;
    }
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit limited{*room, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limited);
    try {
        work();
    } catch (...) {
        setrlimit(RLIMIT_FSIZE, &before);
        throw;
    }
    setrlimit(RLIMIT_FSIZE, &before);
}

void CWorld::InCall(const std::function<void()>& work) {
    if (onSecond)
        WithRoom([&] { second.Run(work); });
    else
        WithRoom(work);
}

void CWorld::Reload() {
    const bool failing = std::exchange(logFails, false);
    UnloadLibrary();
    WithRoom([this] { LoadLibrary(); });
    logFails = failing;
}

void CWorld::Rebuild() {
    const bool failing = std::exchange(logFails, false);
    library->DestroyAddIn(library->CreateAddIn());
    WithRoom([this] { library->CreateAddIn(); });
    logFails = failing;
}

void CWorld::Tick() {
    InCall([this] { library->Tick(); });
}

void CWorld::Load() {
    InCall([this] { library->AddIn().Load(); });
}

void CWorld::Unload() {
    InCall([this] { library->AddIn().Unload(); });
}

bool CWorld::IsLoad() {
    bool result = false;
    InCall([&] {
        library->SharedLibraryConstructor();
        library->DestroyAddIn(nullptr);
        result = library->AddIn().isLoad();
    });
    return result;
}

bool CWorld::IsScheduled(const char* name) {
    bool result = false;
    InCall([&] { result = library->IsScheduled(name); });
    return result;
}

bool CWorld::IsTaskRunning(const char* name) {
    bool result = false;
    InCall([&] { result = library->IsTaskRunning(name); });
    return result;
}

void CWorld::GetNextExecution(const char* name, long* next) {
    InCall([&] { library->GetNextExecution(name, next); });
}

void CWorld::GetLastExecuted(const char* name, long* last) {
    InCall([&] { library->GetLastExecuted(name, last); });
}

bool CWorld::GetTaskPeriod(const char* name, unsigned int* period) {
    bool result = false;
    InCall([&] { result = library->GetTaskPeriod(name, period); });
    return result;
}

void CWorld::CreateTask(const char* name, long due, unsigned int period, const char* program,
                        const char* parameters) {
    InCall([&] { library->CreateTask(name, &due, period, program, parameters); });
}

void CWorld::DestroyTask(const char* name) {
    InCall([&] { library->DestroyTask(name); });
}

void CWorld::PauseTask(const char* name) {
    InCall([&] { library->PauseTask(name); });
}

void CWorld::ResumeTask(const char* name) {
    InCall([&] { library->ResumeTask(name); });
}

bool CWorld::SetTaskPeriod(const char* name, unsigned int period) {
    bool result = false;
    InCall([&] { result = library->SetTaskPeriod(name, period); });
    return result;
}

void CWorld::ExecuteTaskNow(const char* name, bool force) {
    InCall([&] { library->ExecuteTaskNow(name, force); });
}

// ---- The environment ----------------------------------------------------------------------------

void CWorld::SetClock(time_t time) {
    system.now = time;
}

void CWorld::UseThread(bool useSecond) {
    onSecond = useSecond;
}

void CWorld::SetSignalled(bool signalled) {
    if (signalled)
        changed.SetEvent();
    else
        changed.ResetEvent();
}

void CWorld::SetRoom(std::optional<std::size_t> bytes) {
    room = bytes;
}

void CWorld::SetLaunches(const std::vector<TLaunchOutcome>& launchOutcomes) {
    outcomes = launchOutcomes;
    launchCount = 0;
}

void CWorld::SetListing(const std::optional<std::string>& output) {
    listing = output;
}

void CWorld::SetLogFails(bool fails) {
    logFails = fails;
}

void CWorld::RemoveSemaphore() {
    semctl(semget(cStoreKey, 1, 0), 0, IPC_RMID);
}

void CWorld::LoadElsewhere() {
    Require(semctl(semget(cStoreKey, 1, IPC_CREAT | 0660), 0, SETVAL, 1) == 0, "semaphore");
}

TSight CWorld::Observe() {
    NoteWaits();
    TSight sight;
    sight.place = LookAtPlace();
    for (const TTask* task : *library->TaskList())
        sight.list.push_back({task->name, task->nextExecution, task->lastExecuted, task->period,
                              task->program, task->parameters,
                              static_cast<std::uint32_t>(task->paused)});
    sight.happened = std::exchange(happened, {});
    sight.signalled = changed.Wait(0) != 0;
    sight.semaphore = StoreSemaphoreValue();
    sight.clock = system.now;
    return sight;
}

// ---- What happens -------------------------------------------------------------------------------

void CWorld::OnLaunch(const CFakeSystem::TLaunch& launch) {
    const TLaunchOutcome how = outcomes[launchCount++ % outcomes.size()];
    happened.push_back(Started(launch.path, launch.arguments, StoreSemaphoreValue()));
    if (!launch.plain)
        happened.emplace_back("it was not a plain launch");
    if (how.signals)
        changed.SetEvent();
    if (how.deletes)
        unlink(cTable);
    if (how.loads)
        LoadElsewhere();
    system.launchResult = how.fails ? ENOENT : 0;
    system.ended = how.ended;
}

void CWorld::NoteWaits() {
    for (; notedWaits < system.waits.size(); ++notedWaits) {
        const pid_t last = cBeforeFirstProcess + static_cast<pid_t>(system.launches.size());
        const pid_t process = system.waits[notedWaits];
        happened.push_back(process == last ? cWaitedForChild
                                           : "waited for " + std::to_string(process));
    }
}

void CWorld::OnSleep() {
    NoteWaits();
    happened.push_back(Slept(system.sleeps.back(), StoreSemaphoreValue()));
}

void CWorld::OnLog(const std::string& line, void* world) {
    CWorld& self = *static_cast<CWorld*>(world);
    self.NoteWaits();
    self.happened.push_back(Logged(line));
    if (self.logFails)
        throw TLogFailure();
}

void CWorld::OnInformation(const std::string& flag, int value, void* world) {
    static_cast<CWorld*>(world)->happened.push_back(FlagSet(flag, value));
}

std::FILE* CWorld::OpenProbe(const std::string& command, const std::string& mode) {
    // After the first letter the support library asks for a pipe that no child inherits.
    happened.push_back(Probed(command, mode.substr(0, 1), StoreSemaphoreValue()));
    if (!listing)
        return nullptr;
    int ends[2] = {-1, -1};
    Require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
    const std::string& output = *listing;
    Require(write(ends[1], output.data(), output.size()) == static_cast<ssize_t>(output.size()),
            "pipe");
    close(ends[1]);
    return fdopen(ends[0], "r");
}

int CWorld::CloseProbe(std::FILE* pipe) {
    happened.emplace_back(cProbeClosed);
    return std::fclose(pipe);
}

// ---- Interposed: the dynamic linker finds these before libc's -----------------------------------

// Called by the support library for the library's probe, on the thread of the call. While a world
// exists they open and close a fake pipe; otherwise they do what libc does.

extern "C" std::FILE* popen(const char* command, const char* mode) {
    if (gWorld != nullptr)
        return gWorld->OpenProbe(command, mode);
    return reinterpret_cast<decltype(&popen)>(dlsym(RTLD_NEXT, "popen"))(command, mode);
}

extern "C" int pclose(std::FILE* pipe) {
    if (gWorld != nullptr)
        return gWorld->CloseProbe(pipe);
    return reinterpret_cast<decltype(&pclose)>(dlsym(RTLD_NEXT, "pclose"))(pipe);
}
