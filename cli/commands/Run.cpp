// run: launches a task's program now.

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <string>

#include <vxsched/Error.h>
#include <vxsched/SchedulingProcess.h>
#include "base/CDescriptor.h"
#include "base/CShownStream.h"
#include "base/DisplayText.h"
#include "base/ShellWord.h"
#include "base/SignalName.h"
#include "cli/commands/Commands.h"
#include "cli/commands/Interruption.h"
#include "cli/commands/PausedTasks.h"
#include "client/RunStatus.h"
#include "runs/RunEnd.h"
#include "runs/RunningRuns.h"
#include "store/MakeError.h"

namespace vxsched {

namespace {

// As a shell reports a program that a signal has killed.
constexpr int cKilledStatus = 128;

// Standard output has what the program writes, and nothing else.
void Tell(const std::string& line) {
    std::cerr << "vxsched: " << Show(line).string << '\n';
}

// What follows a report of the launch: who has made it, unless the host has.
std::string LauncherOf(const CStore& store) {
    try {
        const auto scheduler = FindSchedulingProcess(store.Options().directory);
        if (!scheduler || !scheduler->holdsLock)
            return " (by vxsched itself, since no vxschedd runs)";
    } catch (const CError&) {
        // Another user may not see it.
    }
    return "";
}

bool IsPaused(const CStore& store, const std::string& name) {
    const auto paused = FindPausedTasks(store.Options().directory);
    return paused && paused->contains(name);
}

void TellItIsPaused(const std::string& name) {
    Tell(fmt::format("{} is paused and stays so; its schedule goes on with vxsched resume {}", name,
                     ShellWord(name)));
}

// Prints what comes by the socket until everybody has closed its other end.
void PrintAll(const CDescriptor& socket, COutput& output) {
    std::array<char, 65536> block{};
    CShownStream shown;
    bool isAtLineBegin = true;
    for (;;) {
        const ssize_t count = recv(socket.Get(), block.data(), block.size(), 0);
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        const std::string bytes(block.data(), static_cast<std::size_t>(count));
        isAtLineBegin = bytes.back() == '\n';
        output.Raw(output.IsTerminal() ? shown.Add(bytes) : bytes);
        output.Finish();
    }
    output.Raw(shown.End());
    if (!isAtLineBegin && output.IsTerminal())
        output.Raw("\n");
    output.Finish();
}

TExitStatus LaunchAndWait(const CStore& store, const std::string& name, bool force,
                          COutput& output) {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == -1)
        throw SystemError("cannot make a socket pair for the output", errno);
    const CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    const bool isPaused = IsPaused(store, name);
    const std::string launcher = LauncherOf(store);
    const auto onLaunch = [&](const TRun& launched) {
        Tell(fmt::format("started {} as process {}{}", name, launched.process, launcher));
        if (isPaused)
            TellItIsPaused(name);
        CInterruption::WaitsFor(launched.process);
    };
    const TRun run = store.Run(name, force, false, onLaunch, theirs.Get());
    theirs = CDescriptor();
    try {
        PrintAll(ours, output);
    } catch (const CError& error) {
        throw MakeError(error.Code(), "{}; process {} keeps running", error.what(), run.process);
    }
    const std::string directory = store.Options().directory.string();
    if (!run.id.empty() && IsRunning(directory, run.id)) {
        Tell(fmt::format("the rest of the output is not printed; see vxsched output {}",
                         ShellWord(name)));
        WaitForRun(directory, run.id);
    }
    CInterruption::WaitEnds();
    const int status = FindWaitStatus(directory, run);
    if (WIFSIGNALED(status)) {
        Tell(fmt::format("{} was killed by {}", name, SignalName(WTERMSIG(status))));
        return static_cast<TExitStatus>(cKilledStatus + WTERMSIG(status));
    }
    Tell(fmt::format("{} exited with status {}", name, WEXITSTATUS(status)));
    return static_cast<TExitStatus>(WEXITSTATUS(status));
}

}  // namespace

TExitStatus Run(const TCommon& common, const std::string& name, bool force, bool wait,
                COutput& output) {
    const CStore store(common.store);
    if (common.dryRun) {
        store.CheckRun(name, force);
        output.Line(Show("would run " + name).string);
        if (IsPaused(store, name))
            TellItIsPaused(name);
        return cDone;
    }
    if (wait)
        return LaunchAndWait(store, name, force, output);
    const bool isPaused = IsPaused(store, name);
    const std::string launcher = LauncherOf(store);
    const TRun run = store.Run(name, force, false);
    output.Line(
        Show(fmt::format("started {} as process {}{}", name, run.process, launcher)).string);
    if (isPaused)
        TellItIsPaused(name);
    return cDone;
}

}  // namespace vxsched
