// The file of the control socket: who may connect by it, what it replaces, and when it is made again.

#include "host/service/CControlFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <optional>
#include <string>

#include "GroupStore.h"
#include "Process.h"
#include "base/CDescriptor.h"
#include "host/CHostLog.h"

namespace fs = std::filesystem;

using testing::HasSubstr;

namespace {

constexpr char cSocket[] = "files/control";

sockaddr_un Address() {
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strcpy(address.sun_path, cSocket);
    return address;
}

class ControlFile : public testing::Test {
protected:
    ControlFile() {
        fs::create_directory("files");
        fs::remove_all(cSocket);
    }

    void Make() {
        file.reset();
        file.emplace();
    }

    static bool IsReadable(const CDescriptor& descriptor) {
        pollfd polled{.fd = descriptor.Get(), .events = POLLIN, .revents = 0};
        return poll(&polled, 1, 0) == 1;
    }

    // Whether somebody listens on the socket that has the name.
    static bool IsReached() {
        const CDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_un address = Address();
        return connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
               0;
    }

    static unsigned int Mode() {
        struct stat status {};
        return lstat(cSocket, &status) == 0 ? status.st_mode & 07777U : 0U;
    }

    std::optional<CControlFile> file;
};

}  // namespace

TEST_F(ControlFile, IsForItsUserAloneAndGoesWithTheHost) {
    umask(0);
    Make();
    EXPECT_EQ(Mode(), 0600U);
    EXPECT_EQ(umask(0), 0U) << "the umask is as before";
    file.reset();
    EXPECT_FALSE(fs::exists(cSocket));
}

TEST_F(ControlFile, ReplacesOneThatAKilledHostHasLeft) {
    CForkedChild killed([] {
        const CControlFile left;
        _exit(42);
        return 1;
    });
    EXPECT_EQ(killed.Wait(), 42);
    EXPECT_TRUE(fs::is_socket(cSocket));
    EXPECT_FALSE(IsReached());
    Make();
    EXPECT_EQ(listen(file->Socket().Get(), 1), 0);
    EXPECT_TRUE(IsReached());
}

TEST_F(ControlFile, OverwritesNoFileThatIsNone) {
    WriteFile(cSocket, "somebody's");
    WriteFile("log", "");
    CHostLog::Instance().WriteTo("log");
    Make();
    EXPECT_FALSE(file->IsMade());
    file.reset();
    EXPECT_EQ(ReadFile(cSocket), "somebody's");
    EXPECT_THAT(ReadFile("log"), HasSubstr("cannot make the socket files/control: "));
}

TEST_F(ControlFile, IsMadeInASecondOnceWhatHasItsNameIsGone) {
    fs::create_directory(cSocket);
    Make();
    fs::remove(cSocket);
    WaitUntil([this] { return IsReadable(file->Retry()); });
    EXPECT_TRUE(file->MakeIfGone());
    EXPECT_TRUE(fs::is_socket(cSocket));
    EXPECT_FALSE(IsReadable(file->Retry()));
}

TEST_F(ControlFile, IsMadeAgainOnlyIfItIsGone) {
    Make();
    EXPECT_FALSE(file->MakeIfGone());
    EXPECT_FALSE(IsReadable(file->Watch()));
    fs::remove(cSocket);
    EXPECT_TRUE(IsReadable(file->Watch()));
    EXPECT_TRUE(file->MakeIfGone());
    EXPECT_TRUE(fs::is_socket(cSocket));
    EXPECT_FALSE(IsReadable(file->Watch()));
}

TEST_F(ControlFile, RemovesNoSocketOfAnotherProcess) {
    Make();
    fs::remove(cSocket);
    const CDescriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_un address = Address();
    ASSERT_EQ(bind(other.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    file.reset();
    EXPECT_TRUE(fs::is_socket(cSocket));
}

TEST_F(ControlFile, IsForTheGroupOfAStoreThatIsOpenToIt) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase());
    for (const char* const path : {".", "files"}) {
        ASSERT_EQ(chown(path, cKeeper, cStoreGroup), 0);
        ASSERT_EQ(chmod(path, 02770), 0);
    }
    Make();
    EXPECT_EQ(Mode(), 0660U);
}

// Neither the bit of the directory nor the process gives the file that group.
TEST_F(ControlFile, HasTheGroupOfAStoreWhoseDirectoriesLackTheBit) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase());
    for (const char* const path : {".", "files"}) {
        ASSERT_EQ(chown(path, cKeeper, cStoreGroup), 0);
        ASSERT_EQ(chmod(path, 0770), 0);
    }
    umask(022);
    Make();
    struct stat status {};
    ASSERT_EQ(lstat(cSocket, &status), 0);
    EXPECT_EQ(status.st_gid, cStoreGroup);
    EXPECT_EQ(Mode(), 0660U);
}
