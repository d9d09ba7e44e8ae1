// The symbols that the built library exports, and properties that could keep it from being
// unmapped.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "AddinLibrary.h"
#include "FakeSystem.h"
#include "TableFile.h"

static std::string OutputOf(const std::string& command) {
    std::string output;
    std::FILE* const pipe = popen(command.c_str(), "r");
    std::array<char, 4096> block;
    for (std::size_t count = 0; (count = std::fread(block.data(), 1, block.size(), pipe)) > 0;)
        output.append(block.data(), count);
    EXPECT_EQ(pclose(pipe), 0) << command;
    return output;
}

static std::vector<std::string> LinesOf(const std::string& output) {
    std::vector<std::string> lines;
    std::istringstream stream(output);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

TEST(ExportedNames, AreExactlyTheseAndNothingElse) {
    std::vector<std::string> names;
    for (const std::string& line : LinesOf(OutputOf("nm -D --defined-only " ADDIN_LIBRARY)))
        names.push_back(line.substr(line.find(' ') + 1));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, std::vector<std::string>({
                         "B gTaskList",
                         "T CreateAddIn",
                         "T CreateTask",
                         "T DestroyAddIn",
                         "T DestroyTask",
                         "T IsTaskRunning",
                         "T _Z10ResumeTaskPKc",
                         "T _Z11IsScheduledPKc",
                         "T _Z13GetTaskPeriodPKcPj",
                         "T _Z13SetTaskPeriodPKcj",
                         "T _Z14ExecuteTaskNowPKcb",
                         "T _Z15GetLastExecutedPKcPl",
                         "T _Z16GetNextExecutionPKcPl",
                         "T _Z23SharedLibraryDestructorv",
                         "T _Z24SharedLibraryConstructorv",
                         "T _Z9PauseTaskPKc",
                     }));
}

TEST(ExportedNames, NothingPinsTheLibrary) {
    const std::string symbols = OutputOf("readelf --wide --dyn-syms " ADDIN_LIBRARY);
    EXPECT_EQ(symbols.find(" UNIQUE "), std::string::npos);
    const std::string flags = OutputOf("readelf --wide --dynamic " ADDIN_LIBRARY);
    EXPECT_EQ(flags.find("NODELETE"), std::string::npos);
}

TEST(ExportedNames, SupportLibraryIsFoundNextToTheAddIn) {
    const std::string dynamic = OutputOf("readelf --wide --dynamic " ADDIN_LIBRARY);
    EXPECT_NE(dynamic.find("Shared library: [libvxcsupport.so.0]"), std::string::npos);
    EXPECT_NE(dynamic.find("Library runpath: [$ORIGIN]"), std::string::npos) << dynamic;
}

// A sanitizer or a coverage build adds initialisers, thread-locals and libraries of its own.
#ifdef PLAIN_BUILD
TEST(ExportedNames, OneInitialiserAndOneFinaliserBesidesTheCompilersOwn) {
    const std::string sections = OutputOf("readelf --wide --sections " ADDIN_LIBRARY);
    for (const std::string name : {".init_array", ".fini_array"}) {
        for (const std::string& line : LinesOf(sections)) {
            if (line.find(' ' + name + ' ') == std::string::npos)
                continue;
            std::istringstream fields(line.substr(line.find(name)));
            std::string field;
            std::string size;
            fields >> field >> field >> field >> field >> size;
            EXPECT_EQ(std::stoul(size, nullptr, 16), 2 * sizeof(void*)) << line;
        }
    }
    EXPECT_NE(sections.find(".init_array"), std::string::npos);
    EXPECT_NE(sections.find(".fini_array"), std::string::npos);
}

TEST(ExportedNames, NoThreadLocals) {
    EXPECT_EQ(OutputOf("readelf --wide --segments " ADDIN_LIBRARY).find(" TLS "),
              std::string::npos);
}

TEST(ExportedNames, DependsOnTheSupportLibraryAndTheStandardLibrariesOnly) {
    const std::vector<std::string> allowed = {"libvxcsupport.so.0", "libstdc++.so.6",
                                              "libgcc_s.so.1", "libc.so.6", "libm.so.6"};
    for (const std::string& line : LinesOf(OutputOf("readelf --wide --dynamic " ADDIN_LIBRARY))) {
        const std::size_t name = line.find("Shared library: [");
        if (line.find("(NEEDED)") == std::string::npos)
            continue;
        const std::string library = line.substr(name + 17, line.find(']') - name - 17);
        EXPECT_NE(std::find(allowed.begin(), allowed.end(), library), allowed.end()) << library;
    }
}
#endif

// ---- A host may interpose an exported function ------------------------------------------------

static int gAnswer = 0;

// Called by the add-in's ExecuteTaskNow on the test's thread. Replaces the add-in's own.
extern "C" bool IsTaskRunning(const char* /*name*/) {
    return gAnswer == 1;
}

TEST(ExportedNames, RunNowAsksIsTaskRunningThroughItsExportedName) {
    CFakeSystem system;
    WriteTable({});
    CAddinLibrary library;
    library.Create("task", 5'000'000, 1, "/bin/tool");
    gAnswer = 1;
    library.ExecuteTaskNow("task", false);
    EXPECT_EQ(system.LaunchedPaths(), "");
    gAnswer = 0;
    library.ExecuteTaskNow("task", false);
    EXPECT_EQ(system.LaunchedPaths(), "/bin/tool");
}
