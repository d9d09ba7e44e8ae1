// The library's entry points: the add-in object that each creates, returns and destroys.

#include <CEvent.h>
#include <addin/CAddInInterface.h>
#include <gtest/gtest.h>
#include <scheduler/CSchedulerAddin.h>
#include <scheduler/Scheduler.h>
#include <sync/CMutex.h>
#include "interpose/NextDefinition.h"

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "ProgramTask.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr time_t cNow = 1'000'000;

TEST(EntryPoints, CreateAddInReturnsTheLoadedOneEachTime) {
    WriteTable({});
    const CAddinLibrary library;
    CAddInInterface* const addIn = library.CreateAddIn();
    EXPECT_NE(addIn, nullptr);
    EXPECT_EQ(library.CreateAddIn(), addIn);
    EXPECT_EQ(addIn->name, "libVantrixScheduler.so");
}

TEST(EntryPoints, DestroyedAddInIsBuiltAnew) {
    WriteTable({});
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.CreateAddIn());
    EXPECT_EQ(inside.Instance(), nullptr);
    EXPECT_EQ(inside.TaskList(), nullptr);
    EXPECT_EQ(inside.Mutex(), nullptr);
    EXPECT_EQ(inside.TaskChangedEvent(), nullptr);
    EXPECT_EQ(CountSemaphoreSets(), 0);
    CSchedulerAddin* const addIn = inside.CreateAddIn();
    EXPECT_EQ(inside.Instance(), addIn);
    EXPECT_TRUE(addIn->isLoad());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(EntryPoints, CreateAddInRunsTheWholeConstructionAgain) {
    CFakeSystem system(cNow);
    WriteTable({});
    const CAddinLibrary library;
    library.DestroyAddIn(library.CreateAddIn());
    WriteTable({Task("past", 1, 0), Task("future", cNow + 1, 0)});
    library.CreateAddIn();
    EXPECT_EQ(NamesInTable(), "future");
}

TEST(EntryPoints, DestroyAddInOfNullChangesNothing) {
    WriteTable({});
    const CInsideLibrary inside;
    CSchedulerAddin* const addIn = inside.Instance();
    inside.DestroyAddIn(nullptr);
    EXPECT_EQ(inside.Instance(), addIn);
    EXPECT_NE(inside.TaskList(), nullptr);
    inside.DestroyAddIn(addIn);
    inside.DestroyAddIn(nullptr);
    EXPECT_EQ(inside.Instance(), nullptr);
}

class COtherAddIn : public CAddInInterface {
public:
    explicit COtherAddIn(bool& destroyedFlag)
        : CAddInInterface("other"), destroyed(destroyedFlag) {}
    ~COtherAddIn() override { destroyed = true; }
    void Run() override {}
    void Load() override {}
    void Unload() override {}
    bool isLoad() override { return false; }
    bool& destroyed;
};

TEST(EntryPoints, DestroyAddInOfAnotherObjectDeletesItAndKeepsTheRegisteredOne) {
    WriteTable({});
    const CAddinLibrary library;
    CAddInInterface* const addIn = library.CreateAddIn();
    bool destroyed = false;
    library.DestroyAddIn(new COtherAddIn(destroyed));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(library.CreateAddIn(), addIn);
    EXPECT_TRUE(addIn->isLoad());
}

TEST(EntryPoints, HooksBuildAndDestroyTheOneInstance) {
    WriteTable({});
    const CAddinLibrary library;
    CAddInInterface* const addIn = library.CreateAddIn();
    library.SharedLibraryConstructor();
    EXPECT_EQ(library.CreateAddIn(), addIn);
    library.SharedLibraryDestructor();
    EXPECT_FALSE(StoreSemaphoreExists());
    library.SharedLibraryDestructor();
    library.SharedLibraryConstructor();
    EXPECT_TRUE(StoreSemaphoreExists());
}

TEST(EntryPoints, ObjectConstructedDirectlyIsNotRegistered) {
    WriteTable({});
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.Instance());
    CSchedulerAddin* const direct = inside.NewAddin();
    EXPECT_FALSE(direct->isLoad());
    inside.DestroyAddIn(direct);
    CSchedulerAddin* const registered = inside.CreateAddIn();
    EXPECT_TRUE(registered->isLoad());
}

TEST(EntryPoints, SecondDestructionFindsTheSharedObjectsGone) {
    WriteTable({});
    const CInsideLibrary inside;
    inside.DestroyAddIn(inside.Instance());
    CSchedulerAddin* const first = inside.NewAddin();
    auto* const list = inside.TaskList();
    CMutex* const mutex = inside.Mutex();
    CEvent* const event = inside.TaskChangedEvent();
    CSchedulerAddin* const second = inside.NewAddin();
    EXPECT_NE(inside.TaskList(), list) << "a new list; the old one is not deleted";
    inside.DestroyAddIn(second);
    EXPECT_EQ(inside.TaskList(), nullptr);
    inside.DestroyAddIn(first);
    EXPECT_EQ(inside.Mutex(), nullptr);
    // The test owns the first ones now.
    delete list;
    delete event;
    delete mutex;
}

TEST(EntryPoints, SecondObjectReplacesTheSharedObjectsAndDeletesNoneOfTheFirsts) {
    WriteTable({Task("a", 4'000'000'000, 1)});
    const CInsideLibrary inside;
    auto* const list = inside.TaskList();
    CMutex* const mutex = inside.Mutex();
    CEvent* const event = inside.TaskChangedEvent();
    CSchedulerAddin* const second = inside.NewAddin();
    EXPECT_NE(inside.TaskList(), list);
    EXPECT_NE(inside.Mutex(), mutex);
    EXPECT_NE(inside.TaskChangedEvent(), event);
    ASSERT_EQ(list->size(), 1U);
    EXPECT_EQ(list->front()->name, "a");
    EXPECT_TRUE(mutex->Lock());
    EXPECT_EQ(inside.Mutex()->Lock(0), LOCK_TIMEOUT) << "the two are one mutex";
    EXPECT_EQ(mutex->Unlock(), 0);
    event->SetEvent();
    EXPECT_NE(inside.TaskChangedEvent()->Wait(0), 0) << "the two are one event";
    inside.DestroyAddIn(second);
    // The test owns the first ones now.
    delete list->front();
    delete list;
    delete event;
    delete mutex;
}

// ---- Interposed: the names that the support library gets ---------------------------------------

static std::vector<std::string> gNames;

// The constructor of CEvent, called by the add-in and by the test. It records its arguments.
#define CONSTRUCTOR_OF_EVENT "_ZN6CEventC1ENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb"
void ConstructEvent(CEvent* event, std::string name, bool flag) __asm__(CONSTRUCTOR_OF_EVENT);
void ConstructEvent(CEvent* event, std::string name, bool flag) {
    gNames.push_back("event " + name + (flag ? ", manual-reset" : ", auto-reset"));
    NextDefinition<decltype(ConstructEvent)>(CONSTRUCTOR_OF_EVENT)(event, std::move(name), flag);
}

TEST(EntryPoints, EventsHaveTheseNames) {
    WriteTable({});
    const CAddinLibrary library;
    EXPECT_EQ(gNames,
              std::vector<std::string>(
                  {"event libVantrixScheduler.so, auto-reset",
                   "event Global\\schTaskChanged-69BD-4438-B706-07D710576930, manual-reset"}));
}
