#include "WedgedMutex.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <filesystem>

#include "AddinLibrary.h"
#include "Process.h"
#include "StoreSemaphore.h"

void Inspectable(const std::function<void()>& body) {
    const int result = RunInPidNamespace([&] {
        std::filesystem::create_directory("files");
        body();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    if (result == -1)
        GTEST_SKIP() << "the system refuses a PID namespace or, as in a container that hides a "
                        "part of /proc, a /proc for it, also with all capabilities of the "
                        "user namespace that the test is in";
    EXPECT_EQ(result, 42);
}

bool Change(int set, short change, short flags) {
    sembuf operation{0, change, flags};
    return semop(set, &operation, 1) == 0;
}

// The release of a process whose operation was forgotten is undone at its end, and takes 1 away.
int Wedge() {
    const int set = MakeStoreMutex();
    CForkedChild holder([&] {
        Change(set, -1, SEM_UNDO);
        MakeStoreMutex();
        Change(set, 1, SEM_UNDO);
        // Nobody undoes this one.
        Change(set, -1, 0);
        return 0;
    });
    EXPECT_EQ(holder.Wait(), 0);
    EXPECT_EQ(StoreSemaphoreValue(), 0);
    return set;
}

RUN_AGAIN(SleepWithTheAddIn) {
    const CAddinLibrary library;
    WriteFile("ready", "");
    for (;;)
        pause();
}

std::vector<std::string> LoadAndSleep() {
    return ThisProgramAs("SleepWithTheAddIn");
}
