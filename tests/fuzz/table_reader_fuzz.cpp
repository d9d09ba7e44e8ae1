// Fuzzes the reader of the task file with any bytes. A file that loads is saved again and must give
// the bytes that were read; one that does not load must have been reset to an empty table, with the
// list empty.

#include <VXC_Log.h>
#include <dlfcn.h>
#include <sched.h>
#include <scheduler/TaskFields.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

static bool (*gLoadTasks)();
static void (*gSaveTasks)();
static std::list<TTask*>* (*gTasks)();

static void Ignore(const std::string& /*message*/, void* /*context*/) {}

static void Require(bool condition, const char* failure) {
    if (condition)
        return;
    std::fprintf(stderr, "%s\n", failure);
    std::abort();
}

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

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    std::ofstream(cTaskFile, std::ios::binary | std::ios::trunc) << input;
    if (gLoadTasks()) {
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
