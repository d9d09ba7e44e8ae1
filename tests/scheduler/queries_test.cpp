// The queries: their answers, that they change nothing, and the effect of IsTaskRunning on the
// mutex.

#include <CEvent.h>
#include <CPopen.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include "interpose/NextDefinition.h"

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "LogCapture.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

static constexpr char cTaskChanged[] = "Global\\schTaskChanged-69BD-4438-B706-07D710576930";

// ---- Interposed calls of the support library --------------------------------------------------

// Called by the support library on the thread of the query. popen records the command, open calls
// gOnOpen; both then do what libc does, errno included.

static std::vector<std::string> gCommands;
static std::function<void(const char*)> gOnOpen;

extern "C" std::FILE* popen(const char* command, const char* mode) {
    gCommands.push_back(std::string(command) + '|' + mode);
    return NextDefinition<decltype(popen)>("popen")(command, mode);
}

extern "C" int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const unsigned int mode = va_arg(arguments, unsigned int);
    va_end(arguments);
    if (gOnOpen)
        gOnOpen(path);
    return NextDefinition<int(const char*, int, ...)>("open")(path, flags, mode);
}

// Called by IsTaskRunning. If gProbe is set, it is given each size and returns what is put into the
// buffer and the count that is returned; without it the support library reads.
static std::function<std::pair<std::string, int>(int)> gProbe;

int CPopen::Read(void* buffer, int size) {
    if (!gProbe)
        return NextDefinition<int(CPopen*, void*, int)>("_ZN6CPopen4ReadEPvi")(this, buffer, size);
    const auto [text, count] = gProbe(size);
    std::memcpy(buffer, text.c_str(), text.size() + 1);
    return count;
}

class Queries : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        library.emplace();
        WriteTable({{"task", 5'000'000'000, -7, 24, "/bin/program", "text", 1},
                    {"other", 6'000'000'000, 9, 0, "", "", 0},
                    {"task", 1, 2, 3, "second", "of the name", 0}});
    }

    CFakeSystem system;
    CLogCapture log;
    std::optional<CAddinLibrary> library;
};

TEST_F(Queries, AnswerForTheFirstTaskOfTheName) {
    long next = 0;
    long last = 0;
    unsigned int period = 0;
    EXPECT_TRUE(library->IsScheduled("task"));
    library->GetNextExecution("task", &next);
    library->GetLastExecuted("task", &last);
    EXPECT_TRUE(library->GetTaskPeriod("task", &period));
    EXPECT_EQ(next, 5'000'000'000);
    EXPECT_EQ(last, -7);
    EXPECT_EQ(period, 24U);
}

TEST_F(Queries, PeriodOfATaskThatRunsOnceIsZeroAndFound) {
    unsigned int period = 7;
    EXPECT_TRUE(library->GetTaskPeriod("other", &period));
    EXPECT_EQ(period, 0U);
}

static void ExpectNothingFound(const CAddinLibrary& library, const char* name) {
    long next = 11;
    long last = 12;
    unsigned int period = 13;
    EXPECT_FALSE(library.IsScheduled(name));
    library.GetNextExecution(name, &next);
    library.GetLastExecuted(name, &last);
    EXPECT_FALSE(library.GetTaskPeriod(name, &period));
    EXPECT_FALSE(library.IsTaskRunning(name));
    EXPECT_EQ(next, 11) << "unchanged";
    EXPECT_EQ(last, 12) << "unchanged";
    EXPECT_EQ(period, 0U) << "set to 0";
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(gCommands.empty());
}

TEST_F(Queries, UnknownNameIsNoError) {
    ExpectNothingFound(*library, "unknown");
    ExpectNothingFound(*library, "");
    ExpectNothingFound(*library, "tas");
    ExpectNothingFound(*library, "task ");
    ExpectNothingFound(*library, "Task");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(Queries, FileThatIsMissingIsAFailedReload) {
    library->IsScheduled("task");
    std::filesystem::remove(cTable);
    ExpectNothingFound(*library, "task");
    EXPECT_TRUE(log.Take().empty());
    EXPECT_EQ(library->TaskList()->size(), 3U) << "the list stays";
    EXPECT_FALSE(std::filesystem::exists(cTable));
}

TEST_F(Queries, DamagedFileIsAFailedReloadAndReset) {
    WriteFile(cTable, "damaged");
    unsigned int period = 13;
    EXPECT_FALSE(library->GetTaskPeriod("task", &period));
    EXPECT_EQ(period, 0U);
    EXPECT_EQ(log.Take(), std::vector<std::string>({cReadingFailed}));
    EXPECT_EQ(ReadTable(), TRows());
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Queries, NullNameIsNotFoundInAnEmptyTable) {
    WriteTable({});
    ExpectNothingFound(*library, nullptr);
}

TEST_F(Queries, ReadTheFileBeforeEachAnswer) {
    EXPECT_TRUE(library->IsScheduled("task"));
    WriteTable({{"new", 1, 0, 1, "", "", 0}});
    EXPECT_FALSE(library->IsScheduled("task"));
    EXPECT_TRUE(library->IsScheduled("new"));
}

TEST_F(Queries, ChangeNeitherTheFileNorTheEvent) {
    CEvent changed(cTaskChanged, true);
    const std::string before = ReadFile(cTable);
    struct stat first {};
    struct stat second {};
    ASSERT_EQ(::stat(cTable, &first), 0);
    long value = 0;
    unsigned int period = 0;
    library->IsScheduled("task");
    library->GetNextExecution("task", &value);
    library->GetLastExecuted("unknown", &value);
    library->GetTaskPeriod("task", &period);
    ASSERT_EQ(::stat(cTable, &second), 0);
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_EQ(first.st_mtim.tv_nsec, second.st_mtim.tv_nsec);
    EXPECT_EQ(changed.Wait(0), 0);
}

TEST_F(Queries, HoldTheMutexWhileTheyReadAndNotAfterwards) {
    int value = -1;
    gOnOpen = [&](const char* path) {
        if (std::string(path) == cTable)
            value = StoreSemaphoreValue();
    };
    library->IsScheduled("task");
    EXPECT_EQ(value, 0);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Queries, ForeignExceptionPassesOnAndReleasesTheMutex) {
    const std::string before = ReadFile(cTable);
    gOnOpen = [](const char* path) {
        if (std::string(path) == cTable)
            throw 42;
    };
    long value = 3;
    EXPECT_THROW(library->IsScheduled("task"), int);
    EXPECT_THROW(library->GetNextExecution("task", &value), int);
    EXPECT_THROW(library->IsTaskRunning("task"), int);
    gOnOpen = nullptr;
    EXPECT_EQ(value, 3);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_EQ(ReadFile(cTable), before);
    EXPECT_TRUE(log.Take().empty());
}

// ---- IsTaskRunning ----------------------------------------------------------------------------

class Running : public testing::Test {
protected:
    void SetUp() override {
        WriteTable({});
        library.emplace();
    }

    bool IsRunning(const std::string& program) {
        WriteTable({{"task", 5'000'000'000, 0, 24, program, "", 0}});
        return library->IsTaskRunning("task");
    }

    std::optional<CAddinLibrary> library;
};

TEST_F(Running, RunsPsAndGrepWithTheProgramUnchanged) {
    IsRunning("/opt/no such program");
    EXPECT_EQ(gCommands, std::vector<std::string>({"ps -e | grep /opt/no such program|re"}));
}

TEST_F(Running, FindsAProgramByItsNameAndNotOneThatDoesNotRun) {
    const CProgram sleeper({PROGRAMS "/wait-forever"});
    WaitUntil([&] { return IsRunning("wait-forever"); });
    EXPECT_FALSE(IsRunning("wait-for-nobody"));
}

TEST_F(Running, PartOfAnotherProgramsNameCounts) {
    const CProgram sleeper({PROGRAMS "/wait-forever"});
    WaitUntil([&] { return IsRunning("wait-forever"); });
    EXPECT_TRUE(IsRunning("wait-for"));
    EXPECT_TRUE(IsRunning("ait-forev"));
}

TEST_F(Running, PathDoesNotOccurInTheListing) {
    const CProgram sleeper({PROGRAMS "/wait-forever"});
    WaitUntil([&] { return IsRunning("wait-forever"); });
    EXPECT_FALSE(IsRunning(PROGRAMS "/wait-forever"));
}

TEST_F(Running, EmptyProgramOccursAnywhere) {
    EXPECT_TRUE(IsRunning(""));
}

TEST_F(Running, ProgramReachesTheShellUnquoted) {
    EXPECT_FALSE(IsRunning("nothing; touch 'made by the shell'"));
    EXPECT_TRUE(std::filesystem::exists("made by the shell"));
}

TEST_F(Running, OnlyTheFirstBytesOfTheOutputCount) {
    // The command prints itself after `count` other characters.
    const auto occursAfter = [&](int count) {
        const std::string command =
            ">/dev/null; head -c " + std::to_string(count) + " /dev/zero | tr '\\0' x; cat copy";
        WriteFile("copy", command);
        return IsRunning(command);
    };
    EXPECT_TRUE(occursAfter(100));
    const int length = static_cast<int>(ReadFile("copy").size());
    EXPECT_TRUE(occursAfter(1023 - length - 0));
    EXPECT_FALSE(occursAfter(1024 - length + 1));
    EXPECT_FALSE(occursAfter(5000));
}

TEST_F(Running, ReadsOnceIntoABufferOf1024BytesAndIgnoresTheCount) {
    std::vector<int> sizes;
    for (const int count : {-1, 0, 5}) {
        for (const char* const text : {"the tool runs", "tool", "too", ""}) {
            gProbe = [&](int size) {
                sizes.push_back(size);
                return std::pair(text, count);
            };
            EXPECT_EQ(IsRunning("tool"), std::string(text).find("tool") != std::string::npos)
                << text << ' ' << count;
        }
    }
    gProbe = nullptr;
    EXPECT_EQ(sizes, std::vector<int>(12, 1024));
}

TEST_F(Running, LeavesTheMutexOneAboveWhereItFoundItEachTime) {
    IsRunning("no such program");
    EXPECT_EQ(StoreSemaphoreValue(), 2);
    IsRunning("no such program");
    EXPECT_EQ(StoreSemaphoreValue(), 3);
    EXPECT_FALSE(library->IsTaskRunning("unknown"));
    EXPECT_EQ(StoreSemaphoreValue(), 3) << "an unknown task adds nothing";
}

TEST_F(Running, ProbesWithoutTheMutex) {
    // The command waits until this process has locked and released the mutex.
    WriteTable({{"task", 5'000'000'000, 0, 24,
                 "nothing; touch probing; until test -e passed; do :; done", "", 0}});
    CForkedChild prober([&] { return library->IsTaskRunning("task") ? 1 : 0; });
    WaitUntil([] { return std::filesystem::exists("probing"); });
    EXPECT_EQ(StoreSemaphoreValue(), 1);
    EXPECT_TRUE(library->IsScheduled("task"));
    WriteFile("passed", "");
    EXPECT_EQ(prober.Wait(), 0);
}

TEST_F(Running, AnswersForTheProgramThatTheTaskHadWhenItWasRead) {
    EXPECT_TRUE(IsRunning(""));
    WriteTable({{"task", 5'000'000'000, 0, 24, "no such program", "", 0}});
    EXPECT_FALSE(library->IsTaskRunning("task"));
}

TEST_F(Running, SchedulingThreadAnswersFromMemory) {
    CFakeSystem system;
    library->Create("task", 5'000'000'000, 1, "");
    library->Tick();
    WriteTable({});
    EXPECT_TRUE(library->IsTaskRunning("task"));
}
