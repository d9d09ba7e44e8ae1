// A host whose table is on a full disk: it starts, repairs what there is room for, and loses
// nothing.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "GuardedTable.h"
#include "HostProgram.h"
#include "Process.h"
#include "StoreSemaphore.h"
#include "TableFile.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

// Runs `body` in a process of its own, whose directory "files" is a file system of a few pages.
static void OnASmallDisk(const std::function<void()>& body) {
    CForkedChild child([&] {
        fs::create_directory("files");
        if (unshare(CLONE_NEWNS) != 0)
            return 2;
        mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr);
        if (mount("none", "files", "tmpfs", 0, "size=64k,mode=0700") != 0)
            return 3;
        body();
        return testing::Test::HasFailure() ? 1 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}

static void FillDisk() {
    const int file = open("files/filling", O_WRONLY | O_CREAT | O_APPEND, 0644);
    const std::string block(4096, 'f');
    while (write(file, block.data(), block.size()) > 0) {
    }
    close(file);
}

TEST(HostOnAFullDisk, StartsAndReschedulesMissedTasks) {
    OnASmallDisk([] {
        TRows rows = cThree;
        rows[1].next = 1000;
        WriteTable(rows);
        FillDisk();
        CHost host;
        EXPECT_EQ(host.CountInOutput("missed while no host ran: task \"second\""), 1U)
            << host.Output();
        EXPECT_EQ(NamesInTable(), "first second third");
        EXPECT_GT(ReadTable().at(1).next, std::time(nullptr));
        EXPECT_EQ(host.Stop(), 0);
    });
}

// Leaves room for this many pages.
static void FillDiskBut(std::size_t pages) {
    FillDisk();
    fs::resize_file("files/filling", fs::file_size("files/filling") - pages * 4096);
}

static TRows ManyPages() {
    TRows rows = cThree;
    rows[2].parameters = std::string(20'000, 'p');
    return rows;
}

// Two of the pages are for the lock file and the heartbeat.
TEST(HostOnAFullDisk, DamagedTableIsRepairedWithoutRoomForACopy) {
    OnASmallDisk([] {
        const std::string damaged = BytesOf(ManyPages()).substr(0, 20'000);
        WriteTable({});
        WriteFile(cTable, damaged);
        FillDiskBut(3);
        CHost host;
        EXPECT_EQ(NamesInTable(), "first second");
        ASSERT_EQ(CountIn("files", ".damaged-"), 1U);
        for (const auto& entry : fs::directory_iterator("files")) {
            if (entry.path().string().find(".damaged-") != std::string::npos) {
                EXPECT_EQ(ReadFile(entry.path()), damaged);
            }
        }
        EXPECT_EQ(fs::hard_link_count(cTable), 1U);
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(HostOnAFullDisk, DamagedTableIsLeftAsItIsWithoutRoomForAnother) {
    OnASmallDisk([] {
        const std::string damaged = BytesOf(ManyPages()).substr(0, 20'000);
        WriteTable({});
        WriteFile(cTable, damaged);
        FillDisk();
        for (int attempt = 0; attempt < 2; ++attempt) {
            CProgram host(HostWith({}));
            EXPECT_EQ(host.Wait(), 6) << host.Output();
            EXPECT_EQ(ReadFile(cTable), damaged);
            EXPECT_EQ(fs::hard_link_count(cTable), 1U);
            EXPECT_EQ(CountIn("files", ".damaged-"), 0U);
        }
        fs::remove("files/filling");
        CHost host;
        EXPECT_EQ(NamesInTable(), "first second");
        EXPECT_EQ(host.Stop(), 0);
    });
}

TEST(HostOnAFullDisk, TableThatCannotBeRestoredYetIsReportedOnce) {
    OnASmallDisk([] {
        WriteTable(cThree);
        CHost host;
        FillDisk();
        Suspend(host);
        WriteFile(cTable, "");
        FillDisk();
        host.Kill(SIGCONT);
        EXPECT_TRUE(host.WaitForOutput("Retrying until it succeeds")) << host.Output();
        std::this_thread::sleep_for(300ms);  // so that there are more tries
        fs::remove("files/filling");
        WaitForTable(cThree);
        EXPECT_EQ(host.Stop(), 0);
        EXPECT_EQ(host.CountInOutput("kept \"first\" from"), 1U) << host.Output();
    });
}
