// The operations on the table, through the library as other programs load it.

#include <thread>

#include "AddinLibrary.h"
#include "bench/TableBenchmark.h"
#include "bench/Tasks.h"

namespace {

// The only load of the library in this process, on the table of `tasks` tasks. The list is cleared
// after the benchmark, so that its memory does not affect the next one.
class CLoadedTable {
public:
    explicit CLoadedTable(std::size_t tasks) {
        // The thread that ticked last is the scheduling one; calls of all others read the file. The
        // tick may read the file too, so the file is empty here: the list is built once, in fresh
        // memory, like the floor's.
        WriteTaskFile(0);
        std::thread([this] { library.Tick(); }).join();
        WriteTaskFile(tasks);
        library.IsScheduled("");
    }
    ~CLoadedTable() { library.AddIn().Unload(); }
    CLoadedTable(const CLoadedTable&) = delete;
    CLoadedTable& operator=(const CLoadedTable&) = delete;

    // From now on calls of this thread use the list in memory.
    void BecomeSchedulingThread() const { library.Tick(); }

    const CAddinLibrary& library = Library();

private:
    static const CAddinLibrary& Library() {
        static const auto* const loaded = new CAddinLibrary;
        return *loaded;
    }
};

}  // namespace

static void AskForTask(benchmark::State& state, std::size_t tasks, std::size_t index) {
    const CLoadedTable table(tasks);
    const std::string name = NameOf(index);
    for (auto _ : state) {
        long next = 0;
        table.library.GetNextExecution(name.c_str(), &next);
        if (next != NextExecutionOf(index)) {
            state.SkipWithError("the task was not found");
            break;
        }
    }
    Expect(state, table.library.TaskList()->size() == tasks, "the list is not the table");
}

// The last one: the longest search.
static void Query(benchmark::State& state, std::size_t tasks) {
    AskForTask(state, tasks, tasks - 1);
}

// Found at once, so that the loading dominates.
static void Load(benchmark::State& state, std::size_t tasks) {
    AskForTask(state, tasks, 0);
}

static void Change(benchmark::State& state, std::size_t tasks) {
    const CLoadedTable table(tasks);
    const std::string name = NameOf(tasks - 1);
    for (auto _ : state)
        table.library.PauseTask(name.c_str());
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks, tasks - 1), "the file is not changed");
}

// A change by the scheduling thread, whose list is the current one: nothing is read.
static void Save(benchmark::State& state, std::size_t tasks) {
    const CLoadedTable table(tasks);
    table.BecomeSchedulingThread();
    const std::string name = NameOf(0);
    for (auto _ : state)
        table.library.PauseTask(name.c_str());
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks, 0), "the file is not changed");
}

static void TickWithNothingDue(benchmark::State& state, std::size_t tasks) {
    const CLoadedTable table(tasks);
    table.BecomeSchedulingThread();
    for (auto _ : state)
        table.library.Tick();
    Expect(state, table.library.TaskList()->size() == tasks, "the list is not the table");
    Expect(state, ContentOfTaskFile() == BytesOfTable(tasks), "the file was written");
}

static const bool gRegistered =
    RegisterTableBenchmark("query", "library", Query, TableSizesAnd(500)) &&
    RegisterTableBenchmark("load", "library", Load) &&
    RegisterTableBenchmark("change", "library", Change, TableSizesAnd(400)) &&
    RegisterTableBenchmark("save", "library", Save) &&
    RegisterTableBenchmark("tick", "library", TickWithNothingDue);
