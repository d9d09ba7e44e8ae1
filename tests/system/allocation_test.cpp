// Out of memory at every allocation in turn: at that one alone, and at all after it too. Each
// exported function, the tick and the construction either complete, or report the failure: by the
// log and the flag, or by an exception to the caller. The mutex is free afterwards in every case.

#include <CPopen.h>
#include <VXC_Information.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <new>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

// ---- The allocations of this process, the add-in's too ----------------------------------------

static constexpr long cNone = -1;
static thread_local long gUntilFailure = cNone;  // allocations that still succeed
static thread_local bool gOnlyOnce = false;
static thread_local bool gFailed = false;
static thread_local long gHeld = 0;  // allocations that were not freed

[[gnu::noinline]] void* operator new(std::size_t size) {
    if (gUntilFailure != cNone) {
        if (gUntilFailure == 0) {
            gFailed = true;
            if (gOnlyOnce)
                gUntilFailure = cNone;
            throw std::bad_alloc();
        }
        --gUntilFailure;
    }
    if (void* const memory = std::malloc(size)) {
        ++gHeld;
        return memory;
    }
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void* memory) noexcept {
    gHeld -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
    gHeld -= memory != nullptr ? 1 : 0;
    std::free(memory);
}

// Runs `body` while the allocation of that number fails, and every later one if `onlyOnce` is
// false. True when it threw std::bad_alloc.
static bool ThrewAt(long number, bool onlyOnce, const std::function<void()>& body) {
    gFailed = false;
    gOnlyOnce = onlyOnce;
    gUntilFailure = number;
    bool threw = false;
    try {
        body();
    } catch (const std::bad_alloc&) {
        threw = true;
    }
    gUntilFailure = cNone;
    return threw;
}

TEST(OutOfMemoryPipe, IsNotValidAndSetsErrno) {
    const char* const unheardOfMode = "r and much more than fits a string without memory";
    EXPECT_FALSE(ThrewAt(0, true, [&] {
        const CPopen pipe("true", unheardOfMode);
        const int error = errno;
        EXPECT_FALSE(pipe.IsValid());
        EXPECT_EQ(error, ENOMEM);
    }));
    EXPECT_TRUE(gFailed);
}

// ---- What is left -----------------------------------------------------------------------------

static constexpr long cNow = 1'000'000;
static constexpr long cFuture = 4'000'000'000;
// Longer than what a std::string holds without an allocation.
static constexpr char cProgram[] = "/opt/a-rather-long-folder/and-a-program";

using TLines = std::vector<std::string>;

struct TOperation {
    const char* name;
    void (*run)(const CAddinLibrary& library);
};

static void PrintTo(const TOperation& operation, std::ostream* out) {
    *out << operation.name;
}

class OutOfMemory : public testing::TestWithParam<TOperation> {
protected:
    void SetUp() override {
        WriteTable(table);
        library.emplace();
    }

    const TRows table = {{"first task with a long name", cFuture, 5, 24, cProgram, "text", 0},
                         {"second", cFuture, 0, 1, cProgram, "", 1}};
    CFakeSystem system{cNow};
    std::optional<CAddinLibrary> library;
};

TEST_P(OutOfMemory, DoesAllOrReportsTheFailureAndReleasesTheMutex) {
    GetParam().run(*library);
    const std::string done = ReadFile(cTable);
    for (const bool onlyOnce : {true, false}) {
        SCOPED_TRACE(onlyOnce ? "one allocation" : "every allocation from there on");
        int failures = 0;
        for (long number = 0;; ++number) {
            SCOPED_TRACE(number);
            WriteTable(table);
            VXC_SetInformation("TasksDeleted", 0);
            semctl(semget(cStoreKey, 1, 0), 0, SETVAL, 1);
            bool threw = false;
            TLines lines;
            {
                CLogCapture log;
                threw = ThrewAt(number, onlyOnce, [&] { GetParam().run(*library); });
                lines = log.Take();
            }
            if (!gFailed)
                break;
            ++failures;
            EXPECT_GE(StoreSemaphoreValue(), 1);
            int flag = 0;
            VXC_GetInformation("TasksDeleted", flag);
            const std::string file = ReadFile(cTable);
            const bool intact = file == done || file == BytesOf(table);
            EXPECT_TRUE(intact || threw || flag == 1) << "a table is lost without a report";
            EXPECT_EQ(flag == 1, !lines.empty() && (lines.back() == cReadingFailed ||
                                                    lines.back() == cWritingFailed));
            EXPECT_TRUE(intact || file == std::string(8, '\0') || file.empty() ||
                        ReadTable().size() == 1)
                << "at most what a creation wrote after a table that could not be read";
            // The process continues as before.
            WriteTable(table);
            EXPECT_TRUE(library->IsScheduled("first task with a long name"));
        }
        EXPECT_GT(failures, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Each, OutOfMemory,
    testing::Values(
        TOperation{"IsScheduled", [](const CAddinLibrary& it) { it.IsScheduled("second"); }},
        TOperation{"GetNextExecution",
                   [](const CAddinLibrary& it) {
                       long value = 0;
                       it.GetNextExecution("second", &value);
                   }},
        TOperation{"GetLastExecuted",
                   [](const CAddinLibrary& it) {
                       long value = 0;
                       it.GetLastExecuted("second", &value);
                   }},
        TOperation{"GetTaskPeriod",
                   [](const CAddinLibrary& it) {
                       unsigned int value = 0;
                       it.GetTaskPeriod("second", &value);
                   }},
        TOperation{"IsTaskRunning", [](const CAddinLibrary& it) { it.IsTaskRunning("second"); }},
        TOperation{"CreateTask",
                   [](const CAddinLibrary& it) {
                       it.Create("new task with a long name", cFuture, 1, cProgram, cProgram);
                   }},
        TOperation{
            "CreateTaskInPlace",
            [](const CAddinLibrary& it) { it.Create("second", cFuture, 1, cProgram, cProgram); }},
        TOperation{"DestroyTask", [](const CAddinLibrary& it) { it.DestroyTask("second"); }},
        TOperation{"PauseTask",
                   [](const CAddinLibrary& it) { it.PauseTask("first task with a long name"); }},
        TOperation{"ResumeTask", [](const CAddinLibrary& it) { it.ResumeTask("second"); }},
        TOperation{"SetTaskPeriod", [](const CAddinLibrary& it) { it.SetTaskPeriod("second", 2); }},
        TOperation{"ExecuteTaskNow",
                   [](const CAddinLibrary& it) { it.ExecuteTaskNow("second", true); }}),
    [](const auto& each) { return std::string(each.param.name); });

// The program is copied while the mutex is held; then the mutex is released, and a failure after
// that releases it a second time.
TEST(OutOfMemoryProbe, ReleasesOnceBeforeTheCopyOfTheProgramAndTwiceAfterIt) {
    WriteTable({{"task", cFuture, 0, 24, cProgram, "", 0}});
    const CAddinLibrary library;
    library.Tick();  // on the scheduling thread nothing is allocated for the table
    for (const auto& [number, value] : {std::pair{0, 1}, {1, 2}}) {
        semctl(semget(cStoreKey, 1, 0), 0, SETVAL, 1);
        EXPECT_TRUE(ThrewAt(number, true, [&] { library.IsTaskRunning("task"); }));
        EXPECT_EQ(StoreSemaphoreValue(), value);
    }
}

// A task is rewritten field by field, in the order of its record, and unpaused last.
TEST(OutOfMemoryCreation, RewritingStopsAtTheStringThatFails) {
    const std::string large(100, 'x');
    for (const int failing : {0, 1}) {
        WriteTable({{"task", cFuture, 0, 24, "p", "q", 1}});
        const CAddinLibrary library;
        library.Tick();
        EXPECT_TRUE(ThrewAt(failing, true, [&] {
            library.Create("task", cFuture + 1, 2, large.c_str(), large.c_str());
        }));
        const TTask& task = *library.TaskList()->front();
        EXPECT_EQ(task.nextExecution, cFuture + 1);
        EXPECT_EQ(task.period, 2U);
        EXPECT_EQ(task.program, failing == 0 ? "p" : large);
        EXPECT_EQ(task.parameters, "q");
        EXPECT_EQ(task.paused, 1);
        EXPECT_EQ(ReadTable()[0].program, "p") << "nothing was saved";
    }
}

// A failed creation leaves no half-made task in the list.
TEST(OutOfMemoryCreation, TaskThatCouldNotBeAppendedIsNotInTheList) {
    WriteTable({});
    const CAddinLibrary library;
    CLogCapture log;
    int threw = 0;
    for (long number = 0;; ++number) {
        WriteTable({});
        threw += ThrewAt(number, true, [&] { library.Create(cProgram, cFuture, 1, cProgram); });
        if (!gFailed)
            break;
        if (!library.TaskList()->empty()) {
            ASSERT_EQ(library.TaskList()->size(), 1U);
            EXPECT_EQ(library.TaskList()->front()->name, cProgram);
            EXPECT_EQ(library.TaskList()->front()->program, cProgram);
        }
    }
    EXPECT_GE(threw, 3) << "the record, its strings and its place in the list";
}

TEST(OutOfMemoryTick, ReleasesTheMutexWhereverItStops) {
    WriteTable({});
    const CAddinLibrary library;
    CFakeSystem system(cNow);
    const TRows table = {{"first", cNow, 0, 24, cProgram, "text", 0},
                         {"second", cNow, 0, 0, cProgram, "", 0}};
    for (const bool onlyOnce : {true, false}) {
        for (long number = 0;; ++number) {
            SCOPED_TRACE(number);
            system.now = cNow;
            CLogCapture log;
            library.CreateTask("announced", &system.now, 1, "", "");
            WriteTable(table);
            ThrewAt(number, onlyOnce, [&] { library.Tick(); });
            if (!gFailed)
                break;
            EXPECT_EQ(StoreSemaphoreValue(), 1);
        }
        EXPECT_EQ(NamesInTable(), "first");
    }
}

// While the mutex is held, a failure is handled as damage to the file. Without a mutex the process
// cannot continue.
TEST(OutOfMemoryConstruction, EndsWithAnObjectAnExceptionOrTheProcess) {
    const TRows table = {{"first task with a long name", cFuture, 5, 24, cProgram, "text", 0}};
    int made = 0;
    int threw = 0;
    int died = 0;
    bool failed = true;
    for (long number = 0; failed; ++number) {
        SCOPED_TRACE(number);
        WriteTable(table);
        CForkedChild child([&] {
            CLogCapture log;
            const CAddinLibrary library;
            library.DestroyAddIn(library.CreateAddIn());
            const bool exception = ThrewAt(number, true, [&] { library.CreateAddIn(); });
            if (!gFailed)
                return 40;
            // The list is made before the mutex.
            if (exception)
                return library.TaskList() == nullptr && StoreSemaphoreExists() ? 3 : 41;
            // A table that could not be read was reset; one that could not be written was not even
            // opened.
            const TLines lines = log.Take();
            const bool reset = lines == TLines({cReadingFailed});
            if (!reset && !lines.empty() && lines != TLines({cWritingFailed}))
                return 1;
            return StoreSemaphoreValue() == 1 && ReadTable() == (reset ? TRows() : table) ? 42 : 2;
        });
        const int result = child.Wait();
        failed = result != 40;
        made += result == 42 ? 1 : 0;
        threw += result == 41 ? 1 : 0;
        died += result == 1000 + SIGABRT ? 1 : 0;
        EXPECT_TRUE(result == 40 || result == 41 || result == 42 || result == 1000 + SIGABRT)
            << result;
    }
    EXPECT_GT(made, 0);
    EXPECT_GT(threw, 0);
    EXPECT_GT(died, 0) << "the mutex's name could not be copied";
}

// A construction that fails frees the object with all that it owns: what remains are the list and
// the mutex, which belong to the process. The mutex stays for good, so this runs in a
// process that ends without a search for leaks.
TEST(FailedConstruction, FreesTheObject) {
    CForkedChild child([] {
        WriteTable({});
        const CAddinLibrary library;
        library.DestroyAddIn(library.CreateAddIn());
        TakeTheKeyOfEvent("Global\\schTaskChanged-69BD-4438-B706-07D710576930");
        const long before = gHeld;
        bool threw = false;
        try {
            library.CreateAddIn();
        } catch (const std::system_error&) {
            threw = true;
        }
        EXPECT_TRUE(threw);
        EXPECT_EQ(gHeld, before + 2);
        EXPECT_NE(library.TaskList(), nullptr);
        delete library.TaskList();
        EXPECT_EQ(gHeld, before + 1);
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
