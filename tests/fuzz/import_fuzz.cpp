// Fuzzes the reader of imports with any bytes as the document. Tasks that are read must come back
// the same from an export of them, and from a table of them.

#include <vxsched/Error.h>
#include <vxsched/Table.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cli/output/Json.h"
#include "fuzz/Require.h"

using namespace vxsched;

static std::string ExportOf(const std::vector<TImported>& imported) {
    nlohmann::ordered_json tasks = nlohmann::ordered_json::array();
    for (const TImported& one : imported) {
        nlohmann::ordered_json task = JsonOfTask(one.task);
        if (!one.realProgram.empty())
            task["real_program"] = JsonOfString(one.realProgram);
        tasks.push_back(task);
    }
    return Document({{"tasks", tasks}});
}

static void RequireSameInATable(const std::vector<TImported>& imported) {
    std::vector<TTaskEntry> tasks;
    for (const TImported& one : imported) {
        // The import itself refuses a task without a name.
        if (!one.task.name.empty())
            tasks.push_back(one.task);
    }
    Require(DecodeTable(EncodeTable(tasks), TTime()).tasks == tasks,
            "a table of the tasks differs");
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::vector<TImported> imported;
    try {
        imported = ReadTasks({reinterpret_cast<const char*>(data), size});
    } catch (const CError& error) {
        Require(error.Code() == EError::cRefused, "another error than a refusal");
        RequireShown(error.what());
        return 0;
    }
    const std::string document = ExportOf(imported);
    RequireShown(document);
    const std::vector<TImported> again = ReadTasks(document);
    const auto isSame = [](const TImported& one, const TImported& other) {
        return one.task == other.task && one.realProgram == other.realProgram;
    };
    Require(std::equal(imported.begin(), imported.end(), again.begin(), again.end(), isSame),
            "an export of the tasks is imported as other tasks");
    RequireSameInATable(imported);
    return 0;
}
