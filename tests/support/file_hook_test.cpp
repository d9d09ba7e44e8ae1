// The hook of COpen: which files it opens, and what it learns of them.

#include <COpen.h>
#include <VXC_FileHook.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "Process.h"

static constexpr char cPath[] = "a file";
static constexpr char cTemporary[] = "another file";
static constexpr int cSave = O_WRONLY | O_CREAT | O_TRUNC;

// What the hook was called for.
static std::vector<std::string> gEvents;
static int gInterruptions = 0;
static int gCloseError = 0;

static int OpenFile(const char* path, int flags, unsigned int mode) {
    if (path != std::string(cPath))
        return cVXC_OpenAsUsual;
    EXPECT_NE(flags & O_CLOEXEC, 0);
    gEvents.push_back("open " + std::to_string(mode));
    if (gInterruptions > 0) {
        --gInterruptions;
        errno = EINTR;
        return -1;
    }
    return open(cTemporary, flags, mode);
}

static void ReadFailed(int error) {
    gEvents.push_back("read failed " + std::to_string(error));
}

static int CloseFile(int descriptor, bool isComplete) {
    gEvents.emplace_back(isComplete ? "close" : "close incomplete");
    close(descriptor);
    errno = gCloseError;
    return gCloseError == 0 ? 0 : -1;
}

static constexpr VXC_FileHook cHook{.open = OpenFile, .readFailed = ReadFailed, .close = CloseFile};

using TEvents = std::vector<std::string>;

class FileHook : public testing::Test {
protected:
    void SetUp() override { VXC_SetFileHook(&cHook); }
    void TearDown() override { VXC_SetFileHook(nullptr); }
};

TEST_F(FileHook, OpensAndClosesInPlaceOfCOpen) {
    COpen file(cPath, cSave, 0640);
    ASSERT_TRUE(file.IsValid());
    file.Write("bytes", 5);
    file.Close();
    EXPECT_EQ(gEvents, (TEvents{"open 416", "close"}));
    EXPECT_FALSE(std::filesystem::exists(cPath));
    EXPECT_EQ(ReadFile(cTemporary), "bytes");
}

TEST_F(FileHook, LearnsNothingOfAFileThatIsOpenedAsUsual) {
    {
        COpen file("a third file", cSave, 0640);
        file.Write("bytes", 5);
    }
    EXPECT_THROW(COpen(".", O_RDONLY, 0).ReadUnsigned(), std::system_error);
    EXPECT_EQ(gEvents, TEvents{});
    EXPECT_EQ(ReadFile("a third file"), "bytes");
}

TEST_F(FileHook, IsAskedAgainAfterAnInterruption) {
    gInterruptions = 2;
    EXPECT_TRUE(COpen(cPath, cSave, 0600).IsValid());
    EXPECT_EQ(gEvents, (TEvents{"open 384", "open 384", "open 384", "close"}));
}

TEST_F(FileHook, FailureToOpenIsTheFilesOwn) {
    EXPECT_FALSE(COpen(cPath, O_RDONLY, 0).IsValid());
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(gEvents, TEvents{"open 0"});
}

TEST_F(FileHook, FailureToCloseIsThrown) {
    COpen file(cPath, cSave, 0600);
    gCloseError = EDQUOT;
    try {
        file.Close();
        ADD_FAILURE() << "nothing was thrown";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EDQUOT);
    }
}

TEST_F(FileHook, FileWithAFailedWriteIsIncomplete) {
    std::filesystem::create_symlink("/dev/full", cTemporary);
    COpen file(cPath, O_WRONLY, 0);
    file.Write("bytes", 5);
    EXPECT_THROW(file.Close(), std::system_error);
    EXPECT_EQ(gEvents, (TEvents{"open 0", "close incomplete"}));
}

TEST_F(FileHook, FailedWriteIsRememberedUntilTheFileIsClosed) {
    std::filesystem::create_symlink("/dev/full", cTemporary);
    COpen file(cPath, O_WRONLY, 0);
    const std::string more(COpen::cLargestWrite + 1, 'b');
    EXPECT_THROW(file.Write(more.data(), static_cast<int>(more.size())), std::system_error);
    file.Close();
    EXPECT_EQ(gEvents, (TEvents{"open 0", "close incomplete"}));
}

static void FailWhileAFileIsOpen() {
    COpen file(cPath, cSave, 0600);
    file.Write("bytes", 5);
    throw std::runtime_error("the rest is missing");
}

TEST_F(FileHook, FileThatAnExceptionClosesIsIncomplete) {
    EXPECT_THROW(FailWhileAFileIsOpen(), std::runtime_error);
    EXPECT_EQ(gEvents, (TEvents{"open 384", "close incomplete"}));
}

// Saves at the end of its scope, which an exception may end.
class CSaver {
public:
    ~CSaver() {
        COpen file(cPath, cSave, 0600);
        file.Write("bytes", 5);
    }
};

static void FailWhileASaverExists() {
    const CSaver saver;
    throw std::runtime_error("the save is complete");
}

TEST_F(FileHook, FileThatIsOpenedAndClosedDuringAnExceptionIsComplete) {
    EXPECT_THROW(FailWhileASaverExists(), std::runtime_error);
    EXPECT_EQ(gEvents, (TEvents{"open 384", "close"}));
}

TEST_F(FileHook, ReadThatTheSystemFailsIsReported) {
    std::filesystem::create_directory(cTemporary);
    COpen file(cPath, O_RDONLY, 0);
    EXPECT_THROW(file.ReadUnsigned(), std::system_error);
    EXPECT_EQ(gEvents, (TEvents{"open 0", "read failed " + std::to_string(EISDIR)}));
}

TEST_F(FileHook, EndOfTheFileIsNoFailedRead) {
    WriteFile(cTemporary, "12");
    COpen file(cPath, O_RDONLY, 0);
    EXPECT_THROW(file.ReadUnsigned(), std::system_error);
    EXPECT_EQ(gEvents, TEvents{"open 0"});
}

TEST_F(FileHook, OpenFileKeepsTheHookThatOpenedIt) {
    COpen file(cPath, cSave, 0600);
    VXC_SetFileHook(nullptr);
    EXPECT_TRUE(COpen("a third file", cSave, 0600).IsValid());
    file.Close();
    EXPECT_EQ(gEvents, (TEvents{"open 384", "close"}));
}
