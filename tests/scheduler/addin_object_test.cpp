// The add-in object: loading, the host's calls, unloading.

#include <CEvent.h>
#include <VXC_Log.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <scheduler/CSchedulerAddin.h>
#include <scheduler/Scheduler.h>
#include <sync/CMutex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "LogCapture.h"
#include "Process.h"
#include "ProgramTask.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cMutex[] = "Global\\1D1F6415-69BD-4438-B706-07D710576930";
static constexpr char cStopEvent[] = "libVantrixScheduler.so";
static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";
static constexpr time_t cNow = 1'000'000;

// ---- Loading ----------------------------------------------------------------------------------

TEST(AddInLoad, BuildsTheAddInBeforeAnyCall) {
    WriteTable({});
    const CInsideLibrary inside;
    EXPECT_NE(inside.Instance(), nullptr);
    EXPECT_NE(inside.TaskList(), nullptr);
    EXPECT_NE(inside.Mutex(), nullptr);
    EXPECT_NE(inside.TaskChangedEvent(), nullptr);
    EXPECT_EQ(inside.SchedulerThread(), 0U);
    EXPECT_EQ(inside.CreateAddIn(), inside.Instance());
}

TEST(AddInLoad, RemovesTasksThatRunOnceAndAreDueWithoutRunningThem) {
    CFakeSystem system(cNow);
    WriteTable({Task("past", cNow - 1, 0), Task("now", cNow, 0), Task("future", cNow + 1, 0)});
    const CAddinLibrary library;
    EXPECT_EQ(NamesInTable(), "future");
    EXPECT_TRUE(system.launches.empty());
}

TEST(AddInLoad, RemovesNeighboursOneAfterTheOther) {
    CFakeSystem system(cNow);
    WriteTable({Task("a", 1, 0), Task("b", 2, 0), Task("c", 3, 0), Task("keep", cNow + 1, 0),
                Task("d", 4, 0)});
    const CAddinLibrary library;
    EXPECT_EQ(NamesInTable(), "keep");
}

TEST(AddInLoad, OfTwoDueTasksOfANameBothGo) {
    CFakeSystem system(cNow);
    WriteTable({Task("same", 1, 0), Task("same", 2, 0)});
    const CAddinLibrary library;
    EXPECT_EQ(NamesInTable(), "");
}

TEST(AddInLoad, ReschedulesRepeatingTasksWithoutRunningThem) {
    CFakeSystem system(cNow);
    WriteTable({Task("late", cNow - 10, 1), Task("now", cNow, 1), Task("future", cNow + 10, 1)});
    const CAddinLibrary library;
    const TRows rows = ReadTable();
    EXPECT_EQ(rows.at(0).next, cNow - 10 + 3600);
    EXPECT_EQ(rows.at(1).next, cNow);
    EXPECT_EQ(rows.at(2).next, cNow + 10);
    EXPECT_TRUE(system.launches.empty());
}

TEST(AddInLoad, WritesTheFileBackAndLeavesTheMutexFree) {
    WriteTable({});
    std::filesystem::remove(cTable);
    const CAddinLibrary library;
    EXPECT_EQ(ReadFile(cTable), std::string(8, '\0'));
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(AddInLoad, WithoutTheDirectoryNothingIsCreated) {
    CLogCapture log;
    const CAddinLibrary library;
    EXPECT_FALSE(std::filesystem::exists("files"));
    EXPECT_FALSE(library.IsScheduled("a"));
    EXPECT_TRUE(log.Take().empty());
}

TEST(AddInLoad, DoesNotSignalTheTaskChangedEvent) {
    WriteTable({Task("past", 1, 0)});
    CEvent changed(cTaskChanged, true);
    const CAddinLibrary library;
    EXPECT_EQ(changed.Wait(0), 0);
}

TEST(AddInLoad, SetsTheMutexFreeUnderAHolder) {
    WriteTable({});
    CMutex mutex(cMutex);
    mutex.Lock();
    const CAddinLibrary library;
    // Set to 1, taken and released by the load; the holder has not released it yet.
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    mutex.Unlock();
    EXPECT_EQ(StoreSemaphoreValue(), 2);
}

TEST(AddInLoad, HoldsTheMutexThroughout) {
    CFakeSystem system(cNow);
    std::filesystem::create_directory("files");
    WriteFile(cTable, "damaged");
    static int value = -1;
    VXC_SetLogSink([](const std::string&, void*) { value = StoreSemaphoreValue(); }, nullptr);
    const CAddinLibrary library;
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(AddInLoad, NeitherTheLoadNorCreateAddInStartsTheWorker) {
    WriteTable({});
    const auto threads = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
    };
    const auto before = threads();
    const CAddinLibrary library;
    EXPECT_EQ(threads(), before);
    library.CreateAddIn();
    EXPECT_EQ(threads(), before);
    library.DestroyAddIn(library.CreateAddIn());
    library.CreateAddIn();
    EXPECT_EQ(threads(), before);
    library.AddIn().Start();
    EXPECT_GT(threads(), before);  // a sanitizer may start one of its own with it
    library.AddIn().Stop();
}

// ---- Loading in a host that does not set the standard streams up itself ------------------------

TEST(AddInLoad, SetsTheStandardStreamsUpBeforeItBuildsTheAddIn) {
    WriteTable({});
    WriteFile(cTable, "damaged");
    CProgram host({PROGRAMS "/load-add-in", "print", ADDIN_LIBRARY});
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_EQ(host.Output(), cReadingFailed + std::string("\nafter the load\nafter the unload\n"));
}

TEST(AddInLoad, FlushesNothingThatTheHostHasBuffered) {
    WriteTable({});
    CProgram host({PROGRAMS "/load-add-in", "keep-line", ADDIN_LIBRARY});
    EXPECT_EQ(host.Wait(), 0) << host.Output();
    EXPECT_EQ(ReadFile("output"), "a line without its end");
}

// ---- Unloading --------------------------------------------------------------------------------

TEST(AddInUnload, UnmapsTheLibraryAndRemovesItsSemaphoreSets) {
    WriteTable({});
    for (int iteration = 0; iteration < 50; ++iteration) {
        CAddinLibrary library;
        EXPECT_TRUE(CAddinLibrary::IsMapped());
        library.Create("task", 4'000'000'000, 1);
        EXPECT_TRUE(library.IsScheduled("task"));
        library.Tick();
        library.Unload();
        ASSERT_FALSE(CAddinLibrary::IsMapped());
        ASSERT_EQ(CountSemaphoreSets(), 0);
    }
}

TEST(AddInUnload, UnmapsTheLibraryAfterItsWorkerRan) {
    WriteTable({});
    CAddinLibrary library;
    library.AddIn().Start();
    library.AddIn().Stop();
    library.Unload();
    EXPECT_FALSE(CAddinLibrary::IsMapped());
}

TEST(AddInUnload, AfterDestroyAddInDeletesNothingFurther) {
    WriteTable({});
    CAddinLibrary library;
    library.DestroyAddIn(library.CreateAddIn());
    library.Unload();
    EXPECT_FALSE(CAddinLibrary::IsMapped());
}

TEST(AddInUnload, LaterLoadStartsAfresh) {
    WriteTable({});
    {
        CAddinLibrary library;
        library.Tick();
        library.Create("task", 4'000'000'000, 1);
    }
    CAddinLibrary library;
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    WriteTable({});
    EXPECT_FALSE(library.IsScheduled("task"))
        << "there is no scheduling thread any more, so the file is read";
}

TEST(AddInUnload, RemovesTheMutexUnderAnotherUser) {
    WriteTable({});
    CMutex other(cMutex);
    { CAddinLibrary library; }
    EXPECT_FALSE(other.Lock());
}

RUN_AGAIN(LoadAndEnd) {
    static const CAddinLibrary library;
    if (arguments.at(0) == "at once")
        _exit(0);
    return 0;
}

TEST(AddInUnload, NormalExitOfAProcessRemovesTheMutexAnEndAtOnceDoesNot) {
    WriteTable({});
    const CMutex mutex(cMutex);
    CProgram quick(ThisProgramAs("LoadAndEnd", {"at once"}));
    EXPECT_EQ(quick.Wait(), 0) << quick.Output();
    EXPECT_TRUE(StoreSemaphoreExists());
    CProgram normal(ThisProgramAs("LoadAndEnd", {"normally"}));
    EXPECT_EQ(normal.Wait(), 0) << normal.Output();
    EXPECT_FALSE(StoreSemaphoreExists());
}

RUN_AGAIN(LoadAndReturnWithTheLibraryLoaded) {
    static_cast<void>(arguments);
    // Never unloaded explicitly: the exit runs the finaliser.
    alignas(CAddinLibrary) static std::array<unsigned char, sizeof(CAddinLibrary)> storage;
    new (storage.data()) CAddinLibrary;
    return 0;
}

TEST(AddInUnload, ExitWithTheLibraryLoadedRunsTheFinaliser) {
    WriteTable({});
    CProgram program(ThisProgramAs("LoadAndReturnWithTheLibraryLoaded"));
    EXPECT_EQ(program.Wait(), 0) << program.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// ---- Load, Unload, Run ------------------------------------------------------------------------

TEST(AddInObject, LoadWritesItsLineOncePerCallAndDoesNothingElse) {
    CFakeSystem system(cNow);
    WriteTable({});
    const CAddinLibrary library;
    CLogCapture log;
    WriteTable({Task("a", cNow, 1)});
    const std::string before = ReadFile(cTable);
    library.AddIn().Load();
    library.AddIn().Load();
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLoadCalled, cLoadCalled}));
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_TRUE(library.TaskList()->empty());
    EXPECT_EQ(library.AddIn().Start(), 0) << "it was not started by Load()";
    library.AddIn().Stop();
}

TEST(AddInObject, LoadIsSilentWhileThereIsNoInstance) {
    WriteTable({});
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.Instance());
    CSchedulerAddin* const direct = inside.NewAddin();
    CLogCapture log;
    direct->Load();
    EXPECT_TRUE(log.Take().empty());
    inside.DestroyAddIn(direct);
}

TEST(AddInObject, UnloadEmptiesTheListAndNotTheFile) {
    WriteTable({Task("a", 4'000'000'000, 1)});
    const CAddinLibrary library;
    EXPECT_EQ(library.TaskList()->size(), 1U);
    library.AddIn().Unload();
    EXPECT_TRUE(library.TaskList()->empty());
    EXPECT_EQ(NamesInTable(), "a");
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(library.AddIn().isLoad());
    EXPECT_TRUE(library.IsScheduled("a")) << "the next call reads the file";
}

TEST(AddInObject, UnloadLeavesTheWorkerAndTheSharedObjects) {
    WriteTable({Task("a", 4'000'000'000, 1)});
    const CInsideLibrary inside;
    CAddInInterface* const addIn = inside.Instance();
    auto* const list = inside.TaskList();
    CMutex* const mutex = inside.Mutex();
    CEvent* const event = inside.TaskChangedEvent();
    addIn->Start();
    addIn->Unload();
    EXPECT_EQ(inside.Instance(), addIn);
    EXPECT_EQ(inside.TaskList(), list);
    EXPECT_EQ(inside.Mutex(), mutex);
    EXPECT_EQ(inside.TaskChangedEvent(), event);
    EXPECT_TRUE(StoreSemaphoreExists()) << "a tick may hold it";
    event->SetEvent();
    CEvent(cStopEvent, false).SetEvent();
    WaitUntil([&] { return event->Wait(0) == 0; });  // the worker has ticked
    addIn->Stop();
    EXPECT_EQ(list->size(), 1U) << "its tick has read the file";
}

TEST(AddInObject, UnloadWaitsForTheMutex) {
    WriteTable({Task("a", 4'000'000'000, 1)});
    const CAddinLibrary library;
    const int id = semget(cStoreKey, 1, 0);
    sembuf take{0, -1, SEM_UNDO};
    ASSERT_EQ(semop(id, &take, 1), 0);
    std::atomic<bool> done{false};
    std::thread unloader([&] {
        library.AddIn().Unload();
        done = true;
    });
    WaitUntil([&] { return semctl(id, 0, GETNCNT) == 1; });
    EXPECT_FALSE(done);
    sembuf release{0, 1, SEM_UNDO};
    semop(id, &release, 1);
    unloader.join();
    EXPECT_TRUE(library.TaskList()->empty());
}

TEST(AddInObject, VirtualOperationsStandInTheirOrder) {
    CFakeSystem system(cNow);
    WriteTable({});
    const CAddinLibrary library;
    CLogCapture log;
    CAddInInterface* const object = library.CreateAddIn();
    void** const table = *reinterpret_cast<void***>(object);
    const auto call = [&](int slot) {
        reinterpret_cast<void (*)(CAddInInterface*)>(table[slot])(object);
    };
    call(5);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLoadCalled}));
    library.Create("a", cNow, 0, "/a");
    EXPECT_EQ(library.TaskList()->size(), 1U);
    call(6);
    EXPECT_TRUE(library.TaskList()->empty());
    EXPECT_TRUE(reinterpret_cast<bool (*)(CAddInInterface*)>(table[7])(object));
    call(8);
    EXPECT_EQ(system.LaunchedPaths(), "/a");
    EXPECT_EQ(reinterpret_cast<int (*)(CAddInInterface*)>(table[2])(object), 0);
    call(4);
    call(3);  // Run() after a stop returns without a tick
}

TEST(AddInObject, RunEndsWithoutATickOnceStopped) {
    CFakeSystem system(cNow);
    WriteTable({});
    const CAddinLibrary library;
    library.AddIn().Start();
    library.AddIn().Stop();
    library.Create("a", cNow, 0, "/a");
    library.AddIn().Run();
    EXPECT_TRUE(system.launches.empty());
}

TEST(AddInObject, WorkerTicksAtOnceThenAtEachSignalOfTheStopEventAndStops) {
    WriteTable({});
    CAddinLibrary library;
    CEvent changed(cTaskChanged, true);
    changed.SetEvent();
    library.AddIn().Start();
    WaitUntil([&] { return changed.Wait(0) == 0; });  // the first tick has read the file
    for (int iteration = 0; iteration < 3; ++iteration) {
        changed.SetEvent();
        CEvent(cStopEvent, false).SetEvent();
        WaitUntil([&] { return changed.Wait(0) == 0; });
    }
    library.AddIn().Stop();
    changed.SetEvent();
    CEvent(cStopEvent, false).SetEvent();
    EXPECT_NE(changed.Wait(0), 0);
}

TEST(AddInObject, WorkerIsTheSchedulingThread) {
    WriteTable({});
    const CInsideLibrary inside;
    EXPECT_EQ(inside.SchedulerThread(), 0U);
    CSchedulerAddin* const addIn = inside.Instance();
    addIn->Start();
    WaitUntil([&] { return inside.SchedulerThread() != 0; });
    EXPECT_NE(inside.SchedulerThread(), pthread_self());
    const pthread_t worker = inside.SchedulerThread();
    addIn->Stop();
    EXPECT_EQ(inside.SchedulerThread(), worker) << "kept after the thread has ended";
    inside.DestroyAddIn(addIn);
    EXPECT_EQ(inside.SchedulerThread(), worker);
}

static std::atomic<int> gTicks{0};
static void CountTick(CSchedulerAddin* /*addIn*/) {
    ++gTicks;
}

TEST(AddInObject, WorkerIsTheSchedulingThreadOnlyOnceItHasTheMutex) {
    WriteTable({});
    const CInsideLibrary inside;
    const int set = semget(cStoreKey, 1, 0);
    sembuf take{0, -1, SEM_UNDO};
    sembuf release{0, 1, SEM_UNDO};
    semop(set, &take, 1);
    static_cast<CAddInInterface*>(inside.Instance())->Start();
    WaitUntil([&] { return semctl(set, 0, GETNCNT) == 1; });
    EXPECT_EQ(inside.SchedulerThread(), 0U);
    semop(set, &release, 1);
    WaitUntil([&] { return inside.SchedulerThread() != 0; });
    static_cast<CAddInInterface*>(inside.Instance())->Stop();
}

TEST(AddInObject, WorkerTicksOnTheRegisteredInstanceWhicheverObjectsItIs) {
    WriteTable({});
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.Instance());
    CSchedulerAddin* const direct = inside.NewAddin();
    auto* const list = inside.TaskList();
    CMutex* const mutex = inside.Mutex();
    CEvent* const event = inside.TaskChangedEvent();
    CSchedulerAddin* const registered = inside.CreateAddIn();
    // Only the registered object's tick is overridden, in a copy of its virtual table (with the
    // two entries before it).
    void**& table = *reinterpret_cast<void***>(registered);
    void** const original = table;
    std::array<void*, 11> copy;
    std::copy(original - 2, original + 9, copy.begin());
    copy[10] = reinterpret_cast<void*>(CountTick);
    table = copy.data() + 2;

    direct->Start();
    WaitUntil([] { return gTicks == 1; });
    direct->Stop();
    table = original;
    EXPECT_EQ(inside.SchedulerThread(), 0U) << "nothing else ticked";
    inside.DestroyAddIn(registered);
    inside.DestroyAddIn(direct);
    delete list;
    delete event;
    delete mutex;
}

TEST(AddInObject, StartedTaskIsRunByTheWorker) {
    CFakeSystem system(cNow);
    WriteTable({});
    const CAddinLibrary library;
    library.Create("a", cNow, 0, "/a");
    std::atomic<bool> started{false};
    system.onLaunch = [&](const CFakeSystem::TLaunch&) { started = true; };
    library.AddIn().Start();
    WaitUntil([&] { return started.load(); });
    library.AddIn().Stop();
    EXPECT_EQ(NamesInTable(), "");
}

// ---- Interposed: the wait between two ticks ---------------------------------------------------

static std::atomic<int> gSecondsWaited{-1};

// Called by the add-in on its worker. Records the time and does what the support library does.
int CEvent::WaitSignalOrTimeout(int seconds) {
    gSecondsWaited = seconds;
    return reinterpret_cast<int (*)(CEvent*, int)>(
        dlsym(RTLD_NEXT, "_ZN6CEvent19WaitSignalOrTimeoutEi"))(this, seconds);
}

TEST(AddInObject, WorkerWaitsSixtyBetweenTwoTicks) {
    WriteTable({});
    const CAddinLibrary library;
    library.AddIn().Start();
    WaitUntil([] { return gSecondsWaited != -1; });
    library.AddIn().Stop();
    EXPECT_EQ(gSecondsWaited, 60);
}

TEST(AddInObject, ExceptionOnTheWorkerEndsTheProcess) {
    WriteTable({});
    EXPECT_DEATH(
        {
            CFakeSystem system(cNow);
            const CAddinLibrary library;
            library.Create("a", cNow, 0, "/a");
            VXC_SetLogSink([](const std::string&, void*) { throw std::runtime_error("log"); },
                           nullptr);
            library.AddIn().Start();
            for (;;)
                pause();
        },
        "terminate called after throwing an instance of 'std::runtime_error'");
}

// ---- Failures of the construction -------------------------------------------------------------

TEST(AddInFailure, TaskChangedEventThatCannotBeMadePassesToTheCaller) {
    WriteTable({Task("past", 1, 0)});
    const std::string before = ReadFile(cTable);
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.Instance());
    WriteFile(cTable, before);
    TakeTheKeyOfEvent(cTaskChanged);
    EXPECT_THROW(inside.CreateAddIn(), std::system_error);
    EXPECT_EQ(inside.Instance(), nullptr);
    EXPECT_NE(inside.TaskList(), nullptr);
    EXPECT_NE(inside.Mutex(), nullptr);
    EXPECT_EQ(inside.TaskChangedEvent(), nullptr);
    EXPECT_EQ(ReadFile(cTable), before) << "the table was not loaded";
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    delete inside.TaskList();
    delete inside.Mutex();
}

TEST(AddInFailure, ExceptionOfTheLoadReachesTheCallerOfTheLoader) {
    WriteTable({});
    TakeTheKeyOfEvent(cTaskChanged);
    CProgram host({PROGRAMS "/load-add-in", "catch-through-pointer", ADDIN_LIBRARY});
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(host.Output().starts_with("caught open the event \"Global\\schTaskChanged-"))
        << host.Output();
}

// dlopen is declared to throw nothing, so the compiler drops a handler around a direct call.
TEST(AddInFailure, ExceptionOfTheLoadEndsAProcessThatCallsDlopenDirectly) {
    WriteTable({});
    TakeTheKeyOfEvent(cTaskChanged);
    CProgram host({PROGRAMS "/load-add-in", "catch", ADDIN_LIBRARY});
    EXPECT_EQ(host.Wait(), 1000 + SIGABRT);
    EXPECT_NE(host.Output().find("terminate called after throwing"), std::string::npos)
        << host.Output();
}

TEST(AddInFailure, StopEventThatCannotBeMadeLeavesTicksWithoutAPause) {
    WriteTable({});
    TakeTheKeyOfEvent(cStopEvent);
    const CAddinLibrary library;
    CEvent changed(cTaskChanged, true);
    library.AddIn().Start();
    for (int iteration = 0; iteration < 5; ++iteration) {
        changed.SetEvent();
        WaitUntil([&] { return changed.Wait(0) == 0; });
    }
    library.AddIn().Stop();
}

TEST(AddInFailure, ExceptionUnderTheMutexLeavesItHeldUntilTheProcessEnds) {
    std::filesystem::create_directory("files");
    CForkedChild child([] {
        WriteTable({});
        const CInsideLibrary inside;
        inside.DestroyAddIn(inside.Instance());
        WriteFile(cTable, "damaged");
        VXC_SetLogSink([](const std::string&, void*) { throw std::runtime_error("log"); }, nullptr);
        try {
            inside.CreateAddIn();
        } catch (const std::runtime_error&) {
            _exit(StoreSemaphoreValue() == 0 && inside.Instance() == nullptr ? 42 : 1);
        }
        return 2;
    });
    EXPECT_EQ(child.Wait(), 42);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(AddInFailure, MutexThatCannotBeHadEndsTheProcess) {
    WriteTable({});
    ASSERT_NE(semget(cStoreKey, 1, IPC_CREAT | 0000), -1);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        const CAddinLibrary library;
        return 0;
    });
    EXPECT_EQ(child.Wait(), 1000 + SIGABRT);
}
