// Sole access to the table's file: when it is granted, what others see meanwhile, and the
// overwriting of the file.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include "base/CDescriptor.h"
#include "store/CTableLease.h"
#include "store/TableFile.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include <vxsched/Error.h>
#include <vxsched/Table.h>
#include "Process.h"

using vxsched::CTableLease;

static constexpr char cFile[] = "table";

TEST(TableLease, IsHeldWhereNobodyHasTheFileOpen) {
    WriteFile(cFile, "content");
    const CTableLease lease(cFile);
    ASSERT_EQ(lease.State(), CTableLease::cHeld);
    EXPECT_EQ(lease.Read(), "content");
}

TEST(TableLease, TellsAWriterFromAReader) {
    WriteFile(cFile, "content");
    {
        const CDescriptor writer(open(cFile, O_WRONLY));
        EXPECT_EQ(CTableLease(cFile).State(), CTableLease::cWritten);
    }
    {
        const CDescriptor reader(open(cFile, O_RDONLY));
        EXPECT_EQ(CTableLease(cFile).State(), CTableLease::cUnknown);
    }
    EXPECT_EQ(CTableLease(cFile).State(), CTableLease::cHeld);
}

TEST(TableLease, IsNotHeldOnWhatIsNoFile) {
    EXPECT_EQ(CTableLease("nothing").State(), CTableLease::cMissing);
    ASSERT_EQ(mkfifo("pipe", 0600), 0);
    EXPECT_EQ(CTableLease("pipe").State(), CTableLease::cUnknown);
    std::filesystem::create_directory("directory");
    EXPECT_EQ(CTableLease("directory").State(), CTableLease::cUnknown);
}

// Opens the file for a save, as the add-in does, in a thread.
class COpener {
public:
    COpener()
        : thread([this] {
              isOpening = true;
              const CDescriptor descriptor(open(cFile, O_RDWR | O_TRUNC));
              isOpen = true;
          }) {}
    ~COpener() { thread.join(); }
    COpener(const COpener&) = delete;
    COpener& operator=(const COpener&) = delete;

    std::atomic<bool> isOpening{false};
    std::atomic<bool> isOpen{false};

private:
    std::thread thread;
};

static bool IsPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) == 1;
}

// A writer that comes while the lease is held waits, and its signal ends nothing.
TEST(TableLease, WriterWaitsUntilItEnds) {
    WriteFile(cFile, "content");
    std::string before;
    std::unique_ptr<COpener> opener;
    {
        const CTableLease lease(cFile);
        opener = std::make_unique<COpener>();
        WaitUntil([] { return IsPending(SIGIO); });
        EXPECT_FALSE(opener->isOpen);
        lease.Overwrite("0123456789");
        before = lease.Read();
    }
    EXPECT_EQ(before, "0123456789");
    EXPECT_FALSE(IsPending(SIGIO));
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGIO), 0);
    opener.reset();
    EXPECT_EQ(ReadFile(cFile), "") << "the writer has truncated the file that is still there";
}

TEST(TableLease, ReadsAllOfTheFileEachTime) {
    WriteFile(cFile, "0123456789");
    const CTableLease lease(cFile);
    EXPECT_EQ(lease.Read(), "0123456789");
    EXPECT_EQ(lease.Read(), "0123456789");
}

TEST(TableLease, OverwritesALongerAndAShorterFile) {
    struct stat before {};
    struct stat after {};
    WriteFile(cFile, std::string(100, 'x'));
    ASSERT_EQ(stat(cFile, &before), 0);
    CTableLease(cFile).Overwrite("0123456789");
    EXPECT_EQ(ReadFile(cFile), "0123456789");
    CTableLease(cFile).Overwrite(std::string(10'000, 'y'));
    EXPECT_EQ(ReadFile(cFile), std::string(10'000, 'y'));
    ASSERT_EQ(stat(cFile, &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
}

// The file is one that cannot be truncated.
TEST(OverwrittenTable, IsDamagedIfTheOverwriteIsCutShort) {
    const std::string former = vxsched::EncodeTable({vxsched::TTaskEntry()});
    const CDescriptor file(memfd_create("table", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    ASSERT_EQ(write(file.Get(), former.data(), former.size()), static_cast<ssize_t>(former.size()));
    ASSERT_EQ(fcntl(file.Get(), F_ADD_SEALS, F_SEAL_SHRINK), 0);
    EXPECT_THROW(vxsched::OverwriteTable(file.Get(), vxsched::EncodeTable({}), "table"),
                 vxsched::CError);
    lseek(file.Get(), 0, SEEK_SET);
    const std::string left = vxsched::ReadBytes(file.Get(), "table");
    EXPECT_EQ(left.size(), former.size());
    EXPECT_THROW(vxsched::DecodeTable(left, vxsched::Now()), vxsched::CError);
}
