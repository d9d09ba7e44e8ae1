#include "TracedProgram.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <optional>

#include "Process.h"

struct CTracedProgram::TShared {
    std::atomic<pid_t> program{0};
    std::atomic<bool> counts{false};
    std::atomic<bool> isKilled{false};
    std::atomic<long> calls{0};
    std::atomic<int> result{-1};
    std::array<char, 200> at{};  // written by the tracer, read by the test after the end
    EVictim victim = cProgram;
    long killAt = 0;
};

namespace {

constexpr int cSystemCallStop = SIGTRAP | 0x80;  // as PTRACE_O_TRACESYSGOOD marks it
constexpr long cOptions = PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL | PTRACE_O_TRACECLONE |
                          PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC;

pid_t NumberIn(pid_t thread, const std::string& field) {
    std::ifstream status("/proc/" + std::to_string(thread) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field + ":\t"))
            return std::stoi(line.substr(field.size() + 2));
    }
    return -1;
}

[[noreturn]] void Become(const std::vector<std::string>& command,
                         const CTracedProgram::TOptions& options) {
    dup2(open(options.input.c_str(), O_RDONLY), STDIN_FILENO);
    dup2(open(options.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600),
         STDOUT_FILENO);
    dup2(STDOUT_FILENO, STDERR_FILENO);
    close_range(STDERR_FILENO + 1, ~0U, 0);
    std::vector<char*> pointers;
    for (const std::string& argument : command)
        pointers.push_back(const_cast<char*>(argument.c_str()));
    pointers.push_back(nullptr);
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    execv(pointers[0], pointers.data());
    std::perror(pointers[0]);
    _exit(127);
}

// As much of a string as there is room for.
void ReadString(pid_t process, std::uint64_t address, char* copy, std::size_t size) {
    for (std::size_t index = 0; index + 1 < size; ++index) {
        const iovec local{copy + index, 1};
        const iovec remote{reinterpret_cast<void*>(address + index), 1};
        if (process_vm_readv(process, &local, 1, &remote, 1, 0) != 1 || copy[index] == '\0')
            break;
    }
}

// For the message of a test that fails.
void Describe(pid_t thread, const __ptrace_syscall_info& info, std::array<char, 200>& text) {
    text.fill('\0');
    std::snprintf(text.data(), text.size(), "system call %llu ",
                  static_cast<unsigned long long>(info.entry.nr));
    const std::size_t length = std::strlen(text.data());
    switch (info.entry.nr) {
        case SYS_open:
        case SYS_stat:
        case SYS_lstat:
        case SYS_access:
        case SYS_mkdir:
        case SYS_link:
        case SYS_symlink:
        case SYS_unlink:
        case SYS_rename:
        case SYS_execve:
            return ReadString(thread, info.entry.args[0], text.data() + length,
                              text.size() - length);
        case SYS_openat:
        case SYS_newfstatat:
        case SYS_unlinkat:
        case SYS_utimensat:
            return ReadString(thread, info.entry.args[1], text.data() + length,
                              text.size() - length);
        case SYS_semop:
        case SYS_semtimedop:
        case SYS_semctl:
        case SYS_write:
        case SYS_fsync:
        case SYS_close:
            std::snprintf(text.data() + length, text.size() - length, "on %d",
                          static_cast<int>(info.entry.args[0]));
            return;
        default:
            return;
    }
}

}  // namespace

// In the tracer's process.
class CTracer {
public:
    CTracer(CTracedProgram::TShared& sharedState, const std::vector<std::string>& command,
            const CTracedProgram::TOptions& options)
        : shared(sharedState), meanwhile(options.meanwhile) {
        // Orphans become children of this process, so that their end can be awaited.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        program = fork();
        if (program == 0)
            Become(command, options);
        int status = 0;
        waitpid(program, &status, WUNTRACED);
        ptrace(PTRACE_SETOPTIONS, program, nullptr, cOptions);
        threads[program] = program;
        roles[program] = cIsProgram;
        shared.program = program;
        Continue(program, 0);
    }

    void Run() {
        for (;;) {
            int status = 0;
            const pid_t thread = waitpid(-1, &status, __WALL);
            if (thread == -1 && errno == EINTR)
                continue;
            if (thread == -1)
                return;
            if (WIFSTOPPED(status))
                OnStop(thread, status);
            else if (thread == program)
                shared.result = WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
        }
    }

private:
    enum ERole { cIsProgram, cIsItsChild, cIsLaunched };

    void Continue(pid_t thread, int signal) const {
        ptrace(shared.isKilled ? PTRACE_CONT : PTRACE_SYSCALL, thread, nullptr,
               static_cast<long>(signal));
    }

    void OnStop(pid_t thread, int status) {
        const int signal = WSTOPSIG(status);
        if (!threads.contains(thread)) {
            Add(thread);
            return Continue(thread, signal == SIGSTOP ? 0 : signal);
        }
        if (signal == cSystemCallStop) {
            OnCall(thread);
            return Continue(thread, 0);
        }
        const int event = status >> 16;
        if (event == PTRACE_EVENT_EXEC && MayLeave(threads[thread])) {
            ptrace(PTRACE_DETACH, thread, nullptr, nullptr);
            threads.erase(thread);
            return;
        }
        Continue(thread, event != 0 ? 0 : signal);
    }

    void Add(pid_t thread) {
        const pid_t process = NumberIn(thread, "Tgid");
        threads[thread] = process;
        if (roles.contains(process))
            return;
        const pid_t parent = NumberIn(thread, "PPid");
        parents[process] = parent;
        const bool isFirst = parent == program && !child;
        if (isFirst)
            child = process;
        roles[process] = isFirst ? cIsItsChild : cIsLaunched;
    }

    bool MayLeave(pid_t process) const {
        switch (roles.at(process)) {
            case cIsProgram:
                return false;
            case cIsItsChild:
                return shared.victim != CTracedProgram::cItsChild;
            case cIsLaunched:
                break;
        }
        return true;
    }

    // The victim, if a call of this process counts as its call.
    std::optional<pid_t> VictimOf(pid_t process) const {
        const std::optional<pid_t> victim =
            shared.victim == CTracedProgram::cProgram ? std::optional(program) : child;
        const auto parent = parents.find(process);
        if (victim &&
            (process == *victim || (parent != parents.end() && parent->second == *victim)))
            return victim;
        return {};
    }

    void OnCall(pid_t thread) {
        const std::optional<pid_t> victim = VictimOf(threads[thread]);
        if (!victim || !shared.counts || shared.isKilled)
            return;
        __ptrace_syscall_info info{};
        ptrace(PTRACE_GET_SYSCALL_INFO, thread, reinterpret_cast<void*>(sizeof info), &info);
        if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
            return;
        ++shared.calls;
        if (shared.calls != shared.killAt)
            return;
        Describe(thread, info, shared.at);
        if (meanwhile)
            meanwhile(*victim);
        else
            kill(*victim, SIGKILL);
        shared.isKilled = true;
    }

    CTracedProgram::TShared& shared;
    const std::function<void(pid_t)> meanwhile;
    pid_t program = -1;
    std::optional<pid_t> child;
    std::map<pid_t, pid_t> threads;  // with their processes
    std::map<pid_t, ERole> roles;
    std::map<pid_t, pid_t> parents;
};

CTracedProgram::CTracedProgram(const std::vector<std::string>& command, const TOptions& options)
    : shared(new (mmap(nullptr, sizeof(TShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) TShared),
      output(options.output) {
    shared->victim = options.victim;
    shared->killAt = options.killAt;
    shared->counts = options.countsAtOnce;
    tracer = fork();
    if (tracer == 0) {
        CTracer(*shared, command, options).Run();
        _exit(0);
    }
    WaitUntil([&] { return shared->program != 0 || HasEnded(tracer); });
}

CTracedProgram::~CTracedProgram() {
    if (tracer > 0) {
        kill(Id(), SIGKILL);
        Wait();
    }
    munmap(shared, sizeof(TShared));
}

pid_t CTracedProgram::Id() const {
    return shared->program;
}

void CTracedProgram::Count() {
    shared->counts = true;
}

long CTracedProgram::Calls() const {
    return shared->calls;
}

bool CTracedProgram::IsKilled() const {
    return shared->isKilled;
}

std::string CTracedProgram::At() const {
    return "call " + std::to_string(shared->calls) + ", " + shared->at.data();
}

int CTracedProgram::Wait() {
    int status = 0;
    while (waitpid(tracer, &status, 0) == -1 && errno == EINTR) {
    }
    tracer = -1;
    return shared->result;
}

std::string CTracedProgram::Output() const {
    return ReadFile(output);
}
