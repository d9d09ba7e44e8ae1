// The launches that a tick was about to make, as a host finds them after a power failure.

#include <gtest/gtest.h>
#include "host/recovery/CLaunchIntents.h"
#include "host/recovery/LaunchRecords.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableEntry.h"
#include "Tool.h"

namespace fs = std::filesystem;

static constexpr char cIntents[] = "files/started/intents";
static const TLaunchIntent cOne{"one", Later(1)};
static const TLaunchIntent cOther{"other", Later(2)};

// A host's intents under the boot "first", and what the next host finds.
class LaunchIntents : public testing::Test {
protected:
    LaunchIntents() {
        fs::remove_all("files");
        fs::create_directories("files/started");
        WriteFile("first", "first-boot\n");
        WriteFile("second", "second-boot\n");
        EXPECT_TRUE(intents.Open().empty());
        intents.Clear();
    }

    void Intend(const TLaunchIntent& intent) {
        intents.Intend(intent, [&] { return std::vector<TLaunchIntent>{intent}; });
    }

    static std::vector<TLaunchIntent> FoundUnder(const std::string& boot) {
        return CLaunchIntents(boot).Open();
    }

    CLaunchIntents intents{"first"};
};

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(LaunchIntents, AreFoundUnderAnotherBootOnly) {
    Intend(cOne);
    EXPECT_THAT(FoundUnder("first"), IsEmpty());
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne));
    EXPECT_THAT(FoundUnder("no such file"), ElementsAre(cOne));
}

TEST_F(LaunchIntents, OfATickAreWrittenTogetherAndOnce) {
    const auto both = [] { return std::vector<TLaunchIntent>{cOne, cOther}; };
    intents.Intend(cOne, both);
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne, cOther));
    const std::string written = ReadFile(cIntents);
    intents.Intend(cOther, both);
    EXPECT_EQ(ReadFile(cIntents), written);
}

// The tick has read the clock before the host does, and the clock may be set back in between.
TEST_F(LaunchIntents, OfALaunchThatIsNotDueAnyMoreIsWritten) {
    const auto other = [] { return std::vector<TLaunchIntent>{cOther}; };
    intents.Intend(cOne, other);
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOther, cOne));
}

TEST_F(LaunchIntents, StayUntilTheTableShowsTheirLaunches) {
    Intend(cOne);
    Intend(cOther);
    intents.Settle({Task("one", Later(1), "/p", ""), Task("other", Later(3600), "/p", "")});
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne, cOther)) << "one is not settled";
    intents.Settle({});
    EXPECT_THAT(FoundUnder("second"), IsEmpty());
    Intend(cOther);
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOther));
}

// The table shows an owed launch as made from the beginning.
TEST_F(LaunchIntents, OfAnOwedLaunchStaysUntilItIsWithdrawn) {
    Intend(cOne);
    intents.IntendOwed(cOther);
    intents.Settle({});
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne, cOther));
    intents.Withdraw(cOther);
    EXPECT_THAT(FoundUnder("second"), IsEmpty());
}

TEST_F(LaunchIntents, OfALaunchThatTheSystemRefusedIsWithdrawn) {
    Intend(cOne);
    Intend(cOther);
    intents.Withdraw(cOne);
    EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne, cOther)) << "the other one is not certain";
    intents.Withdraw(cOther);
    EXPECT_THAT(FoundUnder("second"), IsEmpty());
}

TEST_F(LaunchIntents, NextHostRemovesThem) {
    Intend(cOne);
    CLaunchIntents next("second");
    EXPECT_THAT(next.Open(), ElementsAre(cOne));
    EXPECT_THAT(next.Open(), ElementsAre(cOne)) << "it may be cut short too";
    next.Clear();
    EXPECT_THAT(FoundUnder("first"), IsEmpty());
}

TEST_F(LaunchIntents, BlockThatIsNotCompleteHasNoMeaning) {
    Intend(cOne);
    Intend(cOther);
    const std::string bytes = ReadFile(cIntents);
    for (std::size_t at = bytes.find("other"); bytes[at] != '\n'; ++at) {
        std::string torn = bytes;
        torn[at] = '\0';
        WriteFile(cIntents, torn);
        EXPECT_THAT(FoundUnder("second"), ElementsAre(cOne)) << at;
    }
    for (const std::string& damaged :
         {std::string(), std::string("\n"), std::string("a b c d\n"), std::string(10'000, 'x'),
          std::string("boot 1 99999999999999999999 0\n"), bytes.substr(1)}) {
        WriteFile(cIntents, damaged);
        EXPECT_THAT(FoundUnder("second"), IsEmpty()) << damaged.substr(0, 100);
    }
}

TEST_F(LaunchIntents, RoomIsAllocatedAtTheStartup) {
    const auto size = fs::file_size(cIntents);
    EXPECT_GT(size, 4'000U);
    Intend(cOne);
    EXPECT_EQ(fs::file_size(cIntents), size);
}

TEST_F(LaunchIntents, MayBeMoreThanThereIsRoomFor) {
    std::vector<TLaunchIntent> many;
    for (int second = 0; second < 5'000; ++second)
        many.push_back({"task", Later(second)});
    intents.Intend(many[0], [&] { return many; });
    EXPECT_EQ(FoundUnder("second"), many);
}

TEST_F(LaunchIntents, WithoutAFileNothingFails) {
    fs::remove_all("files/started");
    CLaunchIntents none("first");
    EXPECT_THAT(none.Open(), IsEmpty());
    none.Clear();
    none.Intend(cOne, [] { return std::vector<TLaunchIntent>{cOne}; });
    none.Settle({});
}

// ---- The host ------------------------------------------------------------------------------------

// Kills a host within the tick that launches the task "due", and removes the launch record, as a
// power failure may.
static TRows LoseALaunchRecord() {
    fs::remove("log");
    WriteTable({{"due", cFar, 0, 24, PROGRAMS "/append-text", "log", 0}});
    CHost host(HostThatPauses());
    TRows rows = StartTheOnlyTask();
    host.Kill(SIGKILL);
    host.Wait();
    EXPECT_EQ(CountIn("files/started", "@"), 1U);
    fs::remove(LaunchRecordPath({.task = "due",
                                 .due = vxsched::TTime(std::chrono::seconds(rows.at(0).next)),
                                 .launched = {},
                                 .formerStart = vxsched::TTime()}));
    EXPECT_EQ(CountIn("files/started", "@"), 0U);
    return rows;
}

TEST(HostAfterAPowerFailure, LaunchWithoutARecordIsUnknownAndNotRepeated) {
    const TRows rows = LoseALaunchRecord();
    WriteFile("boot-id", "another-boot\n");
    setenv("LD_PRELOAD", FILE_RECORDER, 1);
    setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
    setenv("FAKE_BOOT_ID", fs::absolute("boot-id").c_str(), 1);
    for (int startup = 1; startup <= 2; ++startup) {
        CHost next;
        EXPECT_EQ(next.CountInOutput("launch unknown after a power failure: task \"due\", due "),
                  startup == 1 ? 1U : 0U)
            << next.Output();
        EXPECT_EQ(next.Stop(), 0);
    }
    EXPECT_EQ(ReadTable()[0].next, rows[0].next + 24 * 3600);
    EXPECT_EQ(ReadFile("log"), "log\n");
    EXPECT_NE(RunTool({"history"}).output.find("launch unknown, rescheduled"), std::string::npos);
    EXPECT_NE(RunTool({"history", "--failed"}).output.find("launch unknown"), std::string::npos);
}

TEST(HostAfterAKill, TaskWithAnIntentAndNoLaunchRecordIsLaunched) {
    const TRows rows = LoseALaunchRecord();
    WaitUntil([&] { return std::time(nullptr) > rows[0].next; });
    CHost next;
    WaitUntil([] { return ReadFile("log") == "log\nlog\n"; });
    EXPECT_EQ(next.CountInOutput("unknown"), 0U) << next.Output();
    WaitUntil(WorkerIsIdle);
    EXPECT_EQ(next.Stop(), 0);
}
