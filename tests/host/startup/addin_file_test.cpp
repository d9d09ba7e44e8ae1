// Whether a file is an add-in, told by its bytes without a load.

#include <gtest/gtest.h>
#include "host/startup/AddInFile.h"

#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"

TEST(AddInFile, IsToldByItsBytesWithoutALoad) {
    EXPECT_EQ(WhyNotAnAddIn(ADDIN_LIBRARY), "");
    EXPECT_EQ(WhyNotAnAddIn(SUPPORT_LIBRARY), "it has no CreateAddIn");
    EXPECT_EQ(WhyNotAnAddIn("/no/such/file"), "cannot read it: No such file or directory");
    WriteFile("text", "no library");
    EXPECT_EQ(WhyNotAnAddIn("text"), "it is not a shared library for x86-64");
    EXPECT_EQ(CountSemaphoreSets(), 0);
}

TEST(AddInFile, EntryPointThatIsMissingIsNamed) {
    std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t position = 0; (position = bytes.find("DestroyAddIn", position)) != bytes.npos;)
        bytes[position] = 'd';
    WriteFile("without", bytes);
    EXPECT_EQ(WhyNotAnAddIn("without"), "it has no DestroyAddIn");
    CProgram host(HostWith({"--addin", "./without"}));
    EXPECT_EQ(host.Wait(), 5);
    EXPECT_NE(host.Output().find("without is not an add-in: it has no DestroyAddIn. Name another "
                                 "library with --addin."),
              std::string::npos)
        << host.Output();
    EXPECT_EQ(CountSemaphoreSets(), 0) << "it was not loaded";
}

TEST(AddInFile, CutShortAnywhereIsNone) {
    const std::string bytes = ReadFile(ADDIN_LIBRARY);
    for (std::size_t size = 0; size < bytes.size(); size += size < 128 ? 1 : bytes.size() / 50) {
        WriteFile("short", bytes.substr(0, size));
        EXPECT_NE(WhyNotAnAddIn("short"), "") << size;
    }
}
