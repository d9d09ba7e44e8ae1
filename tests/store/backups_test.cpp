// The quarantine of damaged tables: which of them are kept.

#include "store/Backups.h"
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "Process.h"

TEST(Quarantine, KeepsTheNewestWhateverTheClockShows) {
    std::filesystem::create_directory("files");
    WriteFile("files/scheduler.dat.damaged-4000000000", "0");
    WriteFile("files/scheduler.dat.damaged-by-hand", "not ours");
    for (int number = 1; number <= 30; ++number)
        vxsched::Quarantine(".", std::to_string(number));
    std::set<std::string> kept;
    for (const auto& entry : std::filesystem::directory_iterator("files"))
        kept.insert(ReadFile(entry.path()));
    EXPECT_EQ(kept.size(), 25U);
    EXPECT_TRUE(kept.contains("not ours"));
    EXPECT_TRUE(kept.contains("30"));
    EXPECT_TRUE(kept.contains("7"));
    EXPECT_FALSE(kept.contains("6"));
    std::filesystem::remove_all("files");
}
