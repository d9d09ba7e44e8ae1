// Any bytes as a sequence of operations on the loaded library: exported calls, ticks, loads, clock
// moves, and what other processes do to the file. After each the library is compared with the model
// of its rules.

#include <model/CSequence.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>

// What the process dies of, it dies of in the middle of a sequence.
static const CSequence* gRunning = nullptr;

static void ShowRunning() {
    if (gRunning != nullptr)
        std::fputs(gRunning->Done().c_str(), stderr);
}

extern "C" void __sanitizer_set_death_callback(void (*callback)());

// The working directory is an empty one, in memory: scripts/fuzz makes it.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    if (unshare(CLONE_NEWIPC) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWIPC) != 0) {
        std::fputs("no namespace\n", stderr);
        std::abort();
    }
    __sanitizer_set_death_callback(ShowRunning);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    CSequence sequence({data, size});
    gRunning = &sequence;
    const std::string difference = sequence.Run();
    gRunning = nullptr;
    if (!difference.empty()) {
        std::fputs(difference.c_str(), stderr);
        std::abort();
    }
    return 0;
}
