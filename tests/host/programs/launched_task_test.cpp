// Which task of the add-in's list a launch is for.

#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>
#include "host/programs/LaunchedTask.h"

#include <list>
#include <string>

// A task as the add-in's list holds it.
class CListedTask : public TTask {
public:
    CListedTask(const std::string& itsName, const std::string& itsProgram,
                const std::string& itsParameter) {
        name = itsName;
        program = itsProgram;
        parameters = itsParameter;
    }
};

static std::string Found(const std::list<TTask*>& tasks, const TTask& launched) {
    const TTask* const found =
        FindLaunchedTask(tasks, launched.program.c_str(), launched.parameters.c_str());
    return found != nullptr ? found->name : "";
}

TEST(LaunchedTask, IsFoundAmongDuplicates) {
    CListedTask first("first", "/bin/run", "x");
    CListedTask paused("paused", "/bin/run", "x");
    CListedTask later("later", "/bin/run", "x");
    CListedTask last("last", "/bin/run", "x");
    paused.paused = 1;
    later.nextExecution = 4'000'000'000;
    const std::list<TTask*> tasks = {&first, &paused, &later, &last};
    for (const TTask* const task : tasks)
        EXPECT_EQ(Found(tasks, *task), task->name);
}

TEST(LaunchedTask, IsFoundByEmptyStringsAndThoseWithZeroBytes) {
    CListedTask empty("empty", "", "");
    CListedTask alsoEmpty("also empty", "", "");
    CListedTask zero("zero", std::string("\0tail", 5), std::string("\0tail", 5));
    const std::list<TTask*> tasks = {&empty, &alsoEmpty, &zero};
    for (const TTask* const task : tasks)
        EXPECT_EQ(Found(tasks, *task), task->name);
}

TEST(LaunchedTask, IsUnknownIfTheBuffersAreNotThoseOfOneTask) {
    CListedTask one("one", "/bin/run", "x");
    CListedTask other("other", "/bin/run", "x");
    const std::list<TTask*> tasks = {&one, &other};
    EXPECT_EQ(Found(tasks, CListedTask("copy", "/bin/run", "x")), "");
    EXPECT_EQ(FindLaunchedTask(tasks, one.program.c_str(), other.parameters.c_str()), nullptr);
    EXPECT_EQ(FindLaunchedTask(tasks, one.program.c_str(), nullptr), nullptr);
    EXPECT_EQ(Found({}, one), "");
}
