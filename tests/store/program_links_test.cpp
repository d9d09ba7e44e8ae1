// Links with safe names for programs that the add-in cannot launch by their own path: made once,
// shown as the program that they lead to, removed a day after they were found unused.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "store/ProgramLinks.h"

#include <chrono>
#include <filesystem>
#include <string>

#include "Process.h"

using namespace vxsched;
namespace fs = std::filesystem;

static std::string Here(const std::string& name) {
    return (fs::current_path() / name).string();
}

static std::string Program(const std::string& name) {
    WriteFile(name, "");
    chmod(name.c_str(), 0755);
    return Here(name);
}

static TTaskEntry TaskOf(const std::string& program) {
    return {"task", TTime(std::chrono::seconds(10)), TTime(), 24, program, "", false};
}

TEST(ClientLinks, ProgramThatALaunchLeavesAloneNeedsNone) {
    EXPECT_EQ(MakeSchedulable(".", Program("tool")), Here("tool"));
    EXPECT_FALSE(fs::exists("files"));
}

TEST(ClientLinks, LinkIsSafeToScheduleAndLeadsToTheProgram) {
    fs::create_directory("files");
    for (const char* const name : {"free", "backup.sh", "job.py", "box", "x.exe", "many.dots.e"}) {
        const std::string program = Program(name);
        const std::string link = MakeSchedulable(".", program);
        EXPECT_EQ(fs::path(link).parent_path(), Here("files/programs")) << name;
        EXPECT_TRUE(Validate(TaskOf(link), TTime()).empty()) << link;
        EXPECT_TRUE(fs::equivalent(link, program));
        EXPECT_EQ(RealProgram(".", link), program);
    }
}

TEST(ClientLinks, ProgramHasOneLinkAndAnotherOfTheSameNameAnotherOne) {
    fs::create_directory("files");
    const std::string program = Program("free");
    const std::string link = MakeSchedulable(".", program);
    EXPECT_EQ(MakeSchedulable(".", program), link);
    fs::create_directory("elsewhere");
    const std::string other = MakeSchedulable(".", Program("elsewhere/free"));
    EXPECT_NE(other, link);
    EXPECT_EQ(RealProgram(".", other), Here("elsewhere/free"));
    EXPECT_EQ(RealProgram(".", link), program);
}

TEST(ClientLinks, OtherPathsAreWhatTheyAre) {
    EXPECT_EQ(RealProgram(".", "/usr/bin/env"), "/usr/bin/env");
    EXPECT_EQ(RealProgram(".", Here("files/programs/gone-1")), Here("files/programs/gone-1"));
}

// As of a link that was found unused so long ago.
static void LetAge(const std::string& link, std::chrono::hours age) {
    struct stat status {};
    ASSERT_EQ(lstat(link.c_str(), &status), 0);
    const timespec times[] = {status.st_atim,
                              {status.st_mtim.tv_sec - std::chrono::seconds(age).count(), 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, link.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
}

TEST(ClientLinks, LinkIsKeptForADayAfterTheLastTaskThatNeedsIt) {
    fs::create_directory("files");
    const std::string one = MakeSchedulable(".", Program("free"));
    const std::string two = MakeSchedulable(".", Program("backup.sh"));
    WriteFile("files/programs/kept", "not a link");
    TTable table;
    table.tasks = {TaskOf(one), TaskOf(two)};
    RemoveUnusedLinks(".", table);
    EXPECT_TRUE(fs::is_symlink(one));
    table.tasks.erase(table.tasks.begin());
    RemoveUnusedLinks(".", table);
    LetAge(one, std::chrono::hours(23));
    RemoveUnusedLinks(".", table);
    EXPECT_TRUE(fs::is_symlink(one));
    LetAge(one, std::chrono::hours(2));
    RemoveUnusedLinks(".", table);
    EXPECT_FALSE(fs::exists(fs::symlink_status(one)));
    EXPECT_TRUE(fs::is_symlink(two));
    EXPECT_TRUE(fs::exists("files/programs/kept"));
    fs::remove_all("files");
    RemoveUnusedLinks(".", table);
}

TEST(ClientLinks, LinkOfAnOwedLaunchIsKept) {
    fs::create_directories("files/owed");
    TTaskEntry owed = TaskOf(MakeSchedulable(".", Program("free")));
    WriteFile("files/owed/task@10", EncodeTable({owed}));
    const TTable table;
    RemoveUnusedLinks(".", table);
    LetAge(owed.program, std::chrono::hours(30));
    RemoveUnusedLinks(".", table);
    EXPECT_TRUE(fs::is_symlink(owed.program));
    fs::remove_all("files/owed");
    RemoveUnusedLinks(".", table);
    LetAge(owed.program, std::chrono::hours(30));
    RemoveUnusedLinks(".", table);
    EXPECT_FALSE(fs::is_symlink(owed.program));
}

// A day begins when no task uses the link any more.
TEST(ClientLinks, LinkThatIsUsedAgainIsKeptAnew) {
    fs::create_directory("files");
    const TTable without;
    TTable with;
    with.tasks = {TaskOf(MakeSchedulable(".", Program("free")))};
    const std::string link = with.tasks[0].program;
    RemoveUnusedLinks(".", without);
    LetAge(link, std::chrono::hours(30));
    MakeSchedulable(".", Program("free"));
    RemoveUnusedLinks(".", without);
    EXPECT_TRUE(fs::is_symlink(link)) << "made again";
    LetAge(link, std::chrono::hours(30));
    RemoveUnusedLinks(".", with);
    RemoveUnusedLinks(".", without);
    EXPECT_TRUE(fs::is_symlink(link)) << "in the table again";
}

TEST(ClientLinks, DirectoryThatCannotBeMadeIsAnErrorWithItsName) {
    WriteFile("files", "in the way");
    try {
        MakeSchedulable(".", Program("free"));
        ADD_FAILURE() << "nothing was thrown";
    } catch (const CError& error) {
        EXPECT_EQ(error.Code(), EError::cFailed);
        EXPECT_EQ(std::string(error.what()), "cannot make a link to " + Here("free") + " in " +
                                                 Here("files/programs") + ": Not a directory");
    }
}
