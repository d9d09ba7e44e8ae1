// A wedged store mutex, which nobody holds and nobody can take: set free if nobody can hold it, and
// only then. The processes around it are real.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/prctl.h>
#include <sys/sem.h>
#include <unistd.h>
#include "store/CMutexHealer.h"
#include "store/CStoreMutexLock.h"
#include "store/CWriterLock.h"
#include "store/MutexHolders.h"

#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "AddinLibrary.h"
#include "ClientError.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"
#include "Tool.h"
#include "WedgedMutex.h"

using namespace std::chrono_literals;
using namespace vxsched;

static bool Change(int set, short change) {
    return Change(set, change, SEM_UNDO);
}

static CMutexHealer::TResult Heal() {
    const CWriterLock writerLock(".", 0ms);
    CMutexHealer healer(0ms);
    EXPECT_EQ(healer.Observe(), CMutexHealer::cUnchanged);
    return healer.Heal(writerLock);
}

// ---- Processes that use the mutex ---------------------------------------------------------------

// A process with the add-in that holds the mutex and sleeps.
RUN_AGAIN(HoldAsleep) {
    const CAddinLibrary library;
    Change(semget(cStoreKey, 1, 0), -1);
    WriteFile("ready", "");
    for (;;)
        pause();
}

// A process with the add-in that waits for the mutex.
RUN_AGAIN(WaitForIt) {
    const CAddinLibrary library;
    WriteFile("loaded", "");
    WaitUntil([] { return std::filesystem::exists("go on"); });
    library.IsScheduled("task");
    _exit(42);
}

static bool IsWaitedFor() {
    return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT) > 0;
}

// ---- Healed -------------------------------------------------------------------------------------

TEST(MutexHealing, MutexThatNobodyHoldsIsSetFree) {
    Inspectable([] {
        Wedge();
        const CMutexHealer::TResult result = Heal();
        EXPECT_TRUE(result.isHealed);
        EXPECT_EQ(result.value, 0);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
        EXPECT_NE(DescribeHealed(result).find("held by nobody"), std::string::npos);
    });
}

TEST(MutexHealing, WaiterGoesOn) {
    Inspectable([] {
        MakeStoreMutex();
        CProgram waiter(ThisProgramAs("WaitForIt"));
        WaitUntil([] { return std::filesystem::exists("loaded"); });
        Wedge();
        WriteFile("go on", "");
        WaitUntil(IsWaitedFor);
        EXPECT_TRUE(Heal().isHealed);
        EXPECT_EQ(waiter.Wait(), 42);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    });
}

TEST(MutexHealing, ForgottenReleasesOfTheLivingDoNotCountAfterwards) {
    Inspectable([] {
        const int set = Wedge();
        {
            CForkedChild living([&] {
                Change(set, 1);
                Change(set, -1, 0);
                WriteFile("ready", "");
                sembuf wait{0, -1, 0};
                semop(set, &wait, 1);
                return 0;
            });
            WaitUntil(IsWaitedFor);
            EXPECT_TRUE(Heal().isHealed);
            EXPECT_EQ(living.Wait(), 0);
        }
        EXPECT_EQ(StoreSemaphoreValue(), 0) << "it took the mutex for good";
        MakeStoreMutex();
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    });
}

TEST(MutexHealing, MutexThatLetsSeveralInIsSetToLetInOne) {
    Inspectable([] {
        const int set = MakeStoreMutex();
        Change(set, 2, 0);
        const CMutexHealer::TResult result = Heal();
        EXPECT_TRUE(result.isHealed);
        EXPECT_EQ(result.value, 3);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
        EXPECT_NE(DescribeHealed(result).find("let 3 processes in"), std::string::npos);
    });
    EXPECT_EQ(StoreSemaphoreValue(), 1) << "the end of the healing process changes nothing";
}

TEST(MutexHealing, SetThatWasNeverGivenAValueIsSetFree) {
    Inspectable([] {
        semget(cStoreKey, 1, IPC_CREAT | 0660);
        EXPECT_TRUE(Heal().isHealed);
        EXPECT_EQ(StoreSemaphoreValue(), 1);
    });
}

// Also where process 1 may not be inspected: nobody can hold it.
TEST(MutexHealing, RepairSetsItFreeIfItsMakerWasKilled) {
    std::filesystem::create_directory("files");
    semget(cStoreKey, 1, IPC_CREAT | 0660);
    const TToolRun run = RunTool({"--lock-timeout", "20", "repair"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST(MutexHealing, ProcessOfAnotherIpcNamespaceDoesNotCount) {
    Inspectable([] {
        CForkedChild elsewhere([] {
            if (!EnterNamespaces(CLONE_NEWIPC))
                return 1;
            const CProgram other(LoadAndSleep());
            for (;;)
                pause();
        });
        WaitUntil([] { return std::filesystem::exists("ready"); });
        Wedge();
        EXPECT_TRUE(Heal().isHealed);
    });
}

TEST(MutexHealing, ChangeThatWaitsHealsIt) {
    Inspectable([] {
        Wedge();
        const CWriterLock writerLock(".", 0ms);
        const CStoreMutexLock lock(1h, writerLock);
        EXPECT_TRUE(lock.IsHeld());
    });
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

// The end of a process that has waited changes the time of the last use.
TEST(MutexHealing, WaitsInVainAreNoUse) {
    Inspectable([] {
        const int set = Wedge();
        CMutexHealer healer(1h);
        ASSERT_EQ(healer.Observe(), CMutexHealer::cInUse);
        CForkedChild waiting([&] {
            Change(set, -1, IPC_NOWAIT | SEM_UNDO);
            return 0;
        });
        waiting.Wait();
        EXPECT_EQ(healer.Observe(), CMutexHealer::cInUse);
        EXPECT_TRUE(Heal().isHealed);
    });
}

// ---- Not healed ---------------------------------------------------------------------------------

TEST(MutexHealing, NotBeforeItWasUnchangedForAWhile) {
    std::filesystem::create_directory("files");
    CMutexHealer healer(1h);
    EXPECT_EQ(healer.Observe(), CMutexHealer::cFree) << "there is none";
    const int set = MakeStoreMutex();
    EXPECT_EQ(healer.Observe(), CMutexHealer::cFree);
    Change(set, -1, 0);
    EXPECT_EQ(healer.Observe(), CMutexHealer::cInUse);
    EXPECT_EQ(healer.Observe(), CMutexHealer::cInUse);
}

TEST(MutexHealing, NotIfItHasChangedSince) {
    Inspectable([] {
        const int set = Wedge();
        const CWriterLock writerLock(".", 0ms);
        CMutexHealer healer(0ms);
        ASSERT_EQ(healer.Observe(), CMutexHealer::cUnchanged);
        MakeStoreMutex();
        Change(set, -1, 0);
        const CMutexHealer::TResult result = healer.Heal(writerLock);
        EXPECT_FALSE(result.isHealed);
        EXPECT_FALSE(result.holder);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

TEST(MutexHealing, HolderThatSleepsIsLeftAlone) {
    Inspectable([] {
        MakeStoreMutex();
        const CProgram holder(ThisProgramAs("HoldAsleep"));
        WaitUntil([] { return std::filesystem::exists("ready"); });
        const CMutexHealer::TResult result = Heal();
        EXPECT_FALSE(result.isHealed);
        ASSERT_TRUE(result.holder);
        EXPECT_EQ(result.holder->process, holder.Id());
        EXPECT_EQ(result.holder->reason, TPossibleHolder::cMayHold);
        EXPECT_TRUE(result.isUsual) << "it was the last to take it";
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

// The last operation is that of a process that has ended, the holder lives all the same.
TEST(MutexHealing, HolderThatWasNotTheLastIsLeftAlone) {
    Inspectable([] {
        const int set = MakeStoreMutex();
        const CProgram holder(ThisProgramAs("HoldAsleep"));
        WaitUntil([] { return std::filesystem::exists("ready"); });
        CForkedChild other([&] { return Change(set, 1) && Change(set, -1) ? 0 : 1; });
        EXPECT_EQ(other.Wait(), 0);
        const CMutexHealer::TResult result = Heal();
        EXPECT_FALSE(result.isHealed);
        ASSERT_TRUE(result.holder);
        EXPECT_EQ(result.holder->process, holder.Id());
        EXPECT_FALSE(result.isUsual);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
        EXPECT_NE(Describe(*result.holder).find("process " + std::to_string(holder.Id())),
                  std::string::npos);
    });
}

TEST(MutexHealing, HolderOfAnyProgramIsLeftAlone) {
    Inspectable([] {
        const int set = MakeStoreMutex();
        const CForkedChild holder([&] {
            Change(set, -1);
            for (;;)
                pause();
            return 0;
        });
        WaitUntil([] { return StoreSemaphoreValue() == 0; });
        EXPECT_FALSE(Heal().isHealed);
    });
}

TEST(MutexHealing, StoppedProcessIsReported) {
    Inspectable([] {
        MakeStoreMutex();
        const CProgram holder(LoadAndSleep());
        WaitUntil([] { return std::filesystem::exists("ready"); });
        Wedge();
        holder.Kill(SIGSTOP);
        WaitUntil([&] {
            return ReadFile("/proc/" + std::to_string(holder.Id()) + "/stat").find(") T ") !=
                   std::string::npos;
        });
        const CMutexHealer::TResult result = Heal();
        EXPECT_FALSE(result.isHealed);
        ASSERT_TRUE(result.holder);
        EXPECT_EQ(result.holder->process, holder.Id());
        EXPECT_EQ(result.holder->reason, TPossibleHolder::cStopped);
        EXPECT_NE(Describe(*result.holder).find("is stopped"), std::string::npos);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

TEST(MutexHealing, ProcessThatMayNotBeInspectedIsReported) {
    Inspectable([] {
        const int set = Wedge();
        semctl(set, 0, SETVAL, 0);
        // Only with capabilities, which the child drops, may another process inspect this one.
        prctl(PR_SET_DUMPABLE, 0);
        CForkedChild healing([] {
            if (!DropCapabilities())
                return 1;
            const CMutexHealer::TResult result = Heal();
            EXPECT_FALSE(result.isHealed);
            EXPECT_TRUE(result.holder);
            if (result.holder) {
                EXPECT_EQ(result.holder->process, 1);
                EXPECT_EQ(result.holder->reason, TPossibleHolder::cUnreadable);
                EXPECT_NE(Describe(*result.holder).find("run \"vxsched repair\" as root"),
                          std::string::npos);
            }
            return testing::Test::HasFailure() ? 1 : 42;
        });
        EXPECT_EQ(healing.Wait(), 42);
        EXPECT_EQ(StoreSemaphoreValue(), 0);
    });
}

TEST(MutexHealing, ChangeThatTimesOutReportsWhoMayHoldIt) {
    Inspectable([] {
        MakeStoreMutex();
        const CProgram holder(LoadAndSleep());
        WaitUntil([] { return std::filesystem::exists("ready"); });
        Wedge();
        const std::string message = ErrorOf(EError::cBusy, [] {
            const CWriterLock writerLock(".", 0ms);
            const CStoreMutexLock lock(5s, writerLock);
        });
        EXPECT_NE(message.find("process " + std::to_string(holder.Id())), std::string::npos)
            << message;
    });
}
