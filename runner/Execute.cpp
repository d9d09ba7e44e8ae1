#include "runner/Execute.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <vector>

#include "base/CDescriptor.h"

// The descriptor in the child of the pipe to its parent.
static constexpr int cFailure = STDERR_FILENO + 1;

static std::string WhatFailed(EStep step, const TExecution& execution, const std::string& program) {
    switch (step) {
        case EStep::cGroups:
        case EStep::cGroup:
        case EStep::cUser:
            return fmt::format("cannot become user {}", execution.userName);
        case EStep::cDirectory:
            return fmt::format("cannot enter the directory {}{}", execution.directory,
                               execution.isHome ? ", the home of user " + execution.userName +
                                                      "; --chdir names another one"
                                                : "");
        case EStep::cProcess:
        case EStep::cProgram:
            break;
    }
    return fmt::format("cannot start {}", program);
}

std::string Describe(const TExecuted& executed, const TExecution& execution,
                     const std::string& program) {
    return WhatFailed(executed.step, execution, program) + ": " + std::strerror(executed.error);
}

bool IsForWantOfRoom(int error) {
    return error == EAGAIN || error == EMFILE || error == ENFILE;
}

std::vector<char*> PointersTo(const std::vector<std::string>& strings) {
    std::vector<char*> pointers;
    pointers.reserve(strings.size() + 1);
    for (const std::string& string : strings)
        pointers.push_back(const_cast<char*>(string.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

static TExecuted FailedAt(EStep step) {
    return {.step = step, .error = errno};
}

TExecuted Enter(const TExecution& execution) {
    if (execution.umask)
        umask(*execution.umask);
    if (const std::optional<TIdentity>& identity = execution.identity) {
        if (setgroups(identity->groups.size(), identity->groups.data()) == -1)
            return FailedAt(EStep::cGroups);
        if (setresgid(identity->group, identity->group, identity->group) == -1)
            return FailedAt(EStep::cGroup);
        if (setresuid(identity->user, identity->user, identity->user) == -1)
            return FailedAt(EStep::cUser);
    }
    // As the user, who may have to be let in, or not to be.
    if (!execution.directory.empty() && chdir(execution.directory.c_str()) == -1)
        return FailedAt(EStep::cDirectory);
    return {};
}

static void ResetSignals() {
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
        sigaction(signal, &byDefault, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// In the child: calls that are safe after a fork only. Returns what has failed.
static TExecuted ExecuteHere(const TExecution& execution, const char* program,
                             char* const arguments[], char* const variables[]) {
    setsid();
    close_range(cFailure + 1, ~0U, 0);
    const TExecuted entered = Enter(execution);
    if (entered.error != 0)
        return entered;
    ResetSignals();
    execve(program, arguments, variables);
    return FailedAt(EStep::cProgram);
}

TExecuted Execute(const TExecution& execution, const char* program, char* const arguments[],
                  int output, pid_t* process) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) == -1)
        return FailedAt(EStep::cProcess);
    const CDescriptor ours(ends[0]);
    CDescriptor theirs(ends[1]);
    const std::vector<char*> variables = PointersTo(execution.environment);
    *process = fork();
    if (*process == -1)
        return FailedAt(EStep::cProcess);
    if (*process == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        if (theirs.Get() != cFailure)
            dup3(theirs.Get(), cFailure, O_CLOEXEC);
        const TExecuted failed = ExecuteHere(execution, program, arguments, variables.data());
        static_cast<void>(!write(cFailure, &failed, sizeof failed));
        _exit(127);
    }
    theirs = CDescriptor();
    TExecuted executed;
    ssize_t count = 0;
    while ((count = read(ours.Get(), &executed, sizeof executed)) == -1 && errno == EINTR) {
    }
    if (count != sizeof executed)
        return {};
    waitpid(*process, nullptr, 0);
    return executed;
}
