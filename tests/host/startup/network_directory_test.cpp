// A host works in no directory of a network file system, unless it is told to.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "Tool.h"

using testing::HasSubstr;

namespace {

class HostOnNetwork : public testing::Test {
protected:
    HostOnNetwork() {
        for (const auto& [name, value] : WithInterposedSystem())
            setenv(name.c_str(), value.c_str(), 1);
        setenv("FILE_SYSTEM", "6969", 1);
    }
};

}  // namespace

TEST_F(HostOnNetwork, IsRefused) {
    CProgram host(HostWith({}));
    EXPECT_EQ(host.Wait(), 3) << host.Output();
    EXPECT_THAT(host.Output(),
                HasSubstr(". is on a file system that several machines may use (NFS)"));
    EXPECT_THAT(host.Output(), HasSubstr("give --network-directory"));
    EXPECT_FALSE(std::filesystem::exists("files"));
    CProgram check(HostWith({"--check"}));
    EXPECT_EQ(check.Wait(), 3) << check.Output();
    EXPECT_THAT(check.Output(),
                HasSubstr("is on a file system that several machines may use (NFS)"));
}

TEST_F(HostOnNetwork, WorksWhereSomethingElseKeepsOthersAway) {
    CProgram check(HostWith({"--check", "--network-directory"}));
    EXPECT_EQ(check.Wait(), 0) << check.Output();
    CHost host(HostWith({"--network-directory"}));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(HostOnNetwork, IsKnownByItsNumber) {
    for (const char* const number : {"ff534d42", "00c36400", "65735546"}) {
        setenv("FILE_SYSTEM", number, 1);
        CProgram host(HostWith({"--check"}));
        EXPECT_EQ(host.Wait(), 3) << host.Output();
    }
    setenv("FILE_SYSTEM", "ef53", 1);
    CProgram host(HostWith({"--check"}));
    EXPECT_EQ(host.Wait(), 0) << host.Output();
}
