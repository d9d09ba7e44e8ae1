// The replacement of a table whose former file is kept from writers.

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include <vxsched/Table.h>
#include "ForeignStore.h"
#include "Process.h"
#include "TableFile.h"
#include "store/CFormerTable.h"
#include "store/TableFile.h"

// The kernel ends a lease after 45 s, for which this process would wait for itself.
TEST(FormerTable, IsOverwrittenInPlaceWhereItsGroupCannotBeKept) {
    REQUIRE_SUPERUSER();
    WriteTable({});
    GiveStoreTo(cForeignUser);
    ASSERT_EQ(chown(cTable, cForeignUser, 0), 0);
    CForkedChild owner([] {
        if (setgroups(0, nullptr) != 0 || setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
            return 1;
        alarm(30);
        vxsched::ReplaceMerged(".", vxsched::EncodeTable({}),
                               vxsched::EncodeTable({{.name = "new",
                                                      .next = {},
                                                      .last = {},
                                                      .period = 0,
                                                      .program = "",
                                                      .parameter = "",
                                                      .paused = false}}),
                               vxsched::TryToReplaceTable);
        return 42;
    });
    EXPECT_EQ(owner.Wait(), 42);
    EXPECT_EQ(NamesInTable(), "new");
}

// Otherwise a task that runs once would be there under both names, and the change of one that repeats
// would be lost.
TEST(FormerTable, WhatOthersHaveSavedOfARenamedTaskIsKeptUnderItsNewName) {
    std::filesystem::create_directory("files");
    for (const std::uint32_t period : {0U, 24U}) {
        const TRow before = {"a task", 1000, 0, period, "/bin/true", "", 0};
        TRow ours = before;
        ours.name = "renamed";
        ours.parameters = "ours";
        TRow theirs = before;
        theirs.next = 2000;
        WriteTable({theirs, {"other", 1000, 0, 0, "/bin/true", "", 0}});
        vxsched::ReplaceMerged(".", BytesOf({before}), BytesOf({ours}), vxsched::TryToReplaceTable,
                               {{"a task", "renamed"}});
        EXPECT_EQ(ReadTable(), (TRows{{"renamed", 2000, 0, period, "/bin/true", "ours", 0},
                                      {"other", 1000, 0, 0, "/bin/true", "", 0}}));
    }
}
