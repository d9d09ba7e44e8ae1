// Links with safe names for programs that the add-in cannot launch by their own path: made once,
// shown as the program that they lead to, removed with their last task.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxsched/Error.h>
#include <vxsched/Validation.h>
#include "store/ProgramLinks.h"

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

TEST(ClientLinks, LinkGoesWithTheLastTaskThatNeedsIt) {
    fs::create_directory("files");
    const std::string one = MakeSchedulable(".", Program("free"));
    const std::string two = MakeSchedulable(".", Program("backup.sh"));
    WriteFile("files/programs/kept", "not a link");
    TTable table;
    table.tasks = {TaskOf(one), TaskOf(two), TaskOf(one)};
    RemoveUnusedLinks(".", table);
    EXPECT_TRUE(fs::is_symlink(one));
    table.tasks.erase(table.tasks.begin());
    RemoveUnusedLinks(".", table);
    EXPECT_TRUE(fs::is_symlink(one));
    table.tasks.pop_back();
    RemoveUnusedLinks(".", table);
    EXPECT_FALSE(fs::exists(fs::symlink_status(one)));
    EXPECT_TRUE(fs::is_symlink(two));
    EXPECT_TRUE(fs::exists("files/programs/kept"));
    fs::remove_all("files");
    RemoveUnusedLinks(".", table);
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
