// Validation of a task before it gets into the table.

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <vxsched/Validation.h>

#include <filesystem>
#include <string>
#include <vector>

#include "Process.h"

using namespace vxsched;

static constexpr std::int64_t cNow = 1'000'000;

static TTime At(std::int64_t seconds) {
    return TTime(std::chrono::seconds(seconds));
}

// An executable program whose path the add-in launches as it is.
static std::string Program(const std::string& name = "a-tool") {
    WriteFile(name, "");
    chmod(name.c_str(), 0755);
    return (std::filesystem::current_path() / name).string();
}

static TTaskEntry Valid() {
    return {"name", At(cNow + 10), At(0), 24, Program(), "parameter", false};
}

static std::vector<std::string> NamesOf(const TTaskEntry& task) {
    std::vector<std::string> names;
    for (const TValidationError& error : Validate(task, At(cNow)))
        names.push_back(std::string(error.Name()) + (error.canBeForced ? "?" : "!"));
    return names;
}

using TNames = std::vector<std::string>;

static TNames OfProgram(const std::string& program) {
    TTaskEntry task = Valid();
    task.program = program;
    return NamesOf(task);
}

TEST(ClientValidation, ValidTaskHasNoErrors) {
    EXPECT_EQ(NamesOf(Valid()), TNames());
    EXPECT_EQ(OfProgram(Program() + ".exe"), TNames()) << "the launch cuts just this off";
}

TEST(ClientValidation, NameAndStringsAreChecked) {
    TTaskEntry task = Valid();
    task.name = "";
    EXPECT_EQ(NamesOf(task), TNames({"empty-name!"}));
    task = Valid();
    task.parameter = std::string("a\0b", 3);
    EXPECT_EQ(NamesOf(task), TNames({"zero-byte!"}));
}

TEST(ClientValidation, PathThatTheLaunchWouldAlterIsRefused) {
    for (const char* const name : {"free", "box", "dot.", "tee", "e", "x.exe"})
        EXPECT_EQ(OfProgram(Program(name)), TNames({"altered-path!"})) << name;
    EXPECT_EQ(LaunchedPath("/usr/bin/free"), "/usr/bin/fr");
    EXPECT_EQ(LaunchedPath("exe"), "");
    const std::string message =
        Validate({"n", At(cNow), At(0), 1, "/usr/bin/free", "", false}, At(cNow)).front().message;
    EXPECT_NE(message.find("would launch \"/usr/bin/fr\""), std::string::npos) << message;
}

TEST(ClientValidation, ExtensionThatWouldAbortTheHostIsRefused) {
    for (const char* const name : {"backup.sh", "tool.EXE", "tool.exe2", "job.py"})
        EXPECT_EQ(OfProgram(Program(name)), TNames({"aborting-extension!"})) << name;
}

TEST(ClientValidation, ProgramThatCannotBeLaunchedCanBeForced) {
    EXPECT_EQ(OfProgram(""), TNames({"no-program!"}));
    EXPECT_EQ(OfProgram("/no/such/tool"), TNames({"missing-program?"}));
    Program("plain");
    chmod("plain", 0644);
    EXPECT_EQ(OfProgram((std::filesystem::current_path() / "plain").string()),
              TNames({"not-executable?"}));
    EXPECT_EQ(OfProgram(std::filesystem::current_path().string() + "/."),
              TNames({"altered-path!"}));
    std::filesystem::create_directory("directory");
    EXPECT_EQ(OfProgram((std::filesystem::current_path() / "directory").string()),
              TNames({"not-executable?"}));
    Program("tool");
    EXPECT_EQ(OfProgram("tool"), TNames({"relative-path?"}));
    EXPECT_EQ(OfProgram("no-tool"), TNames({"relative-path?", "missing-program?"}));
}

TEST(ClientValidation, PathBeyondWhatTheSystemOpensIsRefused) {
    EXPECT_EQ(OfProgram('/' + std::string(PATH_MAX - 2, 'a')), TNames({"missing-program?"}));
    EXPECT_EQ(OfProgram('/' + std::string(PATH_MAX - 1, 'a')), TNames({"path-too-long!"}));
}

// The system limits each argument of a program to 128 KiB with its terminating zero byte.
TEST(ClientValidation, ArgumentBeyondWhatTheSystemPassesIsRefused) {
    TTaskEntry task = Valid();
    task.parameter = std::string(131'071, 'a');
    EXPECT_EQ(NamesOf(task), TNames());
    task.parameter += 'a';
    EXPECT_EQ(NamesOf(task), TNames({"parameter-too-long!"}));
}

TEST(ClientValidation, PeriodsThatWrapAreDistinguished) {
    TTaskEntry task = Valid();
    task.period = 1193046;
    EXPECT_EQ(NamesOf(task), TNames());
    task.period = 1193047;
    EXPECT_EQ(NamesOf(task), TNames({"wrapped-period?"}));
    task.period = 268435456;
    EXPECT_EQ(NamesOf(task), TNames({"endless-period!"}));
    task.period = 4294967295;
    EXPECT_EQ(NamesOf(task), TNames({"wrapped-period?"}));
}

TEST(ClientValidation, PastDueTimeMattersToATaskThatRunsOnce) {
    TTaskEntry task = Valid();
    task.next = At(cNow - 11);
    EXPECT_EQ(NamesOf(task), TNames());
    task.period = 0;
    EXPECT_EQ(NamesOf(task), TNames({"past-due?"}));
    task.next = At(cNow - 10);
    EXPECT_EQ(NamesOf(task), TNames());
}

TEST(ClientValidation, WorstComesFirst) {
    TTaskEntry task = Valid();
    task.name = "";
    task.program = "tool";
    task.period = 268435456;
    EXPECT_EQ(NamesOf(task),
              TNames({"empty-name!", "endless-period!", "relative-path?", "missing-program?"}));
}
