// Whether a file is an add-in, decided by its bytes without a load.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include "host/startup/AddInFile.h"

#include <filesystem>
#include <string>
#include <vector>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"

TEST(AddInFile, IsRecognizedByItsBytesWithoutALoad) {
    EXPECT_EQ(WhyNotAnAddIn(ADDIN_LIBRARY), "");
    EXPECT_EQ(WhyNotAnAddIn(SUPPORT_LIBRARY), "it does not define CreateAddIn");
    EXPECT_EQ(WhyNotAnAddIn("/no/such/file"), "cannot read the file: No such file or directory");
    EXPECT_EQ(WhyNotAnAddIn("."), "cannot read the file: Is a directory");
    WriteFile("note", "no library");
    EXPECT_EQ(WhyNotAnAddIn("note"), "it is not a shared library for x86-64");
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(AddInFile, MissingEntryPointIsReported) {
    std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t position = 0; (position = bytes.find("DestroyAddIn", position)) != bytes.npos;)
        bytes[position] = 'd';
    WriteFile("without", bytes);
    EXPECT_EQ(WhyNotAnAddIn("without"), "it does not define DestroyAddIn");
    CProgram host(HostWith({"--addin", "./without"}));
    EXPECT_EQ(host.Wait(), 5);
    EXPECT_NE(host.Output().find("without is not an add-in: it does not define DestroyAddIn. "
                                 "Choose another library with --addin."),
              std::string::npos)
        << host.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0) << "it was not loaded";
}

TEST(AddInFile, MissingListOfTasksIsReported) {
    std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t position = 0; (position = bytes.find("gTaskList", position)) != bytes.npos;)
        bytes[position] = 'G';
    WriteFile("without", bytes);
    EXPECT_EQ(WhyNotAnAddIn("without"), "it does not define gTaskList");
}

TEST(AddInFile, TruncatedAnywhereIsNone) {
    const std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t size = 0; size < bytes.size(); size += size < 128 ? 1 : bytes.size() / 50) {
        WriteFile("short", bytes.substr(0, size));
        EXPECT_NE(WhyNotAnAddIn("short"), "") << size;
    }
}

// A host that waited for the other end would keep the directory lock.
TEST(AddInFile, PipeIsNotWaitedFor) {
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    EXPECT_EQ(WhyNotAnAddIn("pipe"), "cannot read the file: Operation not supported");
}

// A host in this directory, with the support library of another maker in its process.
static std::vector<std::string> HostWithOwnSupport(const std::string& option) {
    std::vector<std::string> command = HostWith({option});
    command.insert(command.begin(), {"/usr/bin/env", "LD_PRELOAD=" OWN_SUPPORT,
                                     "ASAN_OPTIONS=verify_asan_link_order=0"});
    return command;
}

static void ExpectRefused(const std::vector<std::string>& command, const std::string& reason) {
    CProgram host(command);
    EXPECT_EQ(host.Wait(), 5) << host.Output();
    EXPECT_THAT(host.Output(), testing::HasSubstr("is refused, since a save that is interrupted "
                                                  "would lose tasks: " +
                                                  reason));
    EXPECT_EQ(CountSemaphoreSets(), 0) << "it was not loaded";
    EXPECT_EQ(ReadFile(cTable), "not read");
}

TEST(AddInFile, BoundToAnotherSupportLibraryIsRefused) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "not read");
    for (const char* const option : {"--run-once", "--check"})
        ExpectRefused(HostWithOwnSupport(option),
                      "it opens its files with the COpen of " OWN_SUPPORT " instead of that of ");
}

TEST(AddInFile, WithASupportLibraryOfItsOwnIsRefused) {
    std::filesystem::create_directory("files");
    WriteFile(cTable, "not read");
    ExpectRefused(HostWith({"--addin", OWN_SUPPORT_ADDIN}),
                  "it does not leave COpen to libvxcsupport");
}
