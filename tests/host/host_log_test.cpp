// The log of the host: a file or a pipe, a stalled reader, and lines at debug level.

#include <VXC_Log.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <host/CHostLog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "LogCapture.h"
#include "Process.h"

// "Failed waitpid." is no failure, and only the journal shows its level.
TEST(HostLog, DebugLinesAreWrittenToNoFile) {
    CForkedChild child([] {
        CHostLog& log = CHostLog::Instance();
        log.CaptureAddInMessages();
        log.WriteTo("log");
        VXC_LogMessage(cStillRunning);
        VXC_LogMessage(cLaunchFailed);
        log.Write(EPriority::cDebug, "a detail");
        return LogHolds("log", std::string(" ") + cLaunchFailed + '\n') &&
                       !LogHolds("log", cStillRunning) && !LogHolds("log", "a detail")
                   ? 42
                   : 1;
    });
    EXPECT_EQ(child.Wait(), 42);
}

// Names of tasks, and what the add-in logs, may have any bytes.
TEST(HostLog, ShowsNothingThatATerminalWouldObey) {
    CForkedChild child([] {
        CHostLog::Instance().WriteTo("log");
        LogInfo("a\n\033[1m \xc2\x9b \x9b \xe2\x80\xae \xc3\xa4");
        const std::string replaced = "\xef\xbf\xbd";
        return LogHolds("log", "vxschedd: a" + replaced + replaced + "[1m " + replaced + ' ' +
                                   replaced + ' ' + replaced + " \xc3\xa4\n")
                   ? 42
                   : 1;
    });
    EXPECT_EQ(child.Wait(), 42);
}

// Nor may a path, or any other argument.
TEST(HostLog, ArgumentForgesNoLineOfAnErrorMessage) {
    const std::string replaced = "\xef\xbf\xbd";
    const std::string forged = "x\nvxschedd: forged \033[31m \u009b \x9b \u202e \u2028 \ufeff";
    std::filesystem::create_directory("dir" + forged);
    WriteFile("file" + forged, "");
    const std::vector<std::vector<std::string>> commands = {
        HostWith({"--" + forged}),
        HostWith({forged}),
        HostWith({"--addin", forged}),
        HostWith({"--addin", "./dir" + forged}),
        HostWith({"--addin", "./file" + forged}),
        HostWith({"--log", forged + "/log"}),
        HostWith({"--log", "dir" + forged}),
        HostWith({"--output", forged + "/output"}),
        HostWith({"--output", "file" + forged}),
        HostWith({"--output-size", forged}),
        HostWith({"--history-size", forged}),
        HostWith({"--lock-timeout", forged}),
        HostWith({"--snapshots", forged}),
        {HOST_PROGRAM, "--directory", forged},
        {HOST_PROGRAM, "--directory", "file" + forged}};
    for (std::vector<std::string> command : commands) {
        CProgram host(command);
        EXPECT_NE(host.Wait(), 0) << testing::PrintToString(command);
        EXPECT_NE(host.Output().find("x" + replaced + "vxschedd: forged"), std::string::npos)
            << host.Output();
        command.emplace_back("--check");
        CProgram check(command);
        check.Wait();
        const std::string shown = host.Output() + check.Output();
        for (const char* const control :
             {"\nvxschedd: forged", "\033", "\u009b", " \x9b", "\u202e", "\u2028", "\ufeff"})
            EXPECT_EQ(shown.find(control), std::string::npos) << testing::PrintToString(shown);
    }
}

TEST(HostLog, StalledReaderLosesLinesThatAreCountedAndDelaysNothing) {
    CForkedChild child([] {
        int ends[2];
        if (pipe2(ends, O_NONBLOCK) != 0)
            return 1;
        const std::string block(4096, 'x');
        while (write(ends[1], block.data(), block.size()) > 0) {
        }
        fcntl(ends[1], F_SETFL, 0);
        dup2(ends[1], STDERR_FILENO);
        for (const char* const line : {"one", "two", "three"})
            LogInfo(line);
        const auto takeAll = [&] {
            std::string all(1 << 20, '\0');
            const ssize_t count = read(ends[0], all.data(), all.size());
            all.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
            return all;
        };
        takeAll();
        LogInfo("four");
        const std::string lines = takeAll();
        return lines.find("vxschedd: 3 line(s) lost") < lines.find("vxschedd: four\n") ? 42 : 2;
    });
    EXPECT_EQ(child.Wait(), 42);
}

TEST(HostLog, IsContinuedAndHoldsWhyTheHostCannotRun) {
    WriteFile("log", "before\n");
    std::filesystem::create_directories("files/scheduler.dat");  // nothing to repair
    CProgram host(HostWith({"--log", "log"}));
    EXPECT_EQ(host.Wait(), 6);
    EXPECT_TRUE(ReadFile("log").starts_with("before\n20")) << ReadFile("log");
    EXPECT_TRUE(LogHolds("log", " vxschedd: cannot prepare the table"));
    EXPECT_TRUE(host.Output().starts_with("vxschedd: cannot prepare the table")) << host.Output();
}

TEST(HostLog, ThatCannotBeOpenedIsRefused) {
    CProgram host(HostWith({"--log", "no directory/log"}));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(host.Output().find("cannot open the log " + std::filesystem::current_path().string() +
                                 "/no directory/log: No such file or directory. Choose another "
                                 "file with --log."),
              std::string::npos)
        << host.Output();
}

TEST(HostLog, PipeWithoutAReaderIsRefusedAndNotWaitedFor) {
    ASSERT_EQ(mkfifo("pipe", 0644), 0);
    CProgram host(HostWith({"--log", "./pipe"}));
    EXPECT_EQ(host.Wait(), 1);
    EXPECT_NE(host.Output().find("pipe: it is not a file, or a FIFO without a reader. "
                                 "Choose another file with --log."),
              std::string::npos)
        << host.Output();
}

TEST(HostLog, PipeIsWrittenToUntilItIsFull) {
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
    // With a full pipe the host continues without its lines.
    const int filler = open("pipe", O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    while (write(filler, "", 1) == 1) {
    }
    host.Kill(SIGTERM);
    EXPECT_EQ(host.Wait(), 0);
    close(filler);
    close(reader);
}
