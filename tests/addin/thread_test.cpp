// The worker thread and the add-in interface: Start(), Stop(), the stop event and destruction.

#include <CEvent.h>
#include <addin/CAddInInterface.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "interpose/NextDefinition.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Process.h"
#include "StoreSemaphore.h"

static constexpr char cName[] = "a worker";

// ---- Interposed thread calls ------------------------------------------------------------------

// Called by CThread, on the test's thread or on the worker. They record the call and pass it on to
// libc, except that pthread_create only returns gCreateResult if that is not 0. The others return
// gOtherResult if that is not 0, after libc did what was asked.

static std::vector<std::string> gCalls;
static int gCreateResult = 0;
static std::atomic<int> gOtherResult{0};
static int gDetachState = -1;

static int Result(int result) {
    return gOtherResult != 0 ? gOtherResult.load() : result;
}

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*entry)(void*), void* argument) noexcept {
    gCalls.emplace_back("create");
    if (attributes != nullptr)
        pthread_attr_getdetachstate(attributes, &gDetachState);
    if (gCreateResult != 0)
        return gCreateResult;
    return NextDefinition<decltype(pthread_create)>("pthread_create")(thread, attributes, entry,
                                                                      argument);
}

extern "C" int pthread_join(pthread_t thread, void** result) {
    gCalls.emplace_back("join");
    return Result(NextDefinition<decltype(pthread_join)>("pthread_join")(thread, result));
}

#ifndef __SANITIZE_THREAD__  // its runtime makes these calls before this program is initialised
// Records the calls on thread attributes while it is not null, each with whether the event exists
// at that moment. (A sanitizer has attributes of its own.)
static std::multimap<const pthread_attr_t*, std::string>* gAttributeCalls = nullptr;
static const std::atomic<bool>* gRunning = nullptr;

static void NoteAttributeCall(const pthread_attr_t* attributes, const std::string& call) {
    if (gAttributeCalls != nullptr)
        gAttributeCalls->emplace(attributes,
                                 call + (CountSemaphoreSets() == 1 ? ", event" : ", no event") +
                                     (gRunning != nullptr && *gRunning ? ", running" : ""));
}

extern "C" int pthread_attr_init(pthread_attr_t* attributes) noexcept {
    NoteAttributeCall(attributes, "init");
    return Result(NextDefinition<int(pthread_attr_t*)>("pthread_attr_init")(attributes));
}

extern "C" int pthread_attr_setdetachstate(pthread_attr_t* attributes, int state) noexcept {
    NoteAttributeCall(attributes, state == PTHREAD_CREATE_JOINABLE ? "joinable" : "detached");
    return Result(NextDefinition<int(pthread_attr_t*, int)>("pthread_attr_setdetachstate")(
        attributes, state));
}

extern "C" int pthread_attr_destroy(pthread_attr_t* attributes) noexcept {
    NoteAttributeCall(attributes, "destroy");
    return Result(NextDefinition<int(pthread_attr_t*)>("pthread_attr_destroy")(attributes));
}
#endif

// The constructor of CEvent, called by CThread and by the tests. It throws something that is not a
// std::exception if gThrowFromEvent, and is the support library's otherwise.
static bool gThrowFromEvent = false;

#define CONSTRUCTOR_OF_EVENT "_ZN6CEventC1ENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb"
void ConstructEvent(CEvent* event, std::string name, bool flag) __asm__(CONSTRUCTOR_OF_EVENT);
void ConstructEvent(CEvent* event, std::string name, bool flag) {
    if (gThrowFromEvent)
        throw 42;
    NextDefinition<decltype(ConstructEvent)>(CONSTRUCTOR_OF_EVENT)(event, std::move(name), flag);
}

// ---- A worker ---------------------------------------------------------------------------------

class CWorker : public CThread {
public:
    explicit CWorker(const char* name = cName) : CThread(name) {}

    void Run() override {
        ++runs;
        body(*this);
    }

    // Until a stop is requested, waits on the stop event without limit.
    static void UntilStopped(CWorker& worker) {
        while (!worker.stopRequested)
            worker.stopEvent->Wait(-1);
    }

    using CThread::attr;
    using CThread::running;
    using CThread::stopEvent;
    using CThread::stopRequested;
    using CThread::thread;

    std::atomic<int> runs{0};
    std::function<void(CWorker&)> body = UntilStopped;
};

static std::vector<std::string> TakeCalls() {
    return std::exchange(gCalls, {});
}
using TCalls = std::vector<std::string>;

TEST(Thread, BeginsNeitherRunningNorStoppedWithItsEvent) {
    const CWorker worker;
    EXPECT_FALSE(worker.running);
    EXPECT_FALSE(worker.stopRequested);
    ASSERT_NE(worker.stopEvent, nullptr);
    EXPECT_EQ(worker.stopEvent->Wait(0), 0);
}

TEST(Thread, StopEventIsTheNamedOneAndAutoReset) {
    const CWorker worker;
    CEvent(cName, true).SetEvent();
    EXPECT_NE(worker.stopEvent->Wait(0), 0);
    EXPECT_EQ(worker.stopEvent->Wait(0), 0);
}

TEST(Thread, StartRunsTheWorkerJoinable) {
    CWorker worker;
    EXPECT_EQ(worker.Start(), 0);
    EXPECT_TRUE(worker.running);
    EXPECT_EQ(gDetachState, PTHREAD_CREATE_JOINABLE);
    WaitUntil([&] { return worker.runs == 1; });
    worker.Stop();
    EXPECT_FALSE(worker.running);
    EXPECT_TRUE(worker.stopRequested);
}

TEST(Thread, SecondStartReturnsOneAndMakesNoThread) {
    CWorker worker;
    worker.Start();
    EXPECT_EQ(worker.Start(), 1);
    worker.Stop();
    EXPECT_EQ(TakeCalls(), TCalls({"create", "join"}));
    EXPECT_EQ(worker.runs, 1);
}

TEST(Thread, FailedStartReturnsTheErrorAndIsNotTriedAgain) {
    CWorker worker;
    gCreateResult = EAGAIN;
    EXPECT_EQ(worker.Start(), EAGAIN);
    EXPECT_TRUE(worker.running);
    gCreateResult = 0;
    EXPECT_EQ(worker.Start(), 1);
    EXPECT_EQ(TakeCalls(), TCalls({"create"}));
    // It is flagged as running but has no thread: its destructor would join an unset one.
    worker.running = false;
}

TEST(Thread, StopSignalsTheEventAndJoins) {
    CWorker worker;
    worker.Start();
    WaitUntil([&] { return worker.runs == 1; });
    worker.Stop();
    EXPECT_EQ(TakeCalls(), TCalls({"create", "join"}));
}

TEST(Thread, SecondStopDoesNothing) {
    CWorker worker;
    worker.Start();
    worker.Stop();
    worker.stopEvent->ResetEvent();
    TakeCalls();
    worker.Stop();
    EXPECT_EQ(TakeCalls(), TCalls());
    EXPECT_EQ(worker.stopEvent->Wait(0), 0);
}

TEST(Thread, WorkerThatStopsItselfIsNotJoined) {
    CWorker worker;
    worker.body = [](CWorker& self) {
        while (!self.stopRequested)
            self.Stop();
    };
    worker.Start();
    WaitUntil([&] { return worker.stopRequested && !worker.running; });
    EXPECT_EQ(TakeCalls(), TCalls({"create"}));
    EXPECT_NE(worker.stopEvent->Wait(0), 0) << "the event is signalled all the same";
    pthread_join(worker.thread, nullptr);
}

TEST(Thread, StartAfterStopRunsAWorkerThatEndsAtOnceAndIsNeverStopped) {
    CWorker worker;
    worker.Start();
    worker.Stop();
    TakeCalls();
    EXPECT_EQ(worker.Start(), 0);
    pthread_join(worker.thread, nullptr);
    EXPECT_EQ(worker.runs, 2);
    TakeCalls();
    worker.Stop();
    EXPECT_EQ(TakeCalls(), TCalls());
    EXPECT_TRUE(worker.running);
}

// Has no members: the base destructor stops the worker after the derived part is destroyed.
class CBareWorker : public CThread {
public:
    CBareWorker() : CThread(cName) {}
    void Run() override {
        gBareRuns = 1;
        while (!stopRequested)
            stopEvent->Wait(-1);
        gBareRuns = 2;
    }
    static inline std::atomic<int> gBareRuns{0};
};

TEST(Thread, DestructionStopsAndJoinsARunningWorker) {
    {
        CBareWorker worker;
        worker.Start();
        WaitUntil([] { return CBareWorker::gBareRuns == 1; });
        TakeCalls();
    }
    EXPECT_EQ(CBareWorker::gBareRuns, 2);
    EXPECT_EQ(TakeCalls(), TCalls({"join"}));
    EXPECT_EQ(CountSemaphoreSets(), 0) << "the event was not deleted";
}

#ifndef __SANITIZE_THREAD__
TEST(Thread, AttributesAreInitialisedSetAndDestroyedEachInItsPlace) {
    std::multimap<const pthread_attr_t*, std::string> calls;
    gAttributeCalls = &calls;
    const pthread_attr_t* its = nullptr;
    {
        CWorker worker;
        its = &worker.attr;
        gRunning = &worker.running;
        worker.Start();
        gRunning = nullptr;
        worker.Stop();
    }
    gAttributeCalls = nullptr;
    std::vector<std::string> found;
    for (auto [call, end] = calls.equal_range(its); call != end; ++call)
        found.push_back(call->second);
    EXPECT_EQ(found, std::vector<std::string>(
                         {"init, event", "joinable, event, running", "destroy, event"}));
}
#endif

TEST(Thread, DestructionOfOneNeverStartedNeitherSignalsNorJoins) {
    CEvent other(cName, true);
    { const CWorker worker; }
    EXPECT_EQ(TakeCalls(), TCalls());
    EXPECT_EQ(other.Wait(0), 0);
}

TEST(Thread, DestructionAfterStopDoesNotStopAgain) {
    CEvent other(cName, true);
    {
        CWorker worker;
        worker.Start();
        worker.Stop();
        other.ResetEvent();
        TakeCalls();
    }
    EXPECT_EQ(TakeCalls(), TCalls());
    EXPECT_EQ(other.Wait(0), 0);
}

TEST(Thread, StopOfOneNeverStartedJoinsWhateverItsThreadHolds) {
    CWorker worker;
    pthread_t other{};
    ASSERT_EQ(pthread_create(
                  &other, nullptr, [](void*) -> void* { return nullptr; }, nullptr),
              0);
    TakeCalls();
    worker.thread = other;  // the construction leaves it unset
    worker.Stop();
    EXPECT_EQ(TakeCalls(), TCalls({"join"}));
    EXPECT_TRUE(worker.stopRequested);
    EXPECT_NE(worker.stopEvent->Wait(0), 0);
}

TEST(Thread, WorkerReturnsNull) {
    CWorker worker;
    worker.body = [](CWorker&) {};
    worker.Start();
    void* result = &worker;
    pthread_join(worker.thread, &result);
    EXPECT_EQ(result, nullptr);
    worker.running = false;  // it is joined already
}

TEST(Thread, ResultsOfJoinAndAttributesAreNotChecked) {
    gOtherResult = EINVAL;
    {
        CWorker worker;
        EXPECT_EQ(worker.Start(), 0);
        WaitUntil([&] { return worker.runs == 1; });
        worker.Stop();
        EXPECT_FALSE(worker.running);
    }
    gOtherResult = 0;
    EXPECT_EQ(TakeCalls(), TCalls({"create", "join"}));
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

// ---- Without a stop event ---------------------------------------------------------------------

TEST(Thread, EventThatCannotBeMadeLeavesNullAndIsNotReported) {
    TakeTheKeyOfEvent(cName);
    CWorker worker;
    EXPECT_EQ(worker.stopEvent, nullptr);
    worker.body = [](CWorker& self) {
        while (!self.stopRequested)
            std::this_thread::yield();
    };
    EXPECT_EQ(worker.Start(), 0);
    worker.Stop();
    EXPECT_FALSE(worker.running);
}

TEST(Thread, OtherExceptionsOfTheEventPassToTheCaller) {
    gThrowFromEvent = true;
    EXPECT_THROW(CWorker(), int);
}

// ---- The order of the virtual operations ------------------------------------------------------

TEST(Thread, VirtualOperationsStandInTheirOrder) {
    CWorker worker;
    worker.body = [](CWorker&) {};
    CThread* const object = &worker;
    void** const table = *reinterpret_cast<void***>(object);
    // After the destructor's two entries.
    const auto start = reinterpret_cast<int (*)(CThread*)>(table[2]);
    const auto run = reinterpret_cast<void (*)(CThread*)>(table[3]);
    const auto stop = reinterpret_cast<void (*)(CThread*)>(table[4]);
    run(object);
    EXPECT_EQ(worker.runs, 1);
    EXPECT_EQ(start(object), 0);
    EXPECT_EQ(start(object), 1);
    stop(object);
    EXPECT_TRUE(worker.stopRequested);
}

class CPlainAddIn : public CAddInInterface {
public:
    explicit CPlainAddIn(const char* addInName) : CAddInInterface(addInName) {}
    void Run() override { calls += "run "; }
    void Load() override { calls += "load "; }
    void Unload() override { calls += "unload "; }
    bool isLoad() override {
        calls += "isLoad ";
        return true;
    }
    using CAddInInterface::running;
    using CAddInInterface::stopRequested;
    std::string calls;
};

TEST(AddInInterface, VirtualOperationsStandInTheirOrder) {
    CPlainAddIn addIn(cName);
    CAddInInterface* const object = &addIn;
    void** const table = *reinterpret_cast<void***>(object);
    reinterpret_cast<void (*)(CAddInInterface*)>(table[3])(object);
    reinterpret_cast<void (*)(CAddInInterface*)>(table[5])(object);
    reinterpret_cast<void (*)(CAddInInterface*)>(table[6])(object);
    EXPECT_TRUE(reinterpret_cast<bool (*)(CAddInInterface*)>(table[7])(object));
    EXPECT_EQ(addIn.calls, "run load unload isLoad ");
    EXPECT_EQ(reinterpret_cast<int (*)(CAddInInterface*)>(table[2])(object), 0);
    reinterpret_cast<void (*)(CAddInInterface*)>(table[4])(object);
    EXPECT_TRUE(addIn.stopRequested);
    EXPECT_FALSE(addIn.running);
}

TEST(AddInInterface, KeepsACopyOfItsName) {
    char name[] = "first";
    const CPlainAddIn addIn(name);
    name[0] = 'X';
    EXPECT_EQ(addIn.name, "first");
}

TEST(AddInInterface, IsTheThreadItself) {
    CPlainAddIn addIn(cName);
    EXPECT_EQ(static_cast<void*>(static_cast<CThread*>(&addIn)), static_cast<void*>(&addIn));
}
