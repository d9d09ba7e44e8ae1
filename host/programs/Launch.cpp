// The host's own posix_spawn and waitpid, exported by the program, so that the add-in's calls of
// them come here. A started program gets what a child should have, whatever the host's threads have
// blocked and the host has open, and the host learns of every start and every end. Both then do
// exactly what the system's do.

#include "host/programs/Launch.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "host/CHostLog.h"
#include "host/programs/CDueTasks.h"
#include "host/programs/CLaunchedPrograms.h"
#include "host/programs/CProgramOutput.h"
#include "host/recovery/LaunchRecords.h"

namespace {

const CProgramOutput* gOutput = nullptr;

class CSpawnAttributes {
public:
    // An empty signal mask and every signal's default disposition.
    CSpawnAttributes() {
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~CSpawnAttributes() { posix_spawnattr_destroy(&attributes); }
    CSpawnAttributes(const CSpawnAttributes&) = delete;
    CSpawnAttributes& operator=(const CSpawnAttributes&) = delete;

    const posix_spawnattr_t* Get() const { return &attributes; }

private:
    posix_spawnattr_t attributes{};
};

class CSpawnActions {
public:
    // Nothing to read at standard input, `output` (-1: the host's own) as standard output and error,
    // and nothing open beyond. The new process leaves `mark`, if there is one.
    CSpawnActions(int output, const std::optional<std::string>& mark) {
        posix_spawn_file_actions_init(&actions);
        if (mark)
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, mark->c_str(),
                                             O_WRONLY | O_CREAT, 0600);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        if (output != -1) {
            posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
            posix_spawn_file_actions_adddup2(&actions, output, STDERR_FILENO);
        }
        posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
    }
    ~CSpawnActions() { posix_spawn_file_actions_destroy(&actions); }
    CSpawnActions(const CSpawnActions&) = delete;
    CSpawnActions& operator=(const CSpawnActions&) = delete;

    const posix_spawn_file_actions_t* Get() const { return &actions; }

private:
    posix_spawn_file_actions_t actions{};
};

template <typename Function>
Function* SystemsOwn(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
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

void SetProgramOutput(const CProgramOutput* output) {
    gOutput = output;
}

extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const arguments[],
                           char* const environment[]) {
    static auto* const system = SystemsOwn<decltype(posix_spawn)>("posix_spawn");
    TRunRecord run = Describe(path, arguments);
    const CDescriptor output = gOutput != nullptr ? gOutput->Open(run.task) : CDescriptor();
    const CSpawnAttributes cleanAttributes;
    const auto start = [&](const std::optional<std::string>& mark) {
        const CSpawnActions cleanActions(output.Get(), mark);
        return system(process, path, actions != nullptr ? actions : cleanActions.Get(),
                      attributes != nullptr ? attributes : cleanAttributes.Get(), arguments,
                      environment);
    };
    std::optional<std::string> mark;
    if (run.task && run.due)
        mark = MarkPath(*run.task, *run.due);
    const auto lacksMark = [&] { return mark && access(mark->c_str(), F_OK) != 0; };
    int result = start(mark);
    if (result != 0 && lacksMark() && MakeMarkFolder())
        result = start(mark);
    // Rather a start without a mark than none, on a disk without room for one.
    if (result != 0 && lacksMark()) {
        LogWarning(
            fmt::format("cannot make {}: {}. Killed before the table shows this start, a host "
                        "makes it again.",
                        *mark, std::strerror(result)));
        result = start(std::nullopt);
    }
    if (result == 0) {
        run.process = *process;
        if (run.task && run.due)
            RememberStart({.task = MarkName(*run.task),
                           .due = *run.due,
                           .started = std::chrono::floor<std::chrono::seconds>(*run.started)});
        CStartedPrograms::Instance().Started(run);
    } else {
        // It may have come as far as its mark.
        if (mark)
            unlink(mark->c_str());
        run.outcome = TRunRecord::cNotStarted;
        run.ended = run.started;
        run.error = std::strerror(result);
        CStartedPrograms::Instance().NotStarted(run);
    }
    return result;
}

extern "C" pid_t waitpid(pid_t process, int* status, int options) {
    int known = 0;
    rusage usage{};
    const pid_t result = wait4(process, &known, options, &usage);
    const int error = errno;
    if (result > 0 && status != nullptr)
        *status = known;
    CStartedPrograms::Instance().Asked(process, result, known, usage);
    errno = error;
    return result;
}
