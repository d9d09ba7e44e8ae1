// The copies of tables that are kept: which of them stay, their order, the one that a repair uses,
// and the one that is restored after a failed change.

#include "store/Backups.h"
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vxsched/Error.h>
#include "store/TableFile.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "ClientError.h"
#include "Process.h"
#include "TableFile.h"

using namespace vxsched;
namespace fs = std::filesystem;

static constexpr char cBefore[] = "files/scheduler.dat.before";
static constexpr std::int64_t cAhead = 4'000'000'000;

static std::string TableOf(const std::string& name) {
    return BytesOf({{name, cAhead, 0, 1, "/bin/program", "", 0}});
}

static void SetTime(const fs::path& file, std::int64_t seconds) {
    fs::last_write_time(file, std::chrono::file_clock::from_sys(
                                  std::chrono::sys_seconds(std::chrono::seconds(seconds))));
}

static void WriteAt(const fs::path& file, const std::string& bytes, std::int64_t seconds) {
    fs::create_directories(file.parent_path());
    WriteFile(file, bytes);
    SetTime(file, seconds);
}

static std::string SnapshotFile(const std::string& stamp) {
    return "files/snapshots/scheduler.dat." + stamp;
}

static std::multiset<std::string> ContentsOf(const fs::path& directory) {
    std::multiset<std::string> contents;
    for (const auto& entry : fs::directory_iterator(directory))
        contents.insert(ReadFile(entry.path()));
    return contents;
}

// Also where all tests of this program run in one process.
class Backups : public testing::Test {
protected:
    Backups() { fs::create_directory("files"); }
    ~Backups() override { fs::remove_all("files"); }
};
using Snapshots = Backups;
using Quarantined = Backups;
using BeforeChange = Backups;

// ---- The list ---------------------------------------------------------------------------------

static std::vector<std::string> ListedPaths() {
    std::vector<std::string> paths;
    for (const TBackupFile& file : ListBackups("."))
        paths.push_back(file.path.string());
    return paths;
}

TEST_F(Backups, AreListedYoungestFirst) {
    EXPECT_TRUE(ListBackups(".").empty());
    WriteAt(SnapshotFile("000000001000-000000"), "", 1000);
    WriteAt(SnapshotFile("000000003000-000000"), "", 3000);
    WriteAt("files/scheduler.dat.damaged-500", "", 500);
    WriteAt("files/scheduler.dat.damaged-4000", "", 4000);
    WriteAt(cBefore, "", 2000);
    const std::vector<TBackupFile> files = ListBackups(".");
    ASSERT_EQ(files.size(), 5U);
    const TBackupFile::EKind kinds[] = {TBackupFile::cQuarantined, TBackupFile::cSnapshot,
                                        TBackupFile::cBeforeChange, TBackupFile::cSnapshot,
                                        TBackupFile::cQuarantined};
    const int times[] = {4000, 3000, 2000, 1000, 500};
    for (std::size_t index = 0; index < files.size(); ++index) {
        EXPECT_EQ(files[index].kind, kinds[index]) << index;
        EXPECT_EQ(files[index].time.time_since_epoch(), std::chrono::seconds(times[index]));
    }
    EXPECT_EQ(files[2].path, "./files/scheduler.dat.before");
}

TEST_F(Backups, OfOneKindAreListedByTheirNames) {
    WriteAt(SnapshotFile("000000001000-000000"), "", 9000);
    WriteAt(SnapshotFile("000000001000-000009"), "", 1);
    WriteAt(SnapshotFile("000000001000-000010"), "", 2);
    WriteAt("files/scheduler.dat.damaged-20-9", "", 3);
    WriteAt("files/scheduler.dat.damaged-20-10", "", 3);
    WriteAt("files/scheduler.dat.damaged-9", "", 3);
    EXPECT_EQ(ListedPaths(), (std::vector<std::string>{
                                 "./files/scheduler.dat.damaged-20-10",
                                 "./files/scheduler.dat.damaged-20-9",
                                 "./files/scheduler.dat.damaged-9",
                                 "./files/snapshots/scheduler.dat.000000001000-000010",
                                 "./files/snapshots/scheduler.dat.000000001000-000009",
                                 "./files/snapshots/scheduler.dat.000000001000-000000",
                             }));
}

TEST_F(Backups, OtherFilesAreNotListed) {
    for (const char* const name : {"scheduler.dat", "scheduler.dat.damaged-", "history.jsonl",
                                   "scheduler.dat.damaged-by-hand", "scheduler.dat.damaged-1-",
                                   "scheduler.dat.damaged-1-2-3", "scheduler.dat.damaged-1.new-2",
                                   "scheduler.dat.damaged-1111111111111111111"})
        WriteFile(std::string("files/") + name, "");
    WriteAt(SnapshotFile("1.new-2"), "", 1);
    fs::create_directory(SnapshotFile("5"));
    mkfifo(cBefore, 0600);
    EXPECT_EQ(ListedPaths(), std::vector<std::string>());
}

// ---- The one that a repair uses ---------------------------------------------------------------

static std::string TaskOfBackup() {
    const auto backup = FindBackup(".");
    return backup ? backup->tasks.at(0).name : "";
}

TEST_F(Backups, YoungestIntactOneIsUsedAndNoQuarantinedOne) {
    EXPECT_EQ(TaskOfBackup(), "");
    WriteAt("files/scheduler.dat.damaged-9000", TableOf("quarantined"), 9000);
    EXPECT_EQ(TaskOfBackup(), "");
    WriteAt(SnapshotFile("000000001000-000000"), TableOf("snapshot"), 1000);
    WriteAt(cBefore, TableOf("before"), 2000);
    EXPECT_EQ(TaskOfBackup(), "before");
    EXPECT_EQ(FindBackup(".")->file, "./files/scheduler.dat.before");
    EXPECT_EQ(FindBackup(".")->name, "scheduler.dat.before");
    WriteAt(cBefore, "damaged", 2000);
    EXPECT_EQ(TaskOfBackup(), "snapshot");
}

// ---- Snapshots --------------------------------------------------------------------------------

TEST_F(Snapshots, AreABoundedRingOfCompleteTables) {
    for (const char* const bytes : {"one", "two", "two", "three", "four"})
        KeepSnapshot(".", bytes, 3);
    EXPECT_EQ(ContentsOf("files/snapshots"), (std::multiset<std::string>{"two", "three", "four"}));
    KeepSnapshot(".", "five", 0);
    EXPECT_FALSE(ContentsOf("files/snapshots").contains("five"));
}

TEST_F(Snapshots, OfHostsThatComeAndGoPushNoOtherTableOut) {
    KeepSnapshot(".", "other", 3);
    for (int host = 0; host < 5; ++host)
        KeepSnapshot(".", "same", 3);
    EXPECT_EQ(ContentsOf("files/snapshots"), (std::multiset<std::string>{"other", "same"}));
}

TEST_F(Snapshots, ThatAreKeptAgainBecomeTheYoungestBackup) {
    WriteAt(SnapshotFile("000000001000-000000"), TableOf("snapshot"), 1000);
    WriteAt(cBefore, TableOf("before"), 2000);
    KeepSnapshot(".", TableOf("snapshot"), 3);
    EXPECT_EQ(TaskOfBackup(), "snapshot");
    EXPECT_EQ(ListBackups(".").size(), 2U);
}

TEST_F(Snapshots, NamesHaveTheTimeAndAreAsLongAsEachOther) {
    WriteAt(SnapshotFile("4000000000"), "clock ahead", 1);
    KeepSnapshot(".", "second", 3);
    KeepSnapshot(".", "third", 3);
    EXPECT_EQ(ReadFile(SnapshotFile("004000000000-000001")), "second");
    EXPECT_EQ(ReadFile(SnapshotFile("004000000000-000002")), "third");
}

TEST_F(Snapshots, LeftoverOfAKillIsRemoved) {
    WriteAt(SnapshotFile("1.new-2"), "", 1);
    WriteAt(SnapshotFile("1"), "", 1);
    RemoveLeftovers(".");
    EXPECT_FALSE(fs::exists(SnapshotFile("1.new-2")));
    EXPECT_TRUE(fs::exists(SnapshotFile("1")));
}

TEST_F(Snapshots, FailureIsReported) {
    WriteFile("files/snapshots", "not a directory");
    EXPECT_NE(ErrorOf(EError::cFailed, [] { KeepSnapshot(".", "bytes", 3); })
                  .find("files/snapshots/scheduler.dat."),
              std::string::npos);
}

// The snapshots of a host whose clock was ahead, and that of one whose clock was set back.
class SnapshotsOfAClockThatWasSetBack : public Backups {
protected:
    SnapshotsOfAClockThatWasSetBack() {
        for (const char* const number : {"000008", "000009", "000010"})
            WriteAt(SnapshotFile("004000000000-" + std::string(number)), TableOf(number), cAhead);
        KeepSnapshot(".", TableOf("now"), 2);
    }
};

TEST_F(SnapshotsOfAClockThatWasSetBack, KeepTheYoungestAndNotTheLatest) {
    EXPECT_EQ(ContentsOf("files/snapshots"),
              (std::multiset<std::string>{TableOf("000010"), TableOf("now")}));
}

TEST_F(SnapshotsOfAClockThatWasSetBack, RepairFromTheYoungest) {
    EXPECT_EQ(TaskOfBackup(), "now");
    WriteAt(cBefore, TableOf("before"), 1000);
    EXPECT_EQ(TaskOfBackup(), "now");
    SetTime(cBefore, cAhead - 1000);
    EXPECT_EQ(TaskOfBackup(), "before");
}

// ---- Quarantine -------------------------------------------------------------------------------

TEST_F(Quarantined, NewestAreKeptWhateverTheClockShows) {
    WriteFile("files/scheduler.dat.damaged-4000000000", "0");
    WriteFile("files/scheduler.dat.damaged-by-hand", "not ours");
    for (int number = 1; number <= 30; ++number)
        EXPECT_EQ(Quarantine(".", std::to_string(number)),
                  "./files/scheduler.dat.damaged-4000000000-" + std::to_string(number));
    const std::multiset<std::string> kept = ContentsOf("files");
    EXPECT_EQ(kept.size(), 25U);
    EXPECT_TRUE(kept.contains("not ours"));
    EXPECT_TRUE(kept.contains("30"));
    EXPECT_TRUE(kept.contains("7"));
    EXPECT_FALSE(kept.contains("6"));
}

TEST_F(Quarantined, NameHasTheTimeAlone) {
    const std::string now = std::to_string(Now().time_since_epoch().count());
    const std::string path = Quarantine(".", "damaged").string();
    EXPECT_EQ(path.size(), ("./files/scheduler.dat.damaged-" + now).size()) << path;
    EXPECT_EQ(ReadFile(path), "damaged");
}

TEST_F(Quarantined, TableIsReplacedByTheRepairedOne) {
    WriteFile(cTable, "damaged");
    const fs::path path = ReplaceDamaged(".", "damaged", "repaired");
    EXPECT_EQ(ReadFile(cTable), "repaired");
    EXPECT_EQ(ReadFile(path), "damaged");
}

// ---- The table before a change ----------------------------------------------------------------

TEST_F(BeforeChange, IsRestored) {
    KeepBeforeChange(".", TableOf("first"));
    KeepBeforeChange(".", TableOf("before"));
    WriteFile(cTable, "damaged");
    RestoreBeforeChange(".");
    EXPECT_EQ(ReadFile(cTable), TableOf("before"));
}

TEST_F(BeforeChange, IsRestoredThroughALink) {
    KeepBeforeChange(".", TableOf("before"));
    WriteFile("files/elsewhere", "damaged");
    fs::create_symlink("elsewhere", cTable);
    RestoreBeforeChange(".");
    EXPECT_EQ(ReadFile("files/elsewhere"), TableOf("before"));
    EXPECT_TRUE(fs::is_symlink(cTable));
}

TEST_F(BeforeChange, IsNotRestoredThroughALinkIfItIsMissing) {
    WriteFile("files/elsewhere", "damaged");
    fs::create_symlink("elsewhere", cTable);
    ErrorOf(EError::cFailed, [] { RestoreBeforeChange("."); });
    EXPECT_EQ(ReadFile("files/elsewhere"), "damaged");
}

TEST_F(BeforeChange, IsNotRestoredIfItIsDamagedOrMissing) {
    WriteFile(cTable, "damaged");
    ErrorOf(EError::cFailed, [] { RestoreBeforeChange("."); });
    EXPECT_EQ(ReadFile(cTable), "damaged");
    KeepBeforeChange(".", "damaged, too");
    ErrorOf(EError::cDamaged, [] { RestoreBeforeChange("."); });
    EXPECT_EQ(ReadFile(cTable), "damaged");
}
