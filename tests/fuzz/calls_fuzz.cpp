// Fuzzes the loaded library: decodes any bytes to a sequence of exported calls, ticks, loads, clock
// changes and changes of the file by other processes. After each the library is compared with the
// model.

#include <model/CSequence.h>
#include <sched.h>

#include <cstdio>
#include <cstdlib>

// When the process dies in the middle of a sequence, print the operations so far.
static const CSequence* gRunning = nullptr;

static void ShowRunning() {
    if (gRunning != nullptr)
        std::fputs(gRunning->Done().c_str(), stderr);
}

extern "C" void __sanitizer_set_death_callback(void (*callback)());

// scripts/fuzz runs this in an empty working directory in memory.
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
