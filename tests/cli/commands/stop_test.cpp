// stop: ends the runs of a task, which a real host has launched.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Cli.h"
#include "ForeignStore.h"
#include "GroupStore.h"
#include "HostProgram.h"
#include "Process.h"
#include "base/CDescriptor.h"
#include "base/Users.h"
#include "runs/OutputFiles.h"
#include "runs/RunRecord.h"

namespace fs = std::filesystem;

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class CliStop : public Cli {
protected:
    CliStop() {
        WriteFile("script",
                  "trap 'echo bye; exit 5' TERM; touch begun; while :; do sleep 0.01; done");
    }

    static void Launch(const char* name) {
        fs::remove("begun");
        Output({"create", name, "--replace", "--every", "1d", "--", "/bin/sh", "script"});
        WaitUntil([] { return fs::exists("begun"); });
        // The tick saves the launch after it.
        WaitUntil([&] {
            const auto table = ReadTable();
            return std::any_of(table.begin(), table.end(),
                               [&](const TRow& row) { return row.name == name && row.last != 0; });
        });
    }
};

}  // namespace

TEST_F(CliStop, EndsTheRunsAndRecordsByWhom) {
    CHost host;
    Launch("job");
    EXPECT_THAT(Output({"stop", "job", "--dry-run"}), StartsWith("would stop job, process "));
    const std::string report = Output({"stop", "job"});
    EXPECT_THAT(report, StartsWith("stopped job, process "));
    EXPECT_THAT(report, HasSubstr(": exited 5\n"));
    const auto record = nlohmann::json::parse(Lines(cHistory).back());
    EXPECT_EQ(record.at("status"), 5);
    EXPECT_EQ(record.at("stoppedBy"), FindUser(getuid()).name);
    EXPECT_THAT(Output({"output", "job"}), HasSubstr("bye\n"));
    EXPECT_EQ(NamesInTable(), "job") << "only its run is ended";
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(CliStop, EndsARunWhoseHostIsGone) {
    CHost host;
    Launch("job");
    host.Kill(SIGKILL);
    host.Wait();
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr(": exited 5\n"));
}

TEST_F(CliStop, EndsARunOfBeforeItsTaskWasRenamed) {
    CHost host;
    Launch("job");
    Output({"edit", "job", "--name", "new"});
    EXPECT_THAT(Output({"stop", "new"}), HasSubstr(": exited 5\n"));
    EXPECT_EQ(nlohmann::json::parse(Lines(cHistory).back()).at("name"), "job");
    EXPECT_EQ(host.Stop(), 0);
}

// Their processes are told apart by the name of the run alone.
TEST_F(CliStop, LeavesTheRunOfAnotherTaskWithTheSameProgram) {
    CHost host;
    Launch("job");
    Output({"create", "other", "--at", "tomorrow", "--every", "1d", "--", "/bin/sh", "script"});
    ExpectRefused(1, "no run of \"other\" is under way", {"stop", "other"});
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr(": exited 5\n"));
    EXPECT_EQ(host.Stop(), 0);
}

// The process that a file's name has may be any other by now.
TEST_F(CliStop, SignalsWhoHasTheFileLockedAndNobodyElse) {
    fs::create_directories("files/running");
    CForkedChild innocent([] {
        pause();
        return 0;
    });
    TRunRecord run;
    run.task = "job";
    run.id = "20261122T120000.000Z-" + std::to_string(innocent.Id());
    run.output = OutputPathOf(run.task, run.id);
    run.outcome = TRunRecord::cRunnerDied;
    const std::string path = "files/running/" + run.id;
    WriteFile(path, JsonLine(run));
    ExpectRefused(1, "no run of \"job\" is under way", {"stop", "job"});
    CForkedChild holder([&] {
        const CDescriptor file(open(path.c_str(), O_RDWR));
        struct flock whole {};
        whole.l_type = F_WRLCK;
        fcntl(file.Get(), F_SETLK, &whole);
        WriteFile("locked", "");
        pause();
        return 0;
    });
    WaitUntil([] { return fs::exists("locked"); });
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr(": runner died\n"));
    EXPECT_EQ(holder.Wait(), 1000 + SIGTERM);
    EXPECT_EQ(kill(innocent.Id(), 0), 0);
    innocent.Kill(SIGKILL);
}

// Of the owner's runs, in a store that is open to a group.
class CliStopByOthers : public CliStop {
protected:
    void SetUp() override {
        REQUIRE_SUPERUSER();
        if (!EnterUserDatabase())
            GTEST_SKIP() << cCannotMount;
        TRow row = Later("job");
        row.program = "/bin/sh";
        row.parameters = fs::absolute("script");
        WriteTable({row});
        ASSERT_EQ(chmod("script", 0644), 0);
        CProgram shell({"/bin/sh", "-c",
                        "chown -R keeper:team . && chmod -R g+rwX . && "
                        "find . -type d -exec chmod g+s {} +"});
        ASSERT_EQ(shell.Wait(), 0) << shell.Output();
        host = std::make_unique<CHost>(As(cKeeper, HostWith({})));
        CProgram run(As(cKeeper, {TOOL_PROGRAM, "run", "job"}));
        ASSERT_EQ(run.Wait(), 0) << run.Output();
        WaitUntil([] { return fs::exists("begun"); });
    }

    static nlohmann::json LastRecord() { return nlohmann::json::parse(Lines(cHistory).back()); }

    std::unique_ptr<CHost> host;
};

// A member may not signal the owner's processes, but the host may.
TEST_F(CliStopByOthers, MemberHasTheHostStopThem) {
    CProgram stop(As(cMember, {TOOL_PROGRAM, "stop", "job"}));
    EXPECT_EQ(stop.Wait(), 0) << stop.Output();
    EXPECT_THAT(stop.Output(), HasSubstr(": exited 5\n"));
    EXPECT_EQ(LastRecord().at("stoppedBy"), "member");
    EXPECT_EQ(host->Stop(), 0);
    EXPECT_EQ(host->CountInOutput("user member has run "), 1U) << host->Output();
}

TEST_F(CliStopByOthers, MemberWithoutAHostIsToldWhoMay) {
    EXPECT_EQ(host->Stop(), 0);
    CProgram stop(As(cMember, {TOOL_PROGRAM, "stop", "job"}));
    EXPECT_EQ(stop.Wait(), 4) << stop.Output();
    EXPECT_THAT(stop.Output(),
                HasSubstr("its runner belongs to user keeper, and there is no host"));
    EXPECT_THAT(stop.Output(), HasSubstr("run vxsched stop as that user or as the superuser"));
    CProgram own(As(cKeeper, {TOOL_PROGRAM, "stop", "job"}));
    EXPECT_EQ(own.Wait(), 0) << own.Output();
    EXPECT_EQ(LastRecord().at("stoppedBy"), "keeper");
}

// Who works as the owner, but not in a store that others may write.
TEST_F(CliStopByOthers, SuperuserIsRecordedAsSuch) {
    CProgram shell({"/bin/sh", "-c", "chmod -R go-w ."});
    ASSERT_EQ(shell.Wait(), 0) << shell.Output();
    EXPECT_THAT(Output({"stop", "job"}), HasSubstr(": exited 5\n"));
    EXPECT_EQ(LastRecord().at("stoppedBy"), "root");
    EXPECT_EQ(host->Stop(), 0);
}

TEST_F(CliStop, OfATaskIsNotThatOfAnotherWithASimilarName) {
    CHost host;
    Launch("job\xff");
    ExpectRefused(3, "no task", {"stop", "job\xfe"});
    EXPECT_THAT(Output({"stop", "job\xff"}), HasSubstr(": exited 5\n"));
    EXPECT_EQ(host.Stop(), 0);
}

TEST_F(CliStop, WithoutARunIsRefused) {
    WriteTable({Later("backup")});
    ExpectRefused(1, "no run of \"backup\" is under way", {"stop", "backup"});
    ExpectRefused(3, "did you mean \"backup\"?", {"stop", "bakcup"});
}
