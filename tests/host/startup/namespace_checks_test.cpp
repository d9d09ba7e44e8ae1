// What the host warns of around the IPC namespace, given fake files of the system.

#include <gtest/gtest.h>
#include "host/startup/NamespaceChecks.h"

#include <filesystem>

#include "Process.h"

TEST(PrivateNamespace, IsDetectedByComparisonWithThatOfProcessOne) {
    for (const char* process : {"proc/self/ns", "proc/1/ns"})
        std::filesystem::create_directories(process);
    WriteFile("proc/self/ns/ipc", "");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "") << "there is nothing to compare with";
    std::filesystem::create_hard_link("proc/self/ns/ipc", "proc/1/ns/ipc");
    EXPECT_EQ(NoticeOfPrivateNamespace("proc"), "");
    std::filesystem::remove("proc/1/ns/ipc");
    WriteFile("proc/1/ns/ipc", "");
    EXPECT_NE(NoticeOfPrivateNamespace("proc").find("PrivateIPC="), std::string::npos);
}
