// Fuzzes this project's own reader of tables, the salvage and the plan of a repair with any bytes as
// the table. The add-in's reader has a target of its own, table_reader.

#include <vxsched/Error.h>
#include <vxsched/Repair.h>
#include <vxsched/Table.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Require.h"
#include "store/Salvage.h"

using namespace vxsched;

static constexpr TTime cNow{std::chrono::seconds(1795305600)};

static std::optional<TTable> Decode(std::string_view bytes) {
    try {
        return DecodeTable(bytes, cNow);
    } catch (const CError& error) {
        Require(error.Code() == EError::cDamaged, "another error than a damaged table");
        RequireShown(error.what());
        return {};
    }
}

static bool BeginsWith(const std::vector<TTaskEntry>& tasks, const std::vector<TTaskEntry>& first) {
    return tasks.size() >= first.size() && std::equal(first.begin(), first.end(), tasks.begin());
}

static void RequireValid(const std::vector<TTaskEntry>& tasks, const char* failure) {
    Require(DecodeTable(EncodeTable(tasks), cNow).tasks == tasks, failure);
}

static void CheckIntact(std::string_view bytes, const TTable& table) {
    const std::string encoded = EncodeTable(table.tasks);
    Require(encoded.size() <= bytes.size(), "a table has more bytes after it was decoded");
    if (table.problems.empty())
        Require(encoded == bytes, "a table without problems is encoded otherwise");
    RequireValid(table.tasks, "an intact table is not valid");
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::optional<TTable> table = Decode(bytes);
    const TSalvaged salvaged = Salvage(bytes);
    Require(salvaged.tasks.size() == salvaged.isDoubtful.size(), "a task that is not judged");
    Require(EncodeTable(salvaged.tasks).size() <= std::max(size, std::size_t{8}),
            "a byte was salvaged twice");
    RequireValid(salvaged.tasks, "the salvaged tasks are no valid table");
    if (table) {
        CheckIntact(bytes, *table);
        Require(BeginsWith(salvaged.tasks, table->tasks),
                "a task of an intact table is not salvaged");
    }
    const TBackup backup{"backup", {{"kept", cNow, cNow, 24, "/bin/true", "", false}}};
    for (const TBackup* const from : {static_cast<const TBackup*>(nullptr), &backup}) {
        const TRepair repair = PlanRepair(bytes, from, cNow);
        Require(DecodeTable(EncodeTable(repair.tasks), cNow).IsSafeToLoad(),
                "a repaired table is not safe to load");
        if (table && table->IsSafeToLoad())
            Require(repair.notes.empty() && repair.tasks == table->tasks,
                    "a repair alters an intact table");
    }
    return 0;
}
