// Fuzzes the add-in's reader of the task file with any bytes. A file that loads is saved again and
// must give the bytes that were read; one that does not load must have been reset to an empty table,
// with the list empty. What the client library takes for a valid table, the add-in must load as the
// same tasks.

#include <VXC_Log.h>
#include <dlfcn.h>
#include <sched.h>
#include <scheduler/TaskFields.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/Table.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <list>
#include <string>
#include <vector>

#include "fuzz/Require.h"

static bool (*gLoadTasks)();
static void (*gSaveTasks)();
static std::list<TTask*>* (*gTasks)();

static void Ignore(const std::string& /*message*/, void* /*context*/) {}

// scripts/fuzz runs this in an empty working directory in memory.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    Require(unshare(CLONE_NEWIPC) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0,
            "no namespace");
    Require(mkdir("files", 0755) == 0, "no directory");
    VXC_SetLogSink(Ignore, nullptr);
    void* const library = dlopen(INSIDE_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    Require(library != nullptr, "no library");
    gLoadTasks = reinterpret_cast<bool (*)()>(dlsym(library, "InsideLoadTasks"));
    gSaveTasks = reinterpret_cast<void (*)()>(dlsym(library, "InsideSaveTasks"));
    gTasks = reinterpret_cast<std::list<TTask*>* (*)()>(dlsym(library, "InsideTaskList"));
    return 0;
}

static std::string Content() {
    std::ifstream file(cTaskFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

static vxsched::TTaskEntry EntryOf(const TTask& task) {
    const auto at = [](time_t time) { return vxsched::TTime(std::chrono::seconds(time)); };
    return {task.name,    at(task.nextExecution), at(task.lastExecuted), task.period,
            task.program, task.parameters,        task.paused != 0};
}

// `isLoaded`: by the add-in.
static void CompareWithClientLibrary(const std::string& input, bool isLoaded) {
    std::vector<vxsched::TTaskEntry> tasks;
    try {
        tasks = vxsched::DecodeTable(input, vxsched::TTime()).tasks;
    } catch (const vxsched::CError&) {
        return;  // it refuses more than the add-in does
    }
    Require(isLoaded, "a table of the client library is not loaded");
    const auto isSame = [](const TTask* loaded, const vxsched::TTaskEntry& task) {
        return EntryOf(*loaded) == task;
    };
    Require(std::equal(gTasks()->begin(), gTasks()->end(), tasks.begin(), tasks.end(), isSame),
            "the client library reads other tasks");
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::ofstream(cTaskFile, std::ios::binary | std::ios::trunc) << input;
    const bool isLoaded = gLoadTasks();
    CompareWithClientLibrary(input, isLoaded);
    if (isLoaded) {
        Require(Content() == input, "a load changed the file");
        gSaveTasks();
        const std::string saved = Content();
        Require(input.compare(0, saved.size(), saved) == 0,
                "the saved file differs from the one that was read");
    } else {
        Require(gTasks()->empty(), "a failed load left tasks");
        Require(Content() == std::string(8, '\0'), "a failed load did not reset the file");
    }
    return 0;
}
