// A host where /proc/self/exe cannot be read, from which it finds the add-in of its installation.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "HostProgram.h"
#include "Process.h"

// Hides /proc, and becomes the host.
RUN_AGAIN(HostWithoutProc) {
    // The dynamic linker finds the libraries next to a program through /proc as well.
    setenv("LD_LIBRARY_PATH", std::filesystem::path(ADDIN_LIBRARY).parent_path().c_str(), 1);
    if (!HideProc())
        return 99;
    execl(HOST_PROGRAM, HOST_PROGRAM, "--directory", ".", "--check", static_cast<char*>(nullptr));
    return 98;
}

// The library of that name in the present directory is anybody's.
TEST(HostStartup, WithoutProcNoAddInOfThePresentDirectoryIsTaken) {
    std::filesystem::create_directory("lib");
    std::filesystem::copy(ADDIN_LIBRARY, "lib/libVantrixScheduler.so");
    CProgram host(ThisProgramAs("HostWithoutProc"));
    const int status = host.Wait();
    if (status == 99)
        GTEST_SKIP() << cCannotMount;
    EXPECT_EQ(status, 5);
    EXPECT_NE(host.Output().find("cannot read /proc/self/exe"), std::string::npos) << host.Output();
    EXPECT_NE(host.Output().find("--addin"), std::string::npos) << host.Output();
}
