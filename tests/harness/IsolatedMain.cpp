// The main of every test program: enters an IPC namespace and a working directory of its own before
// any use of a semaphore or a file, so that tests run in parallel and leave nothing.

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "Process.h"

static void EnterNamespace() {
    if (EnterNamespaces(CLONE_NEWIPC))
        return;
    std::perror("cannot enter an IPC namespace of the test's own");
    std::exit(1);
}

static std::string EnterDirectory() {
    std::string directory =
        (std::filesystem::temp_directory_path() / "vantrix-test-XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr || chdir(directory.c_str()) != 0) {
        std::perror("cannot make a working directory");
        std::exit(1);
    }
    return directory;
}

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests))
        return RUN_ALL_TESTS();
    // A child that a test starts as this same program shares its parent's namespace and directory.
    if (const int role = RunRole(argc, argv); role >= 0)
        return role;
    testing::GTEST_FLAG(death_test_style) = "fast";
    EnterNamespace();
    const std::string directory = EnterDirectory();
    const int result = RUN_ALL_TESTS();
    std::error_code ignored;
    std::filesystem::current_path("/", ignored);
    std::filesystem::remove_all(directory, ignored);
    return result;
}
