// What a program that a real host launches learns of its task by its environment.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"

static const std::string cRecorder = PROGRAMS "/record-environment";

// The recorded variables of the only program, which a host launches that was itself launched for
// another task.
static std::string VariablesOf(const TRow& row, const std::string& addIn = ADDIN_LIBRARY) {
    setenv("VXSCHED_TASK", "another", 1);
    setenv("VXSCHED_DUE", "1", 1);
    CHost host(HostWith({"--addin", addIn}));
    ReplaceTable({row});
    WakeWorker();
    EXPECT_TRUE(host.WaitForOutput("exited with status 0")) << host.Output();
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_TRUE(std::filesystem::exists(row.parameters)) << host.Output();
    return ReadFile(row.parameters);
}

TEST(LaunchedEnvironment, HasTheTasksNameAndDueTime) {
    const std::int64_t due = std::time(nullptr) - 5;
    EXPECT_EQ(VariablesOf({"a=b \xff\n$x", due, 0, 1, cRecorder, "variables", 0}),
              "VXSCHED_TASK=a=b \xff\n$x\nVXSCHED_DUE=" + std::to_string(due) + '\n');
}

TEST(LaunchedEnvironment, HasTheNameUpToItsFirstZeroByte) {
    EXPECT_EQ(VariablesOf({std::string("cut\0off", 7), 1'000'000, 0, 1, cRecorder, "variables", 0}),
              "VXSCHED_TASK=cut\nVXSCHED_DUE=1000000\n");
    EXPECT_EQ(VariablesOf({"", 1'000'000, 0, 1, cRecorder, "variables", 0}),
              "VXSCHED_TASK=\nVXSCHED_DUE=1000000\n");
}

// The kernel limits a variable to 128 KiB.
TEST(LaunchedEnvironment, NameThatIsTooLongForAVariableDoesNotPreventTheLaunch) {
    EXPECT_EQ(VariablesOf({std::string(200'000, 'n'), 1'000'000, 0, 1, cRecorder, "variables", 0}),
              "");
}

TEST(LaunchedEnvironment, OfAnUnknownTaskHasNoVariablesAndTheLaunchIsRecordedWithoutATask) {
    EXPECT_EQ(VariablesOf({"task", 1'000'000, 0, 1, cRecorder, "variables", 0}, COPYING_LIBRARY),
              "");
    const auto record = nlohmann::json::parse(ReadFile("files/history.jsonl"));
    EXPECT_EQ(record.at("outcome"), "exited");
    EXPECT_EQ(record.at("program"), cRecorder);
    EXPECT_TRUE(record.at("name").is_null());
    EXPECT_TRUE(record.at("due").is_null());
}
