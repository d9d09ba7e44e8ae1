// The launch of a task's program: the trimmed path, the child's arguments, the system calls, the
// log and the last launch.

#include <VXC_File.h>
#include <VXC_Log.h>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr time_t cNow = 1'000'000;

class Launcher : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        library.emplace();
    }

    // Launches `program` at once and returns the task as it was saved afterwards.
    TRow Start(const std::string& program, const std::string& parameters = "parameter") {
        WriteTable({{"task", cNow + 3600, 77, 1, program, parameters, 0}});
        library->ExecuteTaskNow("task", true);
        return ReadTable().at(0);
    }

    CFakeSystem system{cNow};
    CLogCapture log;
    std::optional<CAddinLibrary> library;
};

struct TTrim {
    const char* before;
    const char* after;
};
void PrintTo(const TTrim& trim, std::ostream* out) {
    *out << trim.before;
}

class LauncherTrim : public Launcher, public testing::WithParamInterface<TTrim> {};

TEST_P(LauncherTrim, CutsTheCharactersOffTheStoredPath) {
    const auto [before, after] = GetParam();
    EXPECT_EQ(Start(before).program, after);
    ASSERT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(system.launches[0].path, after);
    EXPECT_EQ(system.launches[0].arguments[0], after);
}

TEST_P(LauncherTrim, ASecondLaunchChangesNothingMore) {
    const auto [before, after] = GetParam();
    EXPECT_EQ(Start(Start(before).program).program, after);
}

INSTANTIATE_TEST_SUITE_P(Paths, LauncherTrim,
                         testing::Values(TTrim{"/opt/tools/report.exe", "/opt/tools/report"},
                                         TTrim{"/opt/tools/report", "/opt/tools/report"},
                                         TTrim{"/usr/local/bin/update.exe", "/usr/local/bin/updat"},
                                         TTrim{"tee.exe", "t"}, TTrim{"/bin/true", "/bin/tru"},
                                         TTrim{"/usr/bin/free", "/usr/bin/fr"},
                                         TTrim{"./x.exe", "./"}, TTrim{"exe", ""}, TTrim{"", ""},
                                         TTrim{"...", ""}, TTrim{".exe", ""}, TTrim{"xe.", ""},
                                         TTrim{"backup.exe", "backup"}, TTrim{"/a.b/c", "/a.b/c"},
                                         TTrim{"C:\\tools\\run.exe", "C:\\tools\\run"},
                                         TTrim{"/opt/x.sh/tool", "/opt/x.sh/tool"},
                                         TTrim{"/opt/tool.", "/opt/tool"},
                                         TTrim{"/opt/.tool", "/opt/.tool"}, TTrim{"a.exe.exe", "a"},
                                         TTrim{"/opt/exe/", "/opt/exe/"}));

TEST_F(Launcher, NoOtherCharacterIsCutOff) {
    for (int byte = 1; byte < 256; ++byte) {
        const auto character = static_cast<char>(byte);
        if (std::string(".ex").find(character) != std::string::npos)
            continue;
        const std::string program = std::string("/opt/tool") + character;
        EXPECT_EQ(Start(program).program, program) << byte;
    }
}

// ---- Interposed: the support library's path splitter ------------------------------------------

// Called by the add-in on the launching thread. It records its arguments, passes the call on to the
// support library and can replace the result. It does not set errno.

// The fake extension of every path, if any.
static const char* gExtension = nullptr;
static std::vector<std::string> gSplit;

void VXC_File::VXC_StripPathUrl(const char* path, char* directory, char* name, char* extension) {
    gSplit = {path, directory == nullptr ? "null" : "a buffer", extension};
    reinterpret_cast<decltype(&VXC_StripPathUrl)>(dlsym(
        RTLD_NEXT, "_ZN8VXC_File16VXC_StripPathUrlEPKcPcS2_S2_"))(path, directory, name, extension);
    std::fill_n(name, 256, 'n');
    if (gExtension != nullptr)
        std::strcpy(extension, gExtension);
}

TEST_F(Launcher, SplitterIsAskedForTheNameAndTheExtensionWithAnEmptyString) {
    Start("/opt/tools/report.exe");
    EXPECT_EQ(gSplit, std::vector<std::string>({"/opt/tools/report.exe", "null", ""}));
}

TEST_F(Launcher, ExtensionOfAnySupportLibraryIsComparedInFull) {
    const std::string longest = "." + std::string(126, 'y');
    for (const char* const extension : {".", "e", ".ex", ".exe.", ".EXE", longest.c_str()}) {
        gExtension = extension;
        EXPECT_DEATH(Start("/opt/tool"), "Assertion `false' failed") << extension;
    }
    for (const char* const extension : {"", ".exe"}) {
        gExtension = extension;
        EXPECT_EQ(Start("/opt/tool").program, "/opt/tool");
    }
    gExtension = nullptr;
}

class LauncherExtension : public Launcher, public testing::WithParamInterface<const char*> {};

TEST_P(LauncherExtension, AbortsTheProcessAndLogsNothing) {
    using testing::AllOf, testing::ContainsRegex, testing::HasSubstr, testing::Not;
    EXPECT_DEATH(
        {
            VXC_SetLogSink(nullptr, nullptr);
            Start(GetParam());
        },
        AllOf(ContainsRegex(
                  "Scheduler\\.cpp:[0-9]+: void Execute\\(TTask\\*&\\): Assertion `false' failed"),
              Not(HasSubstr(cLaunchFailed)), Not(HasSubstr(cStillRunning))));
}

TEST_P(LauncherExtension, NothingIsStartedOrSavedBefore) {
    CForkedChild child([this] {
        system.onLaunch = [](const CFakeSystem::TLaunch&) { _exit(0); };
        Start(GetParam());
        return 0;
    });
    EXPECT_EQ(child.Wait(), 1000 + SIGABRT);
    EXPECT_EQ(ReadTable().at(0).program, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Paths, LauncherExtension,
                         testing::Values("script.sh", "C.EXE", "tool.exe2", "/opt/job.py", "a.ex",
                                         "a.exe.sh", "a. ", "..sh"));

TEST_F(Launcher, ChildGetsItsPathAndOneParameter) {
    EXPECT_EQ(Start("backup.exe", "-full -quiet").program, "backup");
    ASSERT_EQ(system.launches.size(), 1U);
    EXPECT_EQ(system.launches[0].path, "backup");
    EXPECT_EQ(system.launches[0].arguments, std::vector<std::string>({"backup", "-full -quiet"}));
    EXPECT_TRUE(system.launches[0].plain);
}

// Hosts know by it which task is launched, also among duplicates.
TEST_F(Launcher, ArgumentsAreTheStringsOfTheTaskInTheList) {
    int launches = 0;
    system.onLaunch = [&](const CFakeSystem::TLaunch& launch) {
        const TTask& task = *library->TaskList()->front();
        EXPECT_EQ(launch.passed,
                  std::vector<const char*>({task.program.data(), task.parameters.data()}));
        ++launches;
    };
    Start("backup.exe", "-full -quiet");
    Start("/a/path/that/is/not/within/the/string", "");
    EXPECT_EQ(launches, 2);
}

TEST_F(Launcher, EmptyParameterIsAnEmptyArgumentNotAMissingOne) {
    Start("/bin/tool", "");
    EXPECT_EQ(system.launches[0].arguments, std::vector<std::string>({"/bin/tool", ""}));
}

TEST_F(Launcher, ParameterIsHandedOnByteForByte) {
    std::string everything;
    for (int byte = 1; byte < 256; ++byte)
        everything += static_cast<char>(byte);
    Start("/bin/tool", everything + std::string(1'000'000, 'p'));
    EXPECT_EQ(system.launches[0].arguments[1], everything + std::string(1'000'000, 'p'));
}

TEST_F(Launcher, StringsEndAtAZeroByteForTheChildOnly) {
    const std::string program("/bin/to\0ol", 10);
    const std::string parameters("a\0b", 3);
    const TRow row = Start(program, parameters);
    EXPECT_EQ(system.launches[0].arguments, std::vector<std::string>({"/bin/to", "a"}));
    EXPECT_EQ(row.program, program);
    EXPECT_EQ(row.parameters, parameters);
}

TEST_F(Launcher, VeryLongPathIsLaunchedUnchanged) {
    const std::string program = "/" + std::string(100'000, 'd') + "/" + std::string(1000, 'n');
    Start(program);
    EXPECT_EQ(system.launches[0].path, program);
}

TEST_F(Launcher, RunningChildIsAskedForOnceAndLogged) {
    system.ended = false;
    Start("/bin/tool");
    EXPECT_EQ(system.waits, std::vector<pid_t>({400'001}));
    EXPECT_EQ(log.Take(), std::vector<std::string>({cStillRunning}));
}

TEST_F(Launcher, EndedChildIsAskedForOnceAndNotLogged) {
    system.ended = true;
    Start("/bin/tool");
    EXPECT_EQ(system.waits, std::vector<pid_t>({400'001}));
    EXPECT_EQ(log.Take(), std::vector<std::string>());
}

TEST_F(Launcher, ChildThatCannotBeWaitedForIsLoggedLikeOneThatRuns) {
    system.waitError = ECHILD;
    EXPECT_EQ(Start("/bin/tool").last, cNow + 2);
    EXPECT_EQ(system.waits, std::vector<pid_t>({400'001}));
    EXPECT_EQ(log.Take(), std::vector<std::string>({cStillRunning}));
}

TEST_F(Launcher, LastLaunchIsTakenAfterThePause) {
    EXPECT_EQ(Start("/bin/tool").last, cNow + 2);
    EXPECT_EQ(system.sleeps, std::vector<unsigned int>({2}));
}

TEST_F(Launcher, PauseIsTakenForAnEndedChildToo) {
    system.ended = true;
    EXPECT_EQ(Start("/bin/tool").last, cNow + 2);
    EXPECT_EQ(system.sleeps, std::vector<unsigned int>({2}));
}

TEST_F(Launcher, FailedLaunchIsLoggedAndTakesNoPause) {
    system.launchResult = ENOENT;
    const TRow row = Start("/bin/free");
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed}));
    EXPECT_TRUE(system.sleeps.empty());
    EXPECT_TRUE(system.waits.empty());
    EXPECT_EQ(row.last, 77);
    EXPECT_EQ(row.program, "/bin/fr") << "the trim stays";
}

TEST_F(Launcher, EmptyPathFailsToStart) {
    system.launchResult = ENOENT;
    Start("exe");
    EXPECT_EQ(system.launches[0].path, "");
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed}));
}

TEST_F(Launcher, StartsAsksLogsPausesAndThenReadsTheClock) {
    std::vector<std::string> order;
    const auto note = [&](const std::string& step) {
        order.push_back(step + ": asked " + std::to_string(system.waits.size()) + ", clock read " +
                        std::to_string(system.timeReadings));
    };
    struct TSink {
        static void Log(const std::string& /*message*/, void* context) {
            (*static_cast<const decltype(note)*>(context))("log");
        }
    };
    system.onLaunch = [&](const CFakeSystem::TLaunch&) { note("launch"); };
    system.onSleep = [&] { note("pause"); };
    VXC_SetLogSink(TSink::Log, const_cast<void*>(static_cast<const void*>(&note)));
    system.timeReadings = 0;
    Start("/bin/tool");
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(order, std::vector<std::string>({"launch: asked 0, clock read 0",
                                               "log: asked 1, clock read 0",
                                               "pause: asked 1, clock read 0"}));
    EXPECT_EQ(system.timeReadings, 1);
}

static void Throw(const std::string& /*message*/, void* /*context*/) {
    throw std::runtime_error("log");
}

TEST_F(Launcher, ExceptionOfTheLogPassesOnAndReleasesTheMutex) {
    WriteTable({{"task", cNow + 3600, 77, 1, "/bin/tool", "", 0}});
    VXC_SetLogSink(Throw, nullptr);
    EXPECT_THROW(library->ExecuteTaskNow("task", true), std::runtime_error);
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(system.sleeps.empty());
    EXPECT_EQ(ReadTable().at(0).last, 77);
}

TEST_F(Launcher, ExceptionOfTheLogAboutAFailedLaunchPassesOnToo) {
    WriteTable({{"task", cNow + 3600, 77, 1, "/bin/tool.exe", "", 0}});
    system.launchResult = ENOENT;
    VXC_SetLogSink(Throw, nullptr);
    EXPECT_THROW(library->ExecuteTaskNow("task", true), std::runtime_error);
    VXC_SetLogSink(nullptr, nullptr);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(ReadTable().at(0).program, "/bin/tool.exe") << "nothing was saved";
}

// The launcher sets the last launch after the pause, unless the pointer is null by then.
TEST(LauncherInside, PointerThatIsClearedDuringThePauseIsNotFollowed) {
    WriteTable({});
    const CInsideLibrary inside;
    CFakeSystem system(cNow);
    const CLogCapture log;
    TTask task;
    task.program = "/bin/tool";
    task.lastExecuted = 77;
    TTask* pointer = &task;
    system.onSleep = [&] { pointer = nullptr; };
    inside.Execute(pointer);
    EXPECT_EQ(system.LaunchedPaths(), "/bin/tool");
    EXPECT_EQ(task.lastExecuted, 77);

    pointer = &task;
    system.onSleep = nullptr;
    inside.Execute(pointer);
    EXPECT_EQ(task.lastExecuted, cNow + 4);
}

TEST(LauncherForReal, StartsAProgramWithTheEnvironmentAndOneParameter) {
    WriteTable({});
    CAddinLibrary library;
    CLogCapture log;
    library.Create("task", 4'000'000'000, 1, PROGRAMS "/record-launch", "the record");
    library.ExecuteTaskNow("task", true);
    WaitUntil([] { return !ReadFile("the record").empty(); });
    EXPECT_EQ(ReadFile("the record").substr(0, 12), "arguments 2\n");
    EXPECT_NE(ReadFile("the record").find("argument the record\n"), std::string::npos);
    EXPECT_GT(ReadTable().at(0).last, 0);
}

TEST(LauncherForReal, PathWithoutADirectoryIsNotSearchedForButRelativeToTheWorkingDirectory) {
    WriteTable({});
    CAddinLibrary library;
    CLogCapture log;
    ASSERT_EQ(setenv("PATH", PROGRAMS, 1), 0);
    library.Create("task", 4'000'000'000, 1, "record-launch", "the record");
    library.ExecuteTaskNow("task", true);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cLaunchFailed}));
    std::filesystem::create_symlink(PROGRAMS "/record-launch", "record-launch");
    library.ExecuteTaskNow("task", true);
    WaitUntil([] { return !ReadFile("the record").empty(); });
}
