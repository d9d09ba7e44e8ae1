// The examples of docs/examples that are no programs.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "Cli.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

class Examples : public Cli {
protected:
    Examples() {
        const std::string here = fs::current_path();
        const std::string programs = fs::path(TOOL_PROGRAM).parent_path();
        setenv("PATH", (programs + ":/usr/bin:/bin").c_str(), 1);
        setenv("HOME", here.c_str(), 1);
        setenv("VXSCHED_DIRECTORY", here.c_str(), 1);
        setenv("TASKS_CHECKOUT", (here + "/checkout").c_str(), 1);
        for (const char* const who : {"GIT_AUTHOR", "GIT_COMMITTER"}) {
            setenv((std::string(who) + "_NAME").c_str(), "A", 1);
            setenv((std::string(who) + "_EMAIL").c_str(), "a@example.org", 1);
        }
    }

    static std::string Shell(const std::string& text) {
        CProgram shell({"/bin/sh", "-ec", text});
        EXPECT_EQ(shell.Wait(), 0) << text << '\n' << shell.Output();
        return shell.Output();
    }
};

}  // namespace

TEST_F(Examples, FileOfTasksIsValid) {
    std::string tasks = ReadFile(EXAMPLES "/tasks/nightly.toml");
    if (geteuid() != 0) {
        // Only the superuser's store has jobs of others.
        const std::string user = "user = \"www-data\"\n";
        tasks.erase(tasks.find(user), user.size());
    }
    WriteFile("tasks.toml", tasks);
    Output({"apply", "tasks.toml", "--force", "missing-program"});
    EXPECT_EQ(NamesInTable(), "backup poll-feeds report rotate-keys");
}

TEST_F(Examples, GitHookAppliesWhatIsPushed) {
    Shell("git init -q --bare store.git; cp " EXAMPLES "/post-receive store.git/hooks/");
    Shell("git init -q -b main work; mkdir work/tasks; cd work; git remote add store ../store.git");
    const auto push = [](const std::string& tasks) {
        WriteFile("work/tasks/all.toml", tasks);
        return Shell("cd work; git add .; git commit -qm x; git push -q store main 2>&1 || true");
    };
    const std::string task = "[tasks.a]\nshell = 'a'\ndaily = '02:30'\n";
    EXPECT_THAT(push(task + "[tasks.b]\nshell = 'b'\ndaily = '02:30'\n"), HasSubstr("created b"));
    EXPECT_EQ(NamesInTable(), "a b");
    EXPECT_THAT(push(task + "timeout = 'soon'\n"), HasSubstr("all.toml:4:11: --timeout"));
    EXPECT_EQ(NamesInTable(), "a b");
    EXPECT_THAT(push(task), HasSubstr("removed b"));
    EXPECT_EQ(NamesInTable(), "a");
    Shell(
        "cd work; git checkout -q -b other; git rm -q tasks/all.toml; git commit -qm y; git push "
        "-q store other");
    EXPECT_EQ(NamesInTable(), "a") << "of another branch nothing is applied";
}
