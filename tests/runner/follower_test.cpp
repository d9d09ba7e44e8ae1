// Whoever follows the output of a run: gets all of it, holds up nobody, and may go.

#include "runner/CFollower.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <string>

#include "Process.h"
#include "TableFile.h"

namespace {

class Follower : public testing::Test {
protected:
    Follower() {
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
        reader = CDescriptor(ends[0]);
        writer = ends[1];
    }

    // What there is to read by now; "end" at the end.
    std::string Read() const {
        std::string all;
        char block[65536];
        for (;;) {
            const ssize_t count = recv(reader.Get(), block, sizeof block, MSG_DONTWAIT);
            if (count <= 0)
                return count == 0 ? all + "end" : all;
            all.append(block, static_cast<std::size_t>(count));
        }
    }

    CDescriptor reader;
    int writer = -1;
};

// More than a socket takes.
const std::string cMuch(10'000'000, 'x');

}  // namespace

TEST_F(Follower, GetsAllInItsOrder) {
    CFollower follower(writer);
    follower.Take("one");
    EXPECT_EQ(follower.WaitsFor(), -1);
    EXPECT_EQ(Read(), "one");
    follower.Take(cMuch);
    follower.Take("two");
    std::string read;
    while (follower.WaitsFor() != -1) {
        read += Read();
        follower.Send();
    }
    EXPECT_EQ(read + Read(), cMuch + "two");
}

TEST_F(Follower, GetsWhatIsHeldBackBeforeTheEnd) {
    CFollower follower(writer);
    follower.Take(cMuch);
    follower.End();
    follower.Take("too late");
    EXPECT_EQ(follower.WaitsFor(), writer);
    std::string read;
    while (follower.WaitsFor() != -1) {
        read += Read();
        follower.Send();
    }
    EXPECT_EQ(read + Read(), cMuch + "end");
}

TEST_F(Follower, ThatHasGoneIsLeftAlone) {
    CFollower follower(writer);
    follower.Take(cMuch);
    reader = CDescriptor();
    pollfd event{.fd = follower.WaitsFor(), .events = POLLOUT, .revents = 0};
    EXPECT_EQ(poll(&event, 1, 0), 1);
    follower.Send();
    EXPECT_EQ(follower.WaitsFor(), -1);
    follower.Take("more");
    EXPECT_EQ(follower.WaitsFor(), -1);
}

TEST_F(Follower, MayBeNobody) {
    CFollower nobody(-1);
    nobody.Take("one");
    nobody.End();
    EXPECT_EQ(nobody.WaitsFor(), -1);
}

// A client that may only read a file could have the host's user write to it.
TEST_F(Follower, ThatIsAFileIsNotWrittenTo) {
    WriteFile("file", "somebody's");
    CFollower follower(open("file", O_RDWR | O_CLOEXEC));
    follower.Take("one");
    EXPECT_EQ(follower.WaitsFor(), -1);
    EXPECT_EQ(ReadFile("file"), "somebody's");
}
