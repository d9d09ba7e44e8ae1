// The main of every benchmark program: an IPC namespace and folders of its own before anything
// touches a semaphore or a file, so that no store of this machine is met and nothing stays behind.

#include <benchmark/benchmark.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/Places.h"

static void EnterNamespace() {
    if (unshare(CLONE_NEWIPC) == 0)
        return;
    // An ordinary user gets one together with a user namespace of its own, and stays who it is.
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWIPC) == 0) {
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << uid << ' ' << uid << " 1";
        std::ofstream("/proc/self/gid_map") << gid << ' ' << gid << " 1";
        return;
    }
    std::perror("cannot enter an IPC namespace of the benchmark's own");
    std::exit(1);
}

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    EnterNamespace();
    const CPlaces places;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
