// The snapshots of valid tables that the host keeps: how many, which ones, and which of them a
// repair uses.

#include <gtest/gtest.h>
#include "host/recovery/CSnapshots.h"
#include "store/Backups.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <set>
#include <string>

#include "Process.h"
#include "TableFile.h"

static void Keep(CSnapshots& snapshots, const std::string& bytes) {
    snapshots.Keep(std::make_shared<const std::string>(bytes));
}

// Like a host that starts, keeps a snapshot and stops.
static void KeepOnce(std::size_t limit, const std::string& bytes) {
    CSnapshots snapshots(limit);
    Keep(snapshots, bytes);
}

TEST(Snapshots, AreABoundedRingOfCompleteTables) {
    std::filesystem::create_directory("files");
    CSnapshots snapshots(3);
    for (const char* const bytes : {"one", "two", "two", "three", "four"})
        Keep(snapshots, bytes);
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::set<std::string>{"two", "three", "four"}));
    CSnapshots none(0);
    Keep(none, "five");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(CSnapshots::Directory()),
                            std::filesystem::directory_iterator()),
              3);
}

TEST(Snapshots, OfHostsThatComeAndGoPushNoOtherTableOut) {
    std::filesystem::create_directory("files");
    KeepOnce(3, "other");
    for (int host = 0; host < 5; ++host)
        KeepOnce(3, "same");
    std::multiset<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::multiset<std::string>{"other", "same"}));
    std::filesystem::remove_all("files");
}

// The snapshots of a host whose clock was ahead, and that of one whose clock was set back.
class SnapshotsOfAClockThatWasSetBack : public testing::Test {
protected:
    static constexpr std::int64_t cAhead = 4'000'000'000;

    SnapshotsOfAClockThatWasSetBack() {
        std::filesystem::create_directories(CSnapshots::Directory());
        for (const char* const number : {"000008", "000009", "000010"}) {
            const std::filesystem::path file =
                CSnapshots::Directory() / ("scheduler.dat.004000000000-" + std::string(number));
            WriteFile(file, TableOf(number));
            SetTime(file, cAhead);
        }
        KeepOnce(2, TableOf("now"));
    }
    ~SnapshotsOfAClockThatWasSetBack() override { std::filesystem::remove_all("files"); }
    static std::string TableOf(const std::string& name) {
        return BytesOf({{name, cAhead, 0, 1, "/bin/program", "", 0}});
    }
    static void SetTime(const std::filesystem::path& file, std::int64_t seconds) {
        std::filesystem::last_write_time(
            file, std::chrono::file_clock::from_sys(
                      std::chrono::sys_seconds(std::chrono::seconds(seconds))));
    }
    static std::string YoungestTask() {
        const auto backup = vxsched::FindBackup(".");
        return backup ? backup->tasks.at(0).name : "";
    }
};

TEST_F(SnapshotsOfAClockThatWasSetBack, KeepTheYoungestAndNotTheLatest) {
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator(CSnapshots::Directory()))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept, (std::set<std::string>{TableOf("000010"), TableOf("now")}));
}

TEST_F(SnapshotsOfAClockThatWasSetBack, RepairFromTheYoungest) {
    EXPECT_EQ(YoungestTask(), "now");
    WriteFile("files/scheduler.dat.before", TableOf("before"));
    SetTime("files/scheduler.dat.before", 1000);
    EXPECT_EQ(YoungestTask(), "now");
    SetTime("files/scheduler.dat.before", cAhead - 1000);
    EXPECT_EQ(YoungestTask(), "before");
}
