// The main of every benchmark program: enters an IPC namespace and directories of its own before
// any use of a semaphore or a file, so that no store of this machine is touched and none is left.

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
    // An ordinary user may create one only together with a user namespace; it keeps its user id.
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
