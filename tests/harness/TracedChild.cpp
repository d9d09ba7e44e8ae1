#include "TracedChild.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/ptrace.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "StoreSemaphore.h"

static constexpr int cSystemCallStop = SIGTRAP | 0x80;  // as PTRACE_O_TRACESYSGOOD marks it

CTracedChild::CTracedChild(const std::function<void()>& prepare, const std::function<int()>& body)
    : process(fork()) {
    if (process == 0) {
#ifdef COVERAGE_BUILD
        // A child that is stopped while it updates the counters would block every other process
        // that does.
        setenv("LLVM_PROFILE_FILE", "unused", 1);
#endif
        prepare();
        ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
        raise(SIGSTOP);
        _exit(body());
    }
    int status = 0;
    while (wait4(process, &status, WUNTRACED, nullptr) == -1 && errno == EINTR) {
    }
    if (!WIFSTOPPED(status)) {
        std::fprintf(stderr, "the traced child ended before its body\n");
        std::abort();
    }
    ptrace(PTRACE_SETOPTIONS, process, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
}

CTracedChild::~CTracedChild() {
    if (process > 0)
        Kill();
}

// Continues the child with that ptrace request until the next stop that is not a signal's. False
// when it has ended.
bool CTracedChild::Collect(int request, int& status) {
    long signal = 0;
    for (;;) {
        ptrace(static_cast<__ptrace_request>(request), process, nullptr, signal);
        while (wait4(process, &status, 0, nullptr) == -1 && errno == EINTR) {
        }
        if (!WIFSTOPPED(status)) {
            result = WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
            process = -1;
            return false;
        }
        if (WSTOPSIG(status) == cSystemCallStop)
            return true;
        signal = WSTOPSIG(status);
    }
}

bool CTracedChild::Step() {
    int status = 0;
    before = !before;
    return process > 0 && Collect(PTRACE_SYSCALL, status);
}

int CTracedChild::Finish() {
    int status = 0;
    if (process > 0)
        Collect(PTRACE_CONT, status);
    return result;
}

void CTracedChild::Kill() {
    kill(process, SIGKILL);
    int status = 0;
    while (wait4(process, &status, 0, nullptr) == process && WIFSTOPPED(status)) {
    }
    process = -1;
}

void CTracedChild::ReadMemory(const void* address, void* copy, std::size_t size) const {
    const iovec local{copy, size};
    const iovec remote{const_cast<void*>(address), size};
    process_vm_readv(process, &local, 1, &remote, 1, 0);
}

// ---- Calls as strings ---------------------------------------------------------------------------

template <typename Value>
static Value ReadValue(pid_t process, unsigned long address) {
    Value value{};
    const iovec local{&value, sizeof value};
    const iovec remote{reinterpret_cast<void*>(address), sizeof value};
    process_vm_readv(process, &local, 1, &remote, 1, 0);
    return value;
}

static std::string ReadText(pid_t process, unsigned long address) {
    std::string text;
    while (const char character = ReadValue<char>(process, address + text.size()))
        text += character;
    return text;
}

static std::string NameOfSet(unsigned long id) {
    const int set = static_cast<int>(id);
    if (set == semget(cStoreKey, 0, 0))
        return "mutex";
    if (set == semget(cTaskChangedKey, 0, 0))
        return "changed";
    return set == semget(cStopKey, 0, 0) ? "stop" : "?";
}

static std::string NameOfKey(unsigned long key) {
    switch (static_cast<key_t>(key)) {
        case cStoreKey:
            return "mutex";
        case cTaskChangedKey:
            return "changed";
        case cStopKey:
            return "stop";
        default:
            return "?";
    }
}

static std::string Octal(unsigned long value) {
    char text[32];
    std::snprintf(text, sizeof text, "0%lo", value);
    return text;
}

// As "0:-1 undo" for each operation.
static std::string Operations(pid_t process, unsigned long address, unsigned long count) {
    std::string text;
    for (unsigned long index = 0; index < count; ++index) {
        const auto operation = ReadValue<sembuf>(process, address + index * sizeof(sembuf));
        text += ' ' + std::to_string(operation.sem_num) + ':' + std::to_string(operation.sem_op);
        if ((operation.sem_flg & IPC_NOWAIT) != 0)
            text += " now";
        if ((operation.sem_flg & SEM_UNDO) != 0)
            text += " undo";
    }
    return text;
}

static std::string OpenFlags(unsigned long flags) {
    std::string text = (flags & O_ACCMODE) == O_RDWR ? "RDWR" : "not RDWR";
    const std::pair<int, const char*> names[] = {
        {O_CREAT, " CREAT"}, {O_TRUNC, " TRUNC"}, {O_CLOEXEC, " CLOEXEC"}};
    for (const auto& [flag, name] : names)
        text += (flags & static_cast<unsigned long>(flag)) != 0 ? name : "";
    const unsigned long known = O_ACCMODE | O_CREAT | O_TRUNC | O_CLOEXEC;
    return (flags & ~known) == 0 ? text : text + " and " + Octal(flags & ~known);
}

std::string CTracedChild::Call() const {
    user_regs_struct registers{};
    ptrace(PTRACE_GETREGS, process, nullptr, &registers);
    const auto text = [&](unsigned long address) { return ReadText(process, address); };
    switch (registers.orig_rax) {
        case SYS_brk:
        case SYS_mmap:
        case SYS_munmap:
        case SYS_mremap:
        case SYS_mprotect:
        case SYS_madvise:
        case SYS_futex:
        case SYS_sched_yield:
        case SYS_sigaltstack:
        case SYS_gettid:
        case SYS_getpid:
            return "";
        case SYS_exit_group:
            return "end";
        case SYS_semget:
            return "semget " + NameOfKey(registers.rdi) + ' ' + std::to_string(registers.rsi) +
                   ' ' + Octal(registers.rdx);
        case SYS_semctl: {
            const unsigned long command = registers.rdx & 0xFF;
            const std::string number = ' ' + std::to_string(registers.rsi);
            std::string name = "semctl " + NameOfSet(registers.rdi) + number;
            if (command == SETVAL)
                return name + " SETVAL " + std::to_string(static_cast<int>(registers.r10));
            return name + (command == IPC_RMID ? " RMID" : ' ' + std::to_string(command));
        }
        case SYS_semop:
            return "semop " + NameOfSet(registers.rdi) +
                   Operations(process, registers.rsi, registers.rdx);
        case SYS_semtimedop:
            return (registers.r10 == 0 ? "semop " : "semtimedop ") + NameOfSet(registers.rdi) +
                   Operations(process, registers.rsi, registers.rdx);
        case SYS_stat:
            return "stat " + text(registers.rdi);
        case SYS_newfstatat:
            return static_cast<int>(registers.rdi) == AT_FDCWD ? "stat " + text(registers.rsi)
                                                               : "fstat";
        case SYS_fstat:
            return "fstat";
        case SYS_lseek:
            return "lseek";
        case SYS_open:
            return "open " + text(registers.rdi) + ' ' + OpenFlags(registers.rsi) + ' ' +
                   Octal(registers.rdx);
        case SYS_openat:
            return "open " + text(registers.rsi) + ' ' + OpenFlags(registers.rdx) + ' ' +
                   Octal(registers.r10);
        case SYS_read:
            return "read " + std::to_string(registers.rdx);
        case SYS_write:
            return "write " + std::to_string(registers.rdx);
        case SYS_close:
            return "close";
        default:
            return "call " + std::to_string(registers.orig_rax);
    }
}

std::vector<std::string> SystemCallsOf(const std::function<void()>& prepare,
                                       const std::function<int()>& body) {
    CTracedChild child(prepare, body);
    std::vector<std::string> calls;
    while (child.Step()) {
        if (child.IsBefore() && !child.Call().empty())
            calls.push_back(child.Call());
    }
    return calls;
}
