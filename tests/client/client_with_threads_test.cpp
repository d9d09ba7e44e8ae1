// A direct client with several threads, which is like a host in the middle of a tick: it has the
// add-in loaded, and no worker waits.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include <vxsched/Store.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <string>
#include <thread>

#include "AddinLibrary.h"
#include "ClientError.h"
#include "ClientStore.h"
#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"

using namespace std::chrono_literals;
using namespace vxsched;
using testing::AllOf;
using testing::HasSubstr;

RUN_AGAIN(LoadTheAddInAndKeepAThread) {
    const CAddinLibrary library;
    const std::thread another([] {
        for (;;)
            pause();
    });
    WriteFile("ready", "");
    for (;;)
        pause();
}

TEST_F(ClientStore, ChangeThatAClientWithThreadsKeepsFromBeingMadeReportsThatProcess) {
    WriteTable({Row("a")});
    const CProgram client(ThisProgramAs("LoadTheAddInAndKeepAThread"));
    WaitUntil([] { return std::filesystem::exists("ready"); });
    const CStore hurried({.lockTimeout = 200ms});
    const auto reportsTheClient =
        AllOf(HasSubstr("process " + std::to_string(client.Id()) + " has loaded the add-in"),
              HasSubstr("nothing was changed"), HasSubstr("end it"));
    ExpectKept([&] {
        EXPECT_THAT(ErrorOf(EError::cBusy, [&] { hurried.Pause({"a"}); }), reportsTheClient);
        EXPECT_THAT(ErrorOf(EError::cBusy, [&] { hurried.ReplaceAll({}); }), reportsTheClient);
    });
}

// Which is found by its lock.
TEST_F(ClientStore, ChangeThatAHostsTickKeepsFromBeingMadeRefersToItsLog) {
    WriteTable({Row("a")});
    CHost host;
    Suspend(host);
    const CStore hurried({.lockTimeout = 200ms});
    ExpectKept([&] {
        EXPECT_THAT(ErrorOf(EError::cBusy, [&] { hurried.ReplaceAll({}); }),
                    HasSubstr("the scheduling process is in the middle of a tick"));
    });
    host.Kill(SIGCONT);
    EXPECT_EQ(host.Stop(), 0);
}
