// Repair of damaged tables: the tasks that are salvaged, those that come from the backup, and those
// that are altered.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <vxsched/Error.h>
#include <vxsched/Repair.h>

#include <string>
#include <vector>

#include "TableFile.h"

using namespace vxsched;
using testing::ElementsAre;
using testing::HasSubstr;

static constexpr std::int64_t cNow = 1'800'000'000;

static TTime At(std::int64_t seconds) {
    return TTime(std::chrono::seconds(seconds));
}

static TTaskEntry Task(const std::string& name) {
    return {name, At(cNow + 10), At(cNow - 10), 24, "/opt/" + name, "parameter", false};
}

static const std::vector<TTaskEntry> cThree = {Task("first"), Task("second"), Task("third")};

static std::string NamesOf(const std::vector<TTaskEntry>& tasks) {
    std::string names;
    for (const TTaskEntry& task : tasks)
        names += (names.empty() ? "" : " ") + task.name;
    return names;
}

TEST(Salvage, IntactTableComesBackComplete) {
    const TSalvaged salvaged = Salvage(EncodeTable(cThree));
    EXPECT_EQ(salvaged.tasks, cThree);
    EXPECT_TRUE(salvaged.notes.empty());
}

TEST(Salvage, CutTableGivesTheTasksBeforeTheCut) {
    const std::string bytes = EncodeTable(cThree);
    const std::size_t one = (bytes.size() - 8) / 3 - 8;  // less than the size of the shortest task
    for (std::size_t length = 0; length < bytes.size(); ++length) {
        const TSalvaged salvaged = Salvage(bytes.substr(0, length));
        EXPECT_LT(salvaged.tasks.size(), 3U);
        EXPECT_LE(salvaged.tasks.size(), length / one);
        for (std::size_t index = 0; index < salvaged.tasks.size(); ++index)
            EXPECT_EQ(salvaged.tasks[index], cThree[index]);
    }
    EXPECT_EQ(NamesOf(Salvage(bytes.substr(0, bytes.size() - 1)).tasks), "first second");
}

TEST(Salvage, TasksAfterABadOffsetAreFound) {
    std::string bytes = EncodeTable(cThree);
    const std::size_t second = EncodeTable({cThree[0]}).size();
    bytes.replace(second, 4, "\xff\xff\xff\xff", 4);  // the length of its name
    const TSalvaged salvaged = Salvage(bytes);
    EXPECT_EQ(NamesOf(salvaged.tasks), "first third");
    const std::size_t third = EncodeTable({cThree[0], cThree[1]}).size();
    EXPECT_THAT(salvaged.notes, ElementsAre("bytes " + std::to_string(second) + " to " +
                                            std::to_string(third) + " were not readable as tasks"));
}

TEST(Salvage, CountDoesNotMatter) {
    std::string bytes = EncodeTable(cThree);
    bytes.replace(0, 8, 8, '\xff');
    EXPECT_EQ(Salvage(bytes).tasks, cThree);
}

TEST(Salvage, NoiseGivesNothing) {
    std::string noise;
    unsigned int state = 1;
    for (int index = 0; index < 100'000; ++index) {
        state = state * 1103515245 + 12345;
        noise += static_cast<char>(state >> 16);
    }
    for (const TTaskEntry& task : Salvage(noise).tasks)
        ADD_FAILURE() << task.name;
}

TEST(IntactTable, MayHaveTrailingBytes) {
    EXPECT_EQ(DecodeTable(EncodeTable(cThree) + "odd", At(cNow)).tasks, cThree);
}

TEST(IntactTable, HasNoCountThatIsTooSmall) {
    std::string bytes = EncodeTable(cThree);
    for (const char count : {'\0', '\1', '\2'}) {
        bytes[0] = count;
        EXPECT_THROW(DecodeTable(bytes, At(cNow)), CError);
        EXPECT_EQ(PlanRepair(bytes, nullptr, At(cNow)).tasks, cThree);
    }
}

TEST(IntactTable, HasNoZerosInPlaceOfATask) {
    const std::string bytes = EncodeTable(cThree);
    const TBackup backup{"the last good table", cThree};
    for (const std::size_t intact : {0U, 1U, 2U}) {
        std::string damaged = EncodeTable(
            {cThree.begin(), std::next(cThree.begin(), static_cast<std::ptrdiff_t>(intact))});
        damaged[0] = '\3';
        damaged.resize(bytes.size());
        EXPECT_EQ(PlanRepair(damaged, nullptr, At(cNow)).tasks.size(), intact);
        EXPECT_EQ(PlanRepair(damaged, &backup, At(cNow)).tasks, cThree);
    }
}

TEST(PlanRepair, IntactTableIsLeftAlone) {
    const TRepair repair = PlanRepair(EncodeTable(cThree), nullptr, At(cNow));
    EXPECT_EQ(repair.tasks, cThree);
    EXPECT_TRUE(repair.notes.empty());
}

TEST(PlanRepair, BackupSuppliesLostTasksInItsOrder) {
    const std::string bytes = EncodeTable(cThree);
    std::vector<TTaskEntry> older = cThree;
    for (TTaskEntry& task : older)
        task.last = TTime();
    const TBackup backup{"the backup", older};
    const TRepair repair =
        PlanRepair(bytes.substr(0, EncodeTable({cThree[0]}).size() + 3), &backup, At(cNow));
    EXPECT_EQ(NamesOf(repair.tasks), "first second third");
    EXPECT_EQ(repair.tasks[0], cThree[0]) << "a readable task is kept";
    EXPECT_EQ(repair.tasks[1], older[1]);
    EXPECT_THAT(repair.notes,
                testing::IsSupersetOf({HasSubstr("damaged at offset"),
                                       HasSubstr("kept \"first\" from the damaged table"),
                                       HasSubstr("kept \"third\" from the backup")}));
}

TEST(PlanRepair, WithoutABackupReadableTasksAreKept) {
    EXPECT_EQ(NamesOf(PlanRepair(EncodeTable(cThree).substr(0, 150), nullptr, At(cNow)).tasks),
              "first second");
    EXPECT_TRUE(PlanRepair("", nullptr, At(cNow)).tasks.empty());
}

// A parameter whose length is damaged is cut off, and what follows is not readable.
TEST(PlanRepair, DoubtfulTaskIsTakenFromTheBackup) {
    std::string bytes = EncodeTable(cThree);
    const std::size_t end = EncodeTable({cThree[0], cThree[1]}).size();
    const std::size_t length = end - 4 - cThree[1].parameter.size() - 4;
    ASSERT_EQ(bytes[length], static_cast<char>(cThree[1].parameter.size()));
    bytes[length] = 3;
    const TBackup backup{"the backup", cThree};
    const TRepair repair = PlanRepair(bytes, &backup, At(cNow));
    EXPECT_EQ(repair.tasks, cThree);
    EXPECT_THAT(repair.notes, testing::Contains(HasSubstr("kept \"second\" from the backup")));
    const TRepair alone = PlanRepair(bytes, nullptr, At(cNow));
    ASSERT_EQ(NamesOf(alone.tasks), "first second third");
    EXPECT_EQ(alone.tasks[1].parameter, "par");
    EXPECT_THAT(alone.notes,
                testing::Contains(HasSubstr("\"second\" from the damaged table; check")));
}

// Bytes that look like the beginning of a task at every offset.
TEST(Salvage, TakesNoLongerThanTheBytesDemand) {
    std::string bytes(12, '\xff');
    for (int index = 0; index < 4'000'000; ++index)
        bytes += index % 4 == 0 ? '\x10' : '\0';
    EXPECT_TRUE(Salvage(bytes).tasks.empty());
}

TEST(PlanRepair, HarmfulTasksAreRepaired) {
    TTaskEntry endless = Task("endless");
    endless.period = 268435456;
    endless.next = At(cNow - 100);
    TTaskEntry slow = Task("slow");
    slow.period = 1;
    slow.next = At(-4'000'000'000'000);
    const TRepair repair =
        PlanRepair(EncodeTable({endless, Task("valid"), slow}), nullptr, At(cNow));
    ASSERT_EQ(repair.tasks.size(), 3U);
    EXPECT_TRUE(repair.tasks[0].paused);
    EXPECT_EQ(repair.tasks[0].period, 1193046U);
    EXPECT_GE(repair.tasks[0].next, At(cNow));
    EXPECT_EQ(repair.tasks[1], Task("valid"));
    EXPECT_GE(repair.tasks[2].next, At(cNow));
    EXPECT_LT(repair.tasks[2].next, At(cNow + 3600));
    EXPECT_EQ((repair.tasks[2].next - slow.next).count() % 3600, 0) << "it stays on its grid";
    EXPECT_EQ(repair.notes.size(), 2U);
    EXPECT_TRUE(DecodeTable(EncodeTable(repair.tasks), At(cNow)).IsSafeToLoad());
}
