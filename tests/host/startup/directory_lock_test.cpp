// The directory lock: which holders a host waits for, and how long.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>
#include "base/CDescriptor.h"
#include "host/CHostError.h"
#include "host/startup/CDirectoryLock.h"

#include <chrono>
#include <filesystem>
#include <string>

#include "FakeMonotonicClock.h"
#include "Process.h"

using namespace std::chrono_literals;

static constexpr char cLockFile[] = "files/vxschedd.lock";

// Holds the lock on the file as another host does, which has written `content` to it.
class CHolder {
public:
    explicit CHolder(const std::string& content) {
        std::filesystem::create_directory("files");
        WriteFile(cLockFile, content);
        file = CDescriptor(open(cLockFile, O_RDONLY | O_CLOEXEC));
        EXPECT_EQ(flock(file.Get(), LOCK_EX | LOCK_NB), 0);
    }
    void Release() { file = CDescriptor(); }

private:
    CDescriptor file;
};

static void ExpectRefused(const std::string& holder) {
    try {
        const CDirectoryLock lock("/directory");
        ADD_FAILURE() << "nothing was thrown";
    } catch (const CHostError& error) {
        EXPECT_EQ(error.status, cSecondHost);
        EXPECT_EQ(std::string(error.what()),
                  "another host runs in /directory (process " + holder +
                      "). Stop it first, or choose another directory with "
                      "--directory.");
    }
}

TEST(DirectoryLock, KeepsASecondHostOutAndShowsItsProcess) {
    std::filesystem::create_directory("files");
    const CDirectoryLock lock(".");
    EXPECT_THAT(ReadFile(cLockFile), testing::StartsWith(std::to_string(getpid()) + '\n'));
    CFakeMonotonicClock clock;
    ExpectRefused(std::to_string(getpid()));
    std::filesystem::remove(cLockFile);
    ExpectRefused("unknown");
}

TEST(DirectoryLock, RunningHolderIsWaitedForASecond) {
    const CHolder holder(std::to_string(getpid()) + '\n');
    CFakeMonotonicClock clock;
    ExpectRefused(std::to_string(getpid()));
    EXPECT_EQ(clock.slept, 1s);
}

TEST(DirectoryLock, UnknownHolderIsWaitedForASecond) {
    const CHolder holder("");
    CFakeMonotonicClock clock;
    ExpectRefused("unknown");
    EXPECT_EQ(clock.slept, 1s);
}

TEST(DirectoryLock, LeftOverOfAKilledHostIsWaitedForFiveSeconds) {
    const CForkedChild zombie([] { return 0; });
    WaitUntil([&] { return HasEnded(zombie.Id()); });
    const CHolder holder(std::to_string(zombie.Id()) + '\n');
    CFakeMonotonicClock clock;
    ExpectRefused(std::to_string(zombie.Id()));
    EXPECT_EQ(clock.slept, 5s);
}

TEST(DirectoryLock, IsTakenAsSoonAsTheHolderReleasesIt) {
    CHolder holder("1\n");
    CFakeMonotonicClock clock;
    clock.onSleep = [&] {
        if (clock.slept > 500ms)
            holder.Release();
    };
    const CDirectoryLock lock(".");
    EXPECT_LT(clock.slept, 1s);
    EXPECT_THAT(ReadFile(cLockFile), testing::StartsWith(std::to_string(getpid()) + '\n'));
}

TEST(DirectoryLock, IsReleasedAtTheEnd) {
    std::filesystem::create_directory("files");
    { const CDirectoryLock lock("."); }
    CFakeMonotonicClock clock;
    const CDirectoryLock lock(".");
    EXPECT_EQ(clock.slept, 0s);
}
