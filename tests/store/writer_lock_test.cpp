// The writer lock: whom it keeps out, how long it waits, and what it reports.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <vxsched/Error.h>
#include "base/CDescriptor.h"
#include "store/CWriterLock.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>

#include "ClientError.h"
#include "FakeMonotonicClock.h"
#include "Process.h"

using namespace std::chrono_literals;
using namespace vxsched;

static bool IsFree() {
    const CDescriptor files(open("files", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return flock(files.Get(), LOCK_EX | LOCK_NB) == 0;
}

TEST(WriterLock, IsHeldForAScope) {
    std::filesystem::create_directory("files");
    {
        const CWriterLock lock(".", 0ms);
        EXPECT_FALSE(IsFree());
    }
    EXPECT_TRUE(IsFree());
}

TEST(WriterLock, HolderIsWaitedForUntilTheLockTimeout) {
    std::filesystem::create_directory("files");
    const CWriterLock holder(".", 0ms);
    CFakeMonotonicClock clock;
    const std::string message = ErrorOf(EError::cBusy, [] { const CWriterLock lock(".", 1234ms); });
    EXPECT_EQ(clock.slept, 1234ms);
    EXPECT_EQ(message, "the writer lock of " + std::filesystem::current_path().string() +
                           " is held by other processes and did not become free within 1234 ms");
}

TEST(WriterLock, IsTakenAsSoonAsTheHolderReleasesIt) {
    std::filesystem::create_directory("files");
    std::optional<CWriterLock> holder(std::in_place, ".", 0ms);
    CFakeMonotonicClock clock;
    clock.onSleep = [&] {
        if (clock.slept > 500ms)
            holder.reset();
    };
    const CWriterLock lock(".", 1h);
    EXPECT_FALSE(IsFree());
    EXPECT_LT(clock.slept, 1s);
}

TEST(WriterLock, IsTakenAtTheEndOfTheTimeout) {
    std::filesystem::create_directory("files");
    std::optional<CWriterLock> holder(std::in_place, ".", 0ms);
    CFakeMonotonicClock clock;
    clock.onSleep = [&] {
        if (clock.slept == 7ms)
            holder.reset();
    };
    const CWriterLock lock(".", 7ms);
    EXPECT_FALSE(IsFree());
}

TEST(WriterLock, DeadHolderReleasesIt) {
    std::filesystem::create_directory("files");
    CForkedChild holder([] {
        const CWriterLock lock(".", 0ms);
        raise(SIGKILL);
        return 0;
    });
    holder.Wait();
    EXPECT_TRUE(IsFree());
}

TEST(WriterLock, WithoutADirectorySaysWhatToDo) {
    const std::string here = std::filesystem::current_path();
    EXPECT_EQ(ErrorOf(EError::cFailed, [] { const CWriterLock lock("none", 0ms); }),
              "there is no directory " + here +
                  "/none/files: no host has run there; set --directory or "
                  "VXSCHED_DIRECTORY to the host's working directory, or run mkdir " +
                  here + "/none/files to begin a table");
}

TEST(WriterLock, MissingAccessIsReported) {
    std::filesystem::create_directory("files");
    ASSERT_EQ(chmod("files", 0), 0);
    CForkedChild child([] {
        if (!DropCapabilities())
            return 1;
        ErrorOf(EError::cNoAccess, [] { const CWriterLock lock(".", 0ms); });
        return testing::Test::HasFailure() ? 2 : 42;
    });
    EXPECT_EQ(child.Wait(), 42);
}
