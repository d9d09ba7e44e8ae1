// run: a host that ends, does not answer, is misused, or belongs to another user.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CliRun.h"
#include "ForeignStore.h"
#include "GroupStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "TableFile.h"
#include "Tool.h"
#include "base/CDescriptor.h"
#include "store/Layout.h"

namespace fs = std::filesystem;

using testing::EndsWith;
using testing::HasSubstr;

namespace {

// A socket in place of the host's, which the test serves.
class CControl {
public:
    CControl() : listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, vxsched::cControlSocket);
        EXPECT_EQ(bind(listener.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(listener.Get(), 1), 0);
    }

    CDescriptor Accept() const {
        return CDescriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }

    static std::string ReadRequest(const CDescriptor& client) {
        std::string line;
        char byte = 0;
        while (read(client.Get(), &byte, 1) == 1 && byte != '\n')
            line += byte;
        return line;
    }

    static void Answer(const CDescriptor& client, std::string_view answer) {
        EXPECT_EQ(send(client.Get(), answer.data(), answer.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(answer.size()));
    }

private:
    CDescriptor listener;
};

}  // namespace

// ---- The end of the host ------------------------------------------------------------------------

TEST_F(CliRun, OutlivesTheHostAndItsEndIsReported) {
    for (const int signal : {SIGKILL, SIGTERM}) {
        fs::remove("end");
        fs::remove(cHistory);
        WriteJob("echo begun; while [ ! -e end ]; do sleep 0.01; done; echo late; exit 8");
        CHost host;
        CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
        ASSERT_TRUE(run.WaitForOutput("begun\n"));
        host.Kill(signal);
        host.Wait();
        WriteFile("end", "");
        EXPECT_EQ(run.Wait(), 8);
        EXPECT_THAT(run.Output(), EndsWith("begun\nlate\nvxsched: job exited with status 8\n"));
        EXPECT_EQ(Output({"output", "job"}), "begun\nlate\n");
        EXPECT_EQ(LastRecord().at("status"), 8);
        EXPECT_EQ(Records().size(), 1U);
    }
}

// The kernel reports to the client that nobody has read its request.
TEST_F(CliRun, IsLaunchedByTheCallerIfTheHostIsKilledBeforeItReadsTheRequest) {
    WriteJob("echo run >> runs; echo done");
    auto control = std::make_unique<CControl>();
    CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
    {
        const CDescriptor client = control->Accept();
        char byte = 0;
        EXPECT_EQ(recv(client.Get(), &byte, 1, MSG_PEEK), 1);
        control.reset();
    }
    EXPECT_EQ(run.Wait(), 0) << run.Output();
    EXPECT_THAT(run.Output(), EndsWith("\ndone\nvxsched: job exited with status 0\n"));
    EXPECT_EQ(Lines("runs").size(), 1U);
}

TEST_F(CliRun, IsNotLaunchedASecondTimeIfTheHostDoesNotAnswer) {
    WriteJob("echo run >> runs");
    for (const char* const answer : {"", "half an answer", "no answer\n", "{\"version\":2}\n"}) {
        const CControl control;
        CProgram run({TOOL_PROGRAM, "run", "job", "--wait"});
        {
            const CDescriptor client = control.Accept();
            const TJson request = TJson::parse(CControl::ReadRequest(client));
            EXPECT_EQ(request.at("version"), 1);
            EXPECT_EQ(request.at("request"), "run");
            EXPECT_EQ(request.at("task"), "job");
            EXPECT_EQ(request.at("program"), "/bin/sh");
            EXPECT_EQ(request.at("parameter"), fs::absolute("script").string());
            CControl::Answer(client, answer);
        }
        EXPECT_EQ(run.Wait(), 9) << answer;
        EXPECT_THAT(run.Output(), HasSubstr("whether \"job\" was launched is not known"));
        EXPECT_THAT(run.Output(), HasSubstr("see vxsched history job"));
        fs::remove(vxsched::cControlSocket);
    }
    EXPECT_FALSE(fs::exists("runs"));
    EXPECT_EQ(ReadTable().at(0).last, 0);
}

// The client holds the store mutex meanwhile, so it does not wait for long.
TEST_F(CliRun, IsNotLaunchedASecondTimeIfTheHostIsSilent) {
    for (const auto& [name, value] : WithInterposedSystem())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("SHORT_REPLY_WAITS", "1", 1);
    WriteJob("echo run >> runs");
    const CControl control;
    CProgram run({TOOL_PROGRAM, "run", "job"});
    const CDescriptor client = control.Accept();
    CControl::ReadRequest(client);
    EXPECT_EQ(run.Wait(), 9);
    EXPECT_THAT(run.Output(), HasSubstr("is not known: the host has not answered"));
    EXPECT_FALSE(fs::exists("runs"));
}

// By its number if it comes without a message.
TEST_F(CliRun, ReportsTheErrorOfTheHost) {
    WriteJob("echo run >> runs");
    for (const auto& [message, reported] :
         {std::pair("too long", "too long"), std::pair("", "Argument list too long")}) {
        const CControl control;
        CProgram run({TOOL_PROGRAM, "run", "job"});
        {
            const CDescriptor client = control.Accept();
            CControl::ReadRequest(client);
            CControl::Answer(
                client,
                TJson{{"version", 1}, {"error", E2BIG}, {"message", message}}.dump() + '\n');
        }
        EXPECT_EQ(run.Wait(), 1);
        EXPECT_THAT(run.Output(), HasSubstr(std::string("cannot launch \"/bin/sh\": ") + reported));
        fs::remove(vxsched::cControlSocket);
    }
    EXPECT_FALSE(fs::exists("runs"));
}

// ---- The host -----------------------------------------------------------------------------------

// As many clients as it likes, and nobody who talks too much, keep it from its work. The task falls due
// meanwhile; no wait of a minute ends in this host, so that only its main thread wakes the worker.
TEST_F(CliRun, HostLaunchesADueTaskWhileItsSocketIsMisused) {
    for (const auto& [name, value] : WithInterposedSystem())
        setenv(name.c_str(), value.c_str(), 1);
    setenv("ENDLESS_MINUTES", "1", 1);
    WriteJob("echo run");
    TRow timed = Job();
    timed.name = "timed";
    timed.next = std::time(nullptr) + 2;
    WriteTable({Job(), timed});
    CHost host;
    const rlimit enough{.rlim_cur = 2000, .rlim_max = 2000};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &enough), 0);
    std::vector<CDescriptor> clients;
    for (int number = 0; number < 1000 || Records().empty(); ++number) {
        CDescriptor client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::strcpy(address.sun_path, vxsched::cControlSocket);
        ASSERT_EQ(connect(client.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        static_cast<void>(send(client.Get(), "half a line", 11, MSG_NOSIGNAL | MSG_DONTWAIT));
        if (number % 100 == 0) {
            const std::string line(10'000'000, 'x');
            EXPECT_LT(send(client.Get(), line.data(), line.size(), MSG_NOSIGNAL),
                      static_cast<ssize_t>(line.size()))
                << "the host closes the connection";
        }
        if (clients.size() < 1000)
            clients.push_back(std::move(client));
    }
    EXPECT_EQ(Records().at(0).at("name"), "timed");
    EXPECT_EQ(Records().at(0).at("trigger"), "schedule");
    EXPECT_EQ(RunTool({"run", "job", "--wait"}).output, "run\n");
    EXPECT_EQ(LastRecord().at("trigger"), "manual");
    EXPECT_EQ(host.Stop(), 0);
    EXPECT_FALSE(fs::exists(vxsched::cControlSocket));
}

// ---- Users --------------------------------------------------------------------------------------

TEST_F(CliRun, OfTheSuperuserInAForeignStoreIsLaunchedByTheOwnersHost) {
    REQUIRE_SUPERUSER();
    WriteJob("id -u; cut -d ' ' -f 4 /proc/$PPID/stat");
    ASSERT_EQ(chmod("script", 0644), 0);
    GiveStoreTo(cForeignUser);
    std::vector<std::string> command = {"/usr/bin/setpriv",           "--reuid",
                                        std::to_string(cForeignUser), "--regid",
                                        std::to_string(cForeignUser), "--clear-groups"};
    for (const std::string& argument : HostWith({}))
        command.push_back(argument);
    CHost host(command);
    const TToolRun run = RunTool({"run", "job", "--wait"});
    EXPECT_EQ(run.status, 0) << run.error;
    EXPECT_EQ(run.output, std::to_string(cForeignUser) + '\n' + std::to_string(host.Id()) + '\n');
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}

// The owner's host launches it, as the owner.
TEST_F(CliRun, OfAMemberOfTheGroupRunsAsTheOwner) {
    REQUIRE_SUPERUSER();
    ASSERT_TRUE(EnterUserDatabase());
    WriteJob("id -un");
    ASSERT_EQ(chmod("script", 0644), 0);
    CProgram shell({"/bin/sh", "-c",
                    "chown -R keeper:team . && chmod -R g+rwX . && "
                    "find . -type d -exec chmod g+s {} +"});
    ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    CHost host(As(cKeeper, HostWith({})));
    CProgram run(As(cMember, {TOOL_PROGRAM, "run", "job", "--wait"}));
    EXPECT_EQ(run.Wait(), 0) << run.Output();
    EXPECT_THAT(run.Output(), HasSubstr("\nkeeper\n"));
    EXPECT_EQ(host.Stop(), 0) << host.Output();
}
