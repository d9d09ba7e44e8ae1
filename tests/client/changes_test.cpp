// Changes of several tasks that are made as one.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxsched/Changes.h>
#include <vxsched/Error.h>
#include <vxsched/Store.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "ClientError.h"
#include "ClientStore.h"
#include "Process.h"
#include "Recorder.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
using namespace vxsched;

namespace {

class Changes : public ClientStore {
protected:
    Changes() { WriteTable({Row("a"), Row("b"), Row("c")}); }

    static TRow Row(const std::string& name) {
        return {name, Seconds(In(1h)), 77, 24, cRecorder, "a parameter", 0};
    }

    static ino_t FileOfTheTable() {
        struct stat status {};
        EXPECT_EQ(stat(cTable, &status), 0);
        return status.st_ino;
    }

    CChanges changes{store.Options()};
};

std::string NamesOf(const std::vector<TTaskEntry>& tasks) {
    std::string names;
    for (const TTaskEntry& task : tasks)
        names += (names.empty() ? "" : " ") + task.name;
    return names;
}

}  // namespace

// A save replaces the file by a new one: the second one would take the number of the first's.
TEST_F(Changes, OfSeveralKindsAreMadeAsOne) {
    int begun = 0;
    CChanges all({.onBegin = [&] { ++begun; }});
    all.Create(Task("d"), false);
    all.Pause({"a"});
    all.Remove({"b"});
    all.SetPeriod("c", 48);
    TEdit edit;
    edit.parameter = "another";
    all.Edit("a", edit);
    const std::vector<TTaskEntry> left = all.Commit();
    EXPECT_EQ(begun, 1);
    EXPECT_EQ(NamesOf(left), "d a c");
    EXPECT_EQ(NamesInTable(), "a c d");
    const TRows rows = ::ReadTable();
    EXPECT_EQ(rows[0].paused, 1U);
    EXPECT_EQ(rows[0].parameters, "another");
    EXPECT_EQ(rows[0].last, 77);
    EXPECT_EQ(rows[1].period, 48U);
    EXPECT_EQ(StoreSemaphoreValue(), 1);
}

TEST_F(Changes, EachIsMadeOnWhatTheOnesBeforeHaveLeft) {
    changes.Create(Task("d"), false);
    changes.Pause({"d"});
    TEdit rename;
    rename.name = "e";
    changes.Edit("d", rename);
    changes.Remove({"a"});
    changes.Create(Task("a", In(2h), 12), false);
    TEdit toB;
    toB.name = "f";
    changes.Edit("b", toB);
    changes.Create(Task("b"), false);
    EXPECT_EQ(NamesOf(changes.Commit()), "e a f b");
    EXPECT_EQ(NamesInTable(), "f c e a b");
    const TRows rows = ::ReadTable();
    EXPECT_EQ(rows[0].last, 77) << "renamed";
    EXPECT_EQ(rows[2].paused, 1U);
    EXPECT_EQ(rows[3].period, 12U);
    EXPECT_EQ(rows[3].last, 0);
}

TEST_F(Changes, NamesAreExchanged) {
    for (const auto& [from, to] : {std::pair("a", "x"), {"b", "a"}, {"x", "b"}}) {
        TEdit edit;
        edit.name = to;
        edit.parameter = std::string("was ") + from;
        changes.Edit(from, edit);
    }
    changes.Commit();
    EXPECT_EQ(NamesInTable(), "b a c");
    EXPECT_EQ(::ReadTable()[0].parameters, "was x");
    EXPECT_EQ(::ReadTable()[1].parameters, "was b");
}

TEST_F(Changes, NoneIsMadeIfOneCannotBe) {
    ExpectKept([&] {
        changes.Remove({"a"});
        changes.Pause({"b", "unknown"});
        ErrorOf(EError::cNotFound, [&] { changes.Check(); });
        ErrorOf(EError::cNotFound, [&] { changes.Commit(); });

        CChanges taken(store.Options());
        taken.Pause({"a"});
        taken.Create(Task("b"), false);
        ErrorOf(EError::cRefused, [&] { taken.Commit(); });

        CChanges removed(store.Options());
        removed.Remove({"a"});
        removed.Edit("a", {.period = 48});
        ErrorOf(EError::cNotFound, [&] { removed.Commit(); });
    });
}

TEST_F(Changes, StayNotedUntilTheyAreMade) {
    changes.Pause({"a", "d"});
    ErrorOf(EError::cNotFound, [&] { changes.Commit(); });
    store.Create(Task("d"), false);
    changes.Commit();
    EXPECT_EQ(::ReadTable()[0].paused, 1U);
    EXPECT_EQ(::ReadTable()[3].paused, 1U);
    const ino_t file = FileOfTheTable();
    EXPECT_TRUE(changes.Commit().empty());
    EXPECT_EQ(FileOfTheTable(), file) << "nothing is noted any more";
}

TEST_F(Changes, AreCheckedWithoutBeingMade) {
    ExpectKept([&] {
        changes.Create(Task("d", In(3h), 6), false);
        changes.Pause({"d"});
        changes.Edit("a", {.period = 48});
        const std::vector<TTaskEntry> left = changes.Check();
        EXPECT_EQ(NamesOf(left), "d a");
        EXPECT_TRUE(left[0].paused);
        EXPECT_EQ(left[1].period, 48U);
    });
    EXPECT_EQ(changes.Commit().size(), 2U);
}

// The other one is seen right before the change, under whose locks it cannot be made.
TEST_F(Changes, AreMadeOfTheTasksAsOthersHaveLeftThem) {
    bool isFirst = true;
    CChanges edits(store.Options());
    TEdit edit;
    edit.command = [&](TTaskEntry& task) {
        if (std::exchange(isFirst, false))
            store.SetPeriod("a", 12);
        task.parameter = "another";
    };
    edits.Edit("a", edit);
    edits.Pause({"b"});
    edits.Commit();
    const TRows rows = ::ReadTable();
    EXPECT_EQ(rows[0].period, 12U) << "of the other";
    EXPECT_EQ(rows[0].parameters, "another");
    EXPECT_EQ(rows[1].paused, 1U);
}

// A kill between two saves would leave a part of the change.
TEST_F(Changes, OfThousandsOfTasksAreMadeInOneSave) {
    TRows rows;
    std::vector<std::string> names;
    for (int index = 0; index < 3000; ++index) {
        rows.push_back(Row("task " + std::to_string(index)));
        names.push_back(rows.back().name);
    }
    WriteTable(rows);
    int begun = 0;
    CChanges all({.onBegin = [&] { ++begun; }});
    all.Pause(names);
    EXPECT_EQ(all.Commit().size(), 3000U);
    EXPECT_EQ(begun, 1);
    for (const TRow& row : ::ReadTable())
        ASSERT_EQ(row.paused, 1U) << row.name;
}
