// The control socket of the host, served by the test: what clients of all kinds get, and that none
// of them holds up another one or keeps more than its share.

#include "host/service/CControlSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ForeignStore.h"
#include "Process.h"
#include "base/CDescriptor.h"
#include "base/PassDescriptor.h"
#include "control/Messages.h"
#include "host/CHostLog.h"

namespace fs = std::filesystem;

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char cSocket[] = "files/control";

// A client that never blocks.
class CClient {
public:
    CClient() : socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, cSocket);
        error = connect(socket.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0
                    ? 0
                    : errno;
    }

    // How many of the bytes there was room for.
    std::size_t Send(std::string_view bytes) const {
        const ssize_t count = send(socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        return count == -1 ? 0 : static_cast<std::size_t>(count);
    }

    // What has come by now; "closed" at the end of the connection, after an answer as well.
    std::string Receive() const {
        std::string all;
        char block[4096];
        for (;;) {
            const ssize_t count = recv(socket.Get(), block, sizeof block, 0);
            if (count == -1 && errno == EAGAIN)
                return all;
            if (count <= 0)
                return all + "closed";
            all.append(block, static_cast<std::size_t>(count));
        }
    }

    int Id() const { return socket.Get(); }
    void EndSending() const { shutdown(socket.Get(), SHUT_WR); }
    void Close() { socket = CDescriptor(); }

    int error = 0;

private:
    CDescriptor socket;
};

class ControlSocket : public testing::Test {
protected:
    ControlSocket() {
        fs::create_directory("files");
        fs::remove_all(cSocket);
        Make();
        control->Listen();
    }

    void Make() {
        control.reset();
        control.emplace([this](std::string_view line, const CControlSocket::TSender& sender) {
            EXPECT_EQ(sender.user, getuid());
            lines.emplace_back(line);
            if (sender.passed != -1) {
                EXPECT_EQ(write(sender.passed, "passed", 6), 6);
            }
            return answer;
        });
    }

    bool IsReadable() const {
        pollfd descriptor{.fd = control->Descriptor(), .events = POLLIN, .revents = 0};
        return poll(&descriptor, 1, 0) == 1;
    }

    // As the main loop does, until there is nothing to do.
    void Serve() {
        int calls = 0;
        while (IsReadable()) {
            control->Serve();
            ASSERT_LT(++calls, 100'000) << "the main loop would be busy for ever";
        }
    }

    // Whether a client that comes now is served.
    bool IsAnswered() {
        Serve();
        const CClient client;
        client.Send("line\n");
        Serve();
        return client.Receive() == "answer\nclosed";
    }

    // Somebody else's socket, in place of what is there.
    static void BindOther(const char* path) {
        fs::remove(path);
        const CDescriptor other(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, path);
        ASSERT_EQ(bind(other.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }

    static unsigned int Mode() {
        struct stat status {};
        return lstat(cSocket, &status) == 0 ? status.st_mode & 07777U : 0U;
    }

    static std::size_t CountDescriptors() {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
    }

    std::string answer = "answer\n";
    std::vector<std::string> lines;
    std::optional<CControlSocket> control;
};

}  // namespace

// ---- The file -----------------------------------------------------------------------------------

TEST_F(ControlSocket, IsMadeOnceWhatHasItsNameIsGone) {
    control.reset();
    fs::create_directory(cSocket);
    Make();
    control->Listen();
    fs::remove(cSocket);
    WaitUntil([this] { return IsAnswered(); });
}

TEST_F(ControlSocket, IsMadeAgainWhenItsFileIsGoneOrReplaced) {
    const std::vector<std::function<void()>> harms = {
        [] { fs::remove(cSocket); },
        [] { fs::rename(cSocket, "files/elsewhere"); },
        [] { BindOther(cSocket); },
        [] {
            BindOther("files/other");
            fs::rename("files/other", cSocket);
        },
        [] {
            fs::remove_all("files");
            fs::create_directory("files");
        },
        [] {
            fs::rename("files", "former");
            fs::create_directory("files");
        },
    };
    for (std::size_t number = 0; number < harms.size(); ++number) {
        SCOPED_TRACE(number);
        harms[number]();
        WaitUntil([this] { return IsAnswered(); });
        EXPECT_EQ(Mode(), 0600U);
        EXPECT_FALSE(IsReadable()) << "the main loop has nothing to do";
    }
}

TEST_F(ControlSocket, RefusesClientsUntilTheHostListens) {
    Make();
    EXPECT_EQ(CClient().error, ECONNREFUSED);
    control->Listen();
    EXPECT_EQ(CClient().error, 0);
}

// ---- Users --------------------------------------------------------------------------------------

// Also where the modes of files let everybody in.
TEST_F(ControlSocket, AnswersNobodyWhomTheStoreIsNotFor) {
    REQUIRE_SUPERUSER();
    WriteFile("log", "");
    CHostLog::Instance().WriteTo("log");
    ASSERT_EQ(chmod(".", 0755), 0);
    ASSERT_EQ(chmod("files", 0755), 0);
    ASSERT_EQ(chmod(cSocket, 0666), 0);
    for (int time = 0; time < 2; ++time) {
        CForkedChild other([] {
            if (setgid(cForeignUser) != 0 || setuid(cForeignUser) != 0)
                return 1;
            const CClient client;
            client.Send("line\n");
            std::string received;
            WaitUntil([&] { return !(received = client.Receive()).empty(); });
            return client.error == 0 && received == "closed" ? 42 : 2;
        });
        WaitUntil([&] {
            control->Serve();
            return HasEnded(other.Id());
        });
        EXPECT_EQ(other.Wait(), 42);
    }
    EXPECT_THAT(lines, IsEmpty());
    const std::string log = ReadFile("log");
    const std::size_t first = log.find("is refused on files/control");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_EQ(log.find("is refused on files/control", first + 1), std::string::npos) << log;
}

// ---- Requests -----------------------------------------------------------------------------------

TEST_F(ControlSocket, AnswersALineAndClosesTheConnection) {
    const CClient client;
    client.Send("line\n");
    Serve();
    EXPECT_THAT(lines, ElementsAre("line"));
    EXPECT_EQ(client.Receive(), "answer\nclosed");
}

TEST_F(ControlSocket, WaitsForTheRestOfALineAndServesOthersMeanwhile) {
    const CClient slow;
    slow.Send("first");
    Serve();
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(slow.Receive(), "");
    const CClient other;
    other.Send("other\n");
    Serve();
    EXPECT_EQ(other.Receive(), "answer\nclosed");
    slow.Send(" line\n");
    Serve();
    EXPECT_EQ(slow.Receive(), "answer\nclosed");
    EXPECT_THAT(lines, ElementsAre("other", "first line"));
}

TEST_F(ControlSocket, TakesOneLineOfAConnection) {
    const CClient client;
    client.Send("one\ntwo\n");
    Serve();
    EXPECT_THAT(lines, ElementsAre("one"));
}

TEST_F(ControlSocket, AnswersAClientThatHasOnlyEndedWhatItSends) {
    const CClient client;
    client.Send("line\n");
    client.EndSending();
    Serve();
    EXPECT_EQ(client.Receive(), "answer\nclosed");
}

// Whoever reads no answer does not learn what was launched.
TEST_F(ControlSocket, DoesNothingForAClientThatIsGone) {
    for (const char* const sent : {"", "half a line", "line\n"}) {
        CClient client;
        client.Send(sent);
        client.Close();
        Serve();
        EXPECT_THAT(lines, IsEmpty()) << sent;
    }
    CClient accepted;
    accepted.Send("half a ");
    Serve();
    accepted.Send("line\n");
    accepted.Close();
    Serve();
    EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ControlSocket, ReadsALineOfTheLongestMessageAndNoLongerOne) {
    for (const std::size_t length :
         {vxsched::cLongestMessage, vxsched::cLongestMessage + 1, std::size_t{10'000'000}}) {
        lines.clear();
        const CClient client;
        const std::string line = std::string(length, 'x') + '\n';
        std::size_t sent = 0;
        while (sent < line.size()) {
            const std::size_t count = client.Send(std::string_view(line).substr(sent));
            sent += count;
            if (count == 0 && client.Receive().find("closed") != std::string::npos)
                break;
            Serve();
        }
        Serve();
        EXPECT_EQ(lines.size(), length <= vxsched::cLongestMessage ? 1U : 0U) << length;
        EXPECT_LE(sent, 2 * vxsched::cLongestMessage) << length;
    }
}

TEST_F(ControlSocket, DropsTheAnswerOfAClientThatDoesNotRead) {
    answer = std::string(8'000'000, 'a') + '\n';
    const CClient client;
    client.Send("line\n");
    Serve();
    EXPECT_THAT(lines, ElementsAre("line"));
    const std::string received = client.Receive();
    EXPECT_THAT(received, testing::EndsWith("closed"));
    EXPECT_LT(received.size(), answer.size());
}

// ---- Many ---------------------------------------------------------------------------------------

TEST_F(ControlSocket, OfAThousandConnectionsTheOldestMakeRoom) {
    const std::size_t before = CountDescriptors();
    std::size_t most = 0;
    std::vector<std::unique_ptr<CClient>> clients;
    for (int number = 0; number < 1000; ++number) {
        clients.push_back(std::make_unique<CClient>());
        EXPECT_EQ(clients.back()->error, 0);
        Serve();
        most = std::max(most, CountDescriptors() - before - clients.size());
        if (clients.size() > 20)
            clients.erase(clients.begin());
    }
    EXPECT_LE(most, 8U);
    clients.back()->Send("line\n");
    Serve();
    EXPECT_EQ(clients.back()->Receive(), "answer\nclosed");
    EXPECT_THAT(lines, ElementsAre("line"));
}

// With any part of the line.
TEST_F(ControlSocket, HandsOnTheDescriptorThatAClientPasses) {
    const CClient client;
    client.Send("a ");
    WriteFile("file", "");
    const CDescriptor file(open("file", O_WRONLY | O_CLOEXEC));
    EXPECT_TRUE(SendAllWith(client.Id(), "line\n", file.Get()));
    Serve();
    EXPECT_THAT(lines, ElementsAre("a line"));
    EXPECT_EQ(ReadFile("file"), "passed");
}

TEST_F(ControlSocket, KeepsOneDescriptorOfAClientAndNoneOnceItIsAnswered) {
    const std::size_t before = CountDescriptors();
    WriteFile("file", "");
    const CDescriptor file(open("file", O_WRONLY | O_CLOEXEC));
    {
        const CClient client;
        for (int number = 0; number < 100; ++number) {
            EXPECT_TRUE(SendAllWith(client.Id(), "x", file.Get()));
            Serve();
        }
        EXPECT_EQ(CountDescriptors(), before + 4) << "two sockets, the file, the one that is kept";
        client.Send("\n");
        Serve();
        EXPECT_EQ(client.Receive(), "answer\nclosed");
    }
    EXPECT_EQ(ReadFile("file"), "passed");
    EXPECT_EQ(CountDescriptors(), before + 1);
}

TEST_F(ControlSocket, RefusesSeveralDescriptorsAndKeepsNone) {
    const std::size_t before = CountDescriptors();
    {
        const CClient client;
        iovec part{.iov_base = const_cast<char*>("line\n"), .iov_len = 5};
        alignas(cmsghdr) char bytes[CMSG_SPACE(2 * sizeof(int))] = {};
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        message.msg_control = bytes;
        message.msg_controllen = sizeof bytes;
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(2 * sizeof(int));
        const int several[] = {STDIN_FILENO, STDERR_FILENO};
        std::memcpy(CMSG_DATA(header), several, sizeof several);
        ASSERT_EQ(sendmsg(client.Id(), &message, MSG_NOSIGNAL), 5);
        Serve();
        EXPECT_THAT(client.Receive(), HasSubstr("could not take the descriptor"));
    }
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_EQ(CountDescriptors(), before);
}

// More than wait to be accepted are refused by the system, as without a host.
TEST_F(ControlSocket, ThatIsNotServedForAWhileRefusesWhoeverComesTooLate) {
    std::vector<std::unique_ptr<CClient>> clients;
    do
        clients.push_back(std::make_unique<CClient>());
    while (clients.back()->error == 0 && clients.size() < 1000);
    EXPECT_EQ(clients.back()->error, EAGAIN);
    Serve();
    const CClient next;
    next.Send("line\n");
    Serve();
    EXPECT_EQ(next.Receive(), "answer\nclosed");
}

TEST_F(ControlSocket, WithoutDescriptorsKeepsTheMainLoopIdleAndRecovers) {
    WriteFile("log", "");
    CHostLog::Instance().WriteTo("log");
    const CClient client;
    client.Send("first\n");
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    const rlim_t former = limits.rlim_cur;
    limits.rlim_cur = 3;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limits), 0);
    for (int call = 0; call < 10; ++call)
        control->Serve();
    EXPECT_FALSE(IsReadable());
    limits.rlim_cur = former;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limits), 0);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_THAT(ReadFile("log"), HasSubstr("cannot accept a client on files/control"));
    const CClient next;
    next.Send("second\n");
    Serve();
    EXPECT_THAT(lines, testing::UnorderedElementsAre("first", "second"));
}

// At the limit itself: who waits in vain for an answer would hold the store mutex meanwhile.
TEST_F(ControlSocket, AtTheLimitOnDescriptorsTurnsClientsAway) {
    const CClient one;
    one.Send("one\n");
    const CClient other;
    rlimit limits{};
    getrlimit(RLIMIT_NOFILE, &limits);
    const rlim_t former = limits.rlim_cur;
    limits.rlim_cur = 256;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limits), 0);
    std::vector<CDescriptor> taken;
    do
        taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    while (taken.back().IsOpen());
    Serve();
    EXPECT_EQ(one.Receive(), "closed");
    EXPECT_EQ(other.Receive(), "closed");
    taken.clear();
    limits.rlim_cur = former;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limits), 0);
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_TRUE(IsAnswered());
}
