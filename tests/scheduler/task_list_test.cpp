// The record and the list: finding, removing and clearing.

#include <gtest/gtest.h>
#include <scheduler/Scheduler.h>

#include <optional>
#include <string>
#include <type_traits>

#include "FakeSystem.h"
#include "InsideLibrary.h"
#include "TableFile.h"

class TaskList : public testing::Test {
protected:
    void SetUp() override { WriteTable({}); }

    TTask* Add(const std::string& name) {
        if (!inside)
            inside.emplace();
        auto* const task = new TTask;
        task->name = name;
        inside->TaskList()->push_back(task);
        return task;
    }
    CInsideLibrary& Inside() {
        if (!inside)
            inside.emplace();
        return *inside;
    }

    std::optional<CInsideLibrary> inside;
};

TEST(TaskRecord, BeginsEmptyAndNeverLaunched) {
    const TTask task;
    EXPECT_EQ(task.name + task.program + task.parameters, "");
    EXPECT_EQ(task.nextExecution, 0);
    EXPECT_EQ(task.lastExecuted, 0);
    EXPECT_EQ(task.period, 0U);
    EXPECT_EQ(task.paused, 0);
}

static_assert(std::has_virtual_destructor_v<TTask>);
static_assert(sizeof(TTask::nextExecution) == 8 &&
              std::is_signed_v<decltype(TTask::nextExecution)>);
static_assert(sizeof(TTask::period) == 4 && std::is_unsigned_v<decltype(TTask::period)>);
static_assert(sizeof(TTask::paused) == 4);

TEST(TaskRecord, FieldsFollowTheVirtualTableInOrder) {
    const TTask task;
    const auto offset = [&](const auto& field) {
        return static_cast<std::size_t>(reinterpret_cast<const char*>(&field) -
                                        reinterpret_cast<const char*>(&task));
    };
    EXPECT_EQ(offset(task.name), 8U);
    EXPECT_EQ(offset(task.nextExecution), 40U);
    EXPECT_EQ(offset(task.lastExecuted), 48U);
    EXPECT_EQ(offset(task.period), 56U);
    EXPECT_EQ(offset(task.program), 64U);
    EXPECT_EQ(offset(task.parameters), 96U);
    EXPECT_EQ(offset(task.paused), 128U);
}

TEST_F(TaskList, NothingIsFoundInAnEmptyList) {
    EXPECT_EQ(Inside().FindTask("a"), nullptr);
    EXPECT_EQ(Inside().FindTask(""), nullptr);
}

TEST_F(TaskList, NamesAreComparedExactly) {
    TTask* const backup = Add("backup");
    TTask* const back = Add("back");
    EXPECT_EQ(Inside().FindTask("backup"), backup);
    EXPECT_EQ(Inside().FindTask("back"), back);
    EXPECT_EQ(Inside().FindTask("Backup"), nullptr);
    EXPECT_EQ(Inside().FindTask("backu"), nullptr);
    EXPECT_EQ(Inside().FindTask("backup "), nullptr);
    EXPECT_EQ(Inside().FindTask(""), nullptr);
}

TEST_F(TaskList, ALongerNameIsNotFoundByItsBeginningNorAShorterByMore) {
    Add("back");
    EXPECT_EQ(Inside().FindTask("backup"), nullptr);
    Inside().ClearTasks();
    Add("backup");
    EXPECT_EQ(Inside().FindTask("back"), nullptr);
}

TEST_F(TaskList, EmptyNameIsANameLikeAnyOther) {
    Add("a");
    TTask* const nameless = Add("");
    EXPECT_EQ(Inside().FindTask(""), nameless);
}

TEST_F(TaskList, EveryByteCountsInAName) {
    for (int byte = 1; byte < 256; ++byte)
        Add(std::string(1, static_cast<char>(byte)));
    for (int byte = 1; byte < 256; ++byte) {
        const std::string name(1, static_cast<char>(byte));
        ASSERT_NE(Inside().FindTask(name.c_str()), nullptr);
        EXPECT_EQ(Inside().FindTask(name.c_str())->name, name);
    }
}

TEST_F(TaskList, TheFirstOfANameIsFoundAndRemoved) {
    TTask* const first = Add("same");
    TTask* const second = Add("same");
    EXPECT_EQ(Inside().FindTask("same"), first);
    Inside().RemoveTask("same");
    EXPECT_EQ(Inside().FindTask("same"), second);
    EXPECT_EQ(Inside().TaskList()->size(), 1U);
}

TEST_F(TaskList, RemovalKeepsTheOrderOfTheOthers) {
    TTask* const a = Add("a");
    Add("b");
    TTask* const c = Add("c");
    Inside().RemoveTask("b");
    EXPECT_EQ(*Inside().TaskList(), std::list<TTask*>({a, c}));
}

TEST_F(TaskList, RemovingAnUnknownNameChangesNothing) {
    TTask* const a = Add("a");
    Inside().RemoveTask("b");
    EXPECT_EQ(*Inside().TaskList(), std::list<TTask*>({a}));
}

class CCountedTask : public TTask {
public:
    ~CCountedTask() override { ++deleted; }
    static inline int deleted = 0;
};

TEST_F(TaskList, TasksAreDeletedThroughTheirVirtualDestructor) {
    Inside().TaskList()->push_back(new CCountedTask);
    Inside().TaskList()->push_back(new CCountedTask);
    Inside().TaskList()->back()->name = "removed";
    Inside().RemoveTask("removed");
    EXPECT_EQ(CCountedTask::deleted, 1);
    Inside().ClearTasks();
    EXPECT_EQ(CCountedTask::deleted, 2);
}

TEST_F(TaskList, ClearingSkipsNullEntriesAndLeavesAListToAppendTo) {
    auto* const list = Inside().TaskList();
    Inside().ClearTasks();
    EXPECT_TRUE(list->empty());
    list->push_back(nullptr);
    Add("a");
    Inside().ClearTasks();
    EXPECT_EQ(Inside().TaskList(), list);
    EXPECT_TRUE(list->empty());
    TTask* const next = Add("b");
    EXPECT_EQ(Inside().FindTask("b"), next);
}
