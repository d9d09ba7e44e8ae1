// What /proc shows of a process.

#include "base/Processes.h"
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <optional>
#include <vector>

#include "Process.h"

TEST(Processes, NumberIsAllDigits) {
    EXPECT_EQ(vxsched::ParseProcess("42"), 42);
    for (const char* const other : {"", "self", "42x", " 42", "-42", "0", "99999999999999999999"})
        EXPECT_EQ(vxsched::ParseProcess(other), std::nullopt) << other;
}

TEST(Processes, ZombieHasEnded) {
    const CForkedChild child([] {
        pause();
        return 0;
    });
    EXPECT_FALSE(vxsched::HasEnded(child.Id()));
    child.Kill(SIGKILL);
    siginfo_t end{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.Id()), &end, WEXITED | WNOWAIT), 0);
    EXPECT_TRUE(vxsched::HasEnded(child.Id()));
}

TEST(Processes, CollectedOneHasEnded) {
    CForkedChild child([] { return 0; });
    const pid_t id = child.Id();
    child.Wait();
    EXPECT_TRUE(vxsched::HasEnded(id));
}

TEST(Processes, OneThatRunsHasArgumentsAndAZombieNone) {
    const auto stat = vxsched::ReadProcessStat("/proc/self");
    ASSERT_TRUE(stat.has_value());
    EXPECT_NE(stat->environmentEnd, 0U);
    const CForkedChild child([] { return 0; });
    siginfo_t end{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child.Id()), &end, WEXITED | WNOWAIT), 0);
    const auto zombie = vxsched::ReadProcessStat(vxsched::ProcessDirectory(child.Id()));
    ASSERT_TRUE(zombie.has_value());
    EXPECT_EQ(zombie->environmentEnd, 0U);
}

TEST(Processes, NamespaceThatCannotBeReadIsTakenForTheSame) {
    EXPECT_TRUE(vxsched::SharesIpcNamespace(vxsched::ProcessDirectory(getpid())));
    EXPECT_TRUE(vxsched::SharesIpcNamespace("/proc/0"));
}

TEST(Processes, UsersAreAllFour) {
    EXPECT_EQ(vxsched::UsersOf(getpid()),
              std::vector<uid_t>({getuid(), geteuid(), geteuid(), geteuid()}));
    EXPECT_TRUE(vxsched::UsersOf(0).empty());
}

TEST(Processes, MappedFileIsFoundByItsWholeName) {
    EXPECT_EQ(vxsched::MapsFile(getpid(), "processes_test"), true);
    EXPECT_EQ(vxsched::MapsFile(getpid(), "rocesses_test"), false);
    EXPECT_EQ(vxsched::MapsFile(0, "processes_test"), std::nullopt);
}

// As after an update of the program.
TEST(Processes, MappedFileThatWasRemovedIsFound) {
    std::filesystem::copy_file(PROGRAMS "/wait-forever", "replaced");
    const CProgram program({"./replaced", "a"});
    WaitUntil([&] { return vxsched::MapsFile(program.Id(), "replaced").value_or(false); });
    std::filesystem::remove("replaced");
    EXPECT_EQ(vxsched::MapsFile(program.Id(), "replaced"), true);
}
