// A launched program gets what a child should have, whatever the host's threads have blocked and the
// host has open, and the host learns of every launch and every end. Both handlers then do exactly what
// the system's functions do.

#include "host/programs/Launch.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/Spawn.h"
#include "host/CHostLog.h"
#include "host/programs/CDueTasks.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/CProgramOutput.h"
#include "host/recovery/LaunchRecords.h"
#include "interpose/Launch.h"

namespace {

const CProgramOutput* gOutput = nullptr;

// Nothing to read at standard input, `output` (-1: the host's own) as standard output and error, and
// nothing open beyond. The new process leaves `mark`, if there is one.
void FillActions(CSpawnActions& actions, int output, const std::optional<std::string>& mark) {
    if (mark)
        actions.Open(STDIN_FILENO, *mark, O_WRONLY | O_CREAT, 0600);
    actions.Open(STDIN_FILENO, "/dev/null", O_RDONLY);
    if (output != -1) {
        actions.Duplicate(output, STDOUT_FILENO);
        actions.Duplicate(output, STDERR_FILENO);
    }
    actions.CloseFrom(STDERR_FILENO + 1);
}

// What is known of a start before it is made.
TRunRecord Describe(const char* path, char* const arguments[]) {
    static CDueTasks tasks;  // starts are made by the worker alone
    TRunRecord run;
    run.program = path;
    run.parameter = arguments[0] != nullptr && arguments[1] != nullptr ? arguments[1] : "";
    if (const auto task = tasks.Find(run.program, run.parameter)) {
        run.task = task->name;
        run.due = task->due;
    }
    run.started = Now();
    return run;
}

}  // namespace

static int Spawn(pid_t* process, const char* path, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
    TRunRecord run = Describe(path, arguments);
    const CDescriptor output = gOutput != nullptr ? gOutput->Open(run.task) : CDescriptor();
    CSpawnAttributes cleanAttributes;
    cleanAttributes.ResetSignals();
    const auto start = [&](const std::optional<std::string>& mark) {
        CSpawnActions cleanActions;
        FillActions(cleanActions, output.Get(), mark);
        return NextLaunchHandlers().spawn(
            process, path, actions != nullptr ? actions : cleanActions.Get(),
            attributes != nullptr ? attributes : cleanAttributes.Get(), arguments, environment);
    };
    std::optional<std::string> mark;
    if (run.task && run.due)
        mark = LaunchRecordPath(*run.task, *run.due);
    const auto lacksRecord = [&] { return mark && access(mark->c_str(), F_OK) != 0; };
    int result = start(mark);
    if (result != 0 && lacksRecord() && MakeLaunchRecordDirectory())
        result = start(mark);
    // Rather a start without a mark than none, on a disk without room for one.
    if (result != 0 && lacksRecord()) {
        LogWarning(
            fmt::format("cannot make {}: {}. Killed before the table shows this start, a host "
                        "makes it again.",
                        *mark, std::strerror(result)));
        result = start(std::nullopt);
    }
    if (result == 0) {
        run.process = *process;
        if (run.task && run.due)
            RememberLaunch({.task = LaunchRecordName(*run.task),
                            .due = *run.due,
                            .started = std::chrono::floor<std::chrono::seconds>(*run.started)});
        CLaunchedPrograms::Instance().Started(run);
    } else {
        // It may have come as far as its mark.
        if (mark)
            unlink(mark->c_str());
        run.outcome = TRunRecord::cNotStarted;
        run.ended = run.started;
        run.error = std::strerror(result);
        CLaunchedPrograms::Instance().NotStarted(run);
    }
    return result;
}

static pid_t Wait(pid_t process, int* status, int options) {
    int known = 0;
    rusage usage{};
    const pid_t result = wait4(process, &known, options, &usage);
    const int error = errno;
    if (result > 0 && status != nullptr)
        *status = known;
    CLaunchedPrograms::Instance().Asked(process, result, known, usage);
    errno = error;
    return result;
}

void TakeLaunches(const CProgramOutput* output) {
    gOutput = output;
    SetLaunchHandlers({.spawn = Spawn, .wait = Wait});
}
