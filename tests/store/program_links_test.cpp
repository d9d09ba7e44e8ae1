// Links with safe names for programs that the add-in cannot launch by their own path: shown as the
// program that they lead to, removed a day after they were found unused.

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
#include "ProgramLink.h"

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

TEST(ClientLinks, LeadToTheProgram) {
    const std::string link = MakeProgramLink("/usr/bin/free", "free-1");
    EXPECT_EQ(RealProgram(".", link), "/usr/bin/free");
    EXPECT_TRUE(IsLinkPath(".", link));
    EXPECT_FALSE(IsLinkPath("files", link));
    EXPECT_TRUE(IsLinkPathOfAnotherStore("files", link));
}

// The same directory may be written in several ways.
TEST(ClientLinks, LeadToTheProgramWhateverTheDirectoryIsCalled) {
    const std::string link = MakeProgramLink("/usr/bin/free", "free-1");
    fs::create_directory_symlink(fs::current_path(), "another-name");
    EXPECT_EQ(RealProgram("another-name", link), "/usr/bin/free");
    EXPECT_EQ(RealProgram(".", fs::absolute("another-name/files/programs/free-1")),
              "/usr/bin/free");
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
    const std::string one = MakeProgramLink(Program("free"), "free-1");
    const std::string two = MakeProgramLink(Program("backup.sh"), "backup-sh-1");
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
    TTaskEntry owed = TaskOf(MakeProgramLink(Program("free"), "free-1"));
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
    const TTable without;
    TTable with;
    with.tasks = {TaskOf(MakeProgramLink(Program("free"), "free-1"))};
    const std::string link = with.tasks[0].program;
    RemoveUnusedLinks(".", without);
    LetAge(link, std::chrono::hours(30));
    RemoveUnusedLinks(".", with);
    RemoveUnusedLinks(".", without);
    EXPECT_TRUE(fs::is_symlink(link)) << "in the table again";
}
