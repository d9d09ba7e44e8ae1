// What a real host does on signals other than those that stop it, and its log file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>
#include "store/CStoreMutexLock.h"

#include <csignal>
#include <ctime>
#include <filesystem>

#include "HostProgram.h"
#include "StoreSemaphore.h"

static bool LogHolds(const std::string& path, const std::string& text) {
    return ReadFile(path).find(text) != std::string::npos;
}

TEST(HostSignals, Usr1TicksAtOnce) {
    CHost host;
    ReplaceTable({{"task", std::time(nullptr), 0, 1, PROGRAMS "/end-with", "status 0", 0}});
    host.Kill(SIGUSR1);
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.CountInOutput("ticking at once on SIGUSR1"), 1U) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
}

static int CountWaitersForTheMutex() {
    return semctl(semget(cStoreKey, 1, 0), 0, GETNCNT);
}

// Also what happens when the machine sleeps: the system ends the worker's wait early.
TEST(HostSignals, StopAndContinuationLeaveTheWorkerWaitingForTheMutex) {
    CHost host;
    {
        const vxsched::CStoreMutexLock lock(std::chrono::seconds(10));
        host.Kill(SIGUSR1);
        WaitUntil([] { return CountWaitersForTheMutex() == 1; });
        host.Kill(SIGSTOP);
        WaitUntil([] { return CountWaitersForTheMutex() == 0; });
        host.Kill(SIGCONT);
        WaitUntil([] { return CountWaitersForTheMutex() == 1 || StoreSemaphoreValue() != 0; });
        EXPECT_EQ(StoreSemaphoreValue(), 0) << "nobody but its holder gives it back";
    }
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(host.Stop(), 0);
}

TEST(HostSignals, HupWithoutALogFileChangesNothing) {
    CHost host;
    host.Kill(SIGHUP);
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_EQ(host.CountInOutput("anew"), 0U) << host.Output();
}

TEST(HostSignals, HupOpensTheLogAnew) {
    std::filesystem::create_directory("work");
    // The path is the caller's, not that of the directory that the host works in.
    CProgram host({HOST_PROGRAM, "--directory", "work", "--log", "log"});
    WaitUntil([] { return LogHolds("log", "running in work") && WorkerIsIdle(); });
    std::filesystem::rename("log", "log.old");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("log", "opened the log anew"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    EXPECT_TRUE(ReadFile("log").ends_with(" vxschedd: stopped\n")) << ReadFile("log");
    EXPECT_FALSE(LogHolds("log.old", "anew"));
    EXPECT_EQ(host.Output(), "");
}

TEST(HostSignals, LogThatCannotBeOpenedAnewIsKept) {
    std::filesystem::create_directory("folder");
    CProgram host(HostWith({"--log", "folder/log"}));
    WaitUntil([] { return LogHolds("folder/log", "running in") && WorkerIsIdle(); });
    std::filesystem::rename("folder", "moved");
    host.Kill(SIGHUP);
    WaitUntil([] { return LogHolds("moved/log", "folder/log: No such file or directory"); });
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
}

TEST(HostLog, IsContinuedAndHoldsWhyTheHostCannotRun) {
    WriteFile("log", "before\n");
    std::filesystem::create_directories("files/scheduler.dat");  // nothing to mend
    CProgram host(HostWith({"--log", "log"}));
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_TRUE(ReadFile("log").starts_with("before\n20")) << ReadFile("log");
    EXPECT_TRUE(LogHolds("log", " vxschedd: cannot make the table fit"));
    EXPECT_TRUE(host.Output().starts_with("vxschedd: cannot make the table fit")) << host.Output();
}

TEST(HostLog, ThatCannotBeOpenedIsRefused) {
    CProgram host(HostWith({"--log", "no folder/log"}));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(host.Output().find("no folder/log: No such file or directory. Name another with "
                                 "--log."),
              std::string::npos)
        << host.Output();
}

TEST(HostLog, PipeThatNobodyReadsIsRefusedAndNotWaitedFor) {
    ASSERT_EQ(mkfifo("pipe", 0644), 0);
    CProgram host(HostWith({"--log", "./pipe"}));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(host.Output().find("pipe: it is no file, or a pipe that nobody reads. Name another "
                                 "with --log."),
              std::string::npos)
        << host.Output();
}

TEST(HostLog, PipeIsWrittenToAsLongAsItTakesTheLines) {
    ASSERT_EQ(mkfifo("pipe", 0644), 0);
    const int reader = open("pipe", O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    CProgram host(HostWith({"--log", "./pipe"}));
    std::string log;
    const auto readOn = [&] {
        char block[4096];
        const ssize_t count = read(reader, block, sizeof block);
        log.append(block, count > 0 ? static_cast<std::size_t>(count) : 0);
        return log.find(" as process ") != std::string::npos;
    };
    WaitUntil(readOn);
    // With a pipe as full as can be, it goes on without its lines.
    const int filler = open("pipe", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (write(filler, "", 1) == 1) {
    }
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    close(filler);
    close(reader);
}
