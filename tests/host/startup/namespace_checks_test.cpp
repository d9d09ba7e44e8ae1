// What the host warns of around the IPC namespace, given fake files of the system.

#include <gtest/gtest.h>
#include <sys/types.h>
#include "host/startup/NamespaceChecks.h"

#include <filesystem>
#include <string>

#include "Process.h"

class RemovalOfSemaphores : public testing::Test {
protected:
    RemovalOfSemaphores() { std::filesystem::create_directories("root/run/systemd/system"); }
    static void Configure(const std::string& file, const std::string& content) {
        const std::filesystem::path path = std::filesystem::path("root") / file;
        std::filesystem::create_directories(path.parent_path());
        WriteFile(path.string(), content);
    }
    static bool IsWarnedOf(uid_t user) { return !WarningOfRemoval(user, "root").empty(); }
    static constexpr uid_t cOrdinary = 54321;
};

TEST_F(RemovalOfSemaphores, ThreatensOrdinaryUsersUnderSystemd) {
    EXPECT_NE(WarningOfRemoval(cOrdinary, "root").find("loginctl enable-linger 54321"),
              std::string::npos);
    EXPECT_TRUE(IsWarnedOf(1000));
    EXPECT_FALSE(IsWarnedOf(999));
    EXPECT_FALSE(IsWarnedOf(0));
    EXPECT_FALSE(IsWarnedOf(65534));
    std::filesystem::remove_all("root/run");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
}

TEST_F(RemovalOfSemaphores, IsNoThreatToUsersThatLinger) {
    Configure("var/lib/systemd/linger/54321", "");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
}

TEST_F(RemovalOfSemaphores, IsSwitchedOffByTheLastSettingOfLogind) {
    Configure("etc/systemd/logind.conf", "[Login]\n#RemoveIPC=yes\nRemoveIPC = no\n");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
    Configure("usr/lib/systemd/logind.conf.d/50-one.conf", "[Login]\nRemoveIPC=yes\n");
    EXPECT_TRUE(IsWarnedOf(cOrdinary));
    Configure("etc/systemd/logind.conf.d/50-one.conf", "[Login]\nRemoveIPC=off\n");
    EXPECT_FALSE(IsWarnedOf(cOrdinary));
    Configure("run/systemd/logind.conf.d/60-two.conf", "[Login]\nRemoveIPC=1\n");
    EXPECT_TRUE(IsWarnedOf(cOrdinary));
}

TEST(PrivateNamespace, IsDetectedByComparisonWithThatOfProcessOne) {
    for (const char* process : {"proc/self/ns", "proc/1/ns"})
        std::filesystem::create_directories(process);
    std::filesystem::create_symlink("ipc:[1]", "proc/self/ns/ipc");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "") << "there is nothing to compare with";
    std::filesystem::create_symlink("ipc:[1]", "proc/1/ns/ipc");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "");
    std::filesystem::remove("proc/1/ns/ipc");
    std::filesystem::create_symlink("ipc:[2]", "proc/1/ns/ipc");
    EXPECT_NE(NoticeOfPrivateNamespace("proc").find("PrivateIPC="), std::string::npos);
}
