// A host that is stopped while it starts up.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"

#include <chrono>
#include <csignal>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;

class HostStartupStop : public testing::TestWithParam<int> {};

TEST_P(HostStartupStop, EndsAHostThatWaitsForAClient) {
    WriteTable({});
    const vxsched::CWriterLock lock(".", 10s);
    CProgram host(HostWith({"--lock-timeout", "3600"}));
    WaitUntil([] { return !ReadFile("files/vxschedd.lock").empty(); });
    host.Kill(GetParam());
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

TEST_P(HostStartupStop, EndsAHostThatWaitsForTheStoreMutex) {
    WriteTable({});
    MakeStoreMutex();
    const vxsched::CStoreMutexLock lock(10s);
    CProgram host(HostWith({"--lock-timeout", "3600"}));
    WaitUntil([] { return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) == 1; });
    host.Kill(GetParam());
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}

INSTANTIATE_TEST_SUITE_P(Signals, HostStartupStop, testing::Values(SIGTERM, SIGINT));
