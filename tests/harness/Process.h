#pragma once

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// Child processes of tests.

// A child that runs `body` in a copy of this process (fork) and ends without running finalisers,
// with body's result as its exit status. For children that need nothing of the parent's threads.
class CForkedChild {
public:
    explicit CForkedChild(const std::function<int()>& body);
    ~CForkedChild();  // kills and collects it unless Wait() did
    CForkedChild(const CForkedChild&) = delete;
    CForkedChild& operator=(const CForkedChild&) = delete;

    pid_t Id() const { return process; }
    void Kill(int signal) const;
    // Waits for its end; the exit status, or 1000 plus the number of the signal that killed it.
    int Wait();

private:
    pid_t process;
};

// Has this process enter new namespaces of the kinds in `flags` (CLONE_NEW...). An ordinary user may
// do that only together with a user namespace, in which it keeps its user id and is the only user.
// False where the system does not permit it.
bool EnterNamespaces(int flags);

// Drops the capabilities that an ordinary user has got with a user namespace. No program that this
// process executes has them, and none of those without them may inspect this process otherwise.
bool DropGainedCapabilities();

// Runs `body` in a child that is process 1 of a PID namespace of its own, with a /proc that shows
// that namespace: every process there may be inspected. Returns body's result as CForkedChild does,
// or -1 where the system does not permit it.
int RunInPidNamespace(const std::function<int()>& body);

// Hides /proc from this process and those that it starts from now on, in a mount namespace of its
// own. False where the system does not permit it, that is, for want of cCannotMount.
bool HideProc();

// What a system lacks in which no test can mount anything, not even in a user namespace of its own.
inline constexpr char cCannotMount[] =
    "the system permits neither this user to mount (CAP_SYS_ADMIN) nor user namespaces to ordinary "
    "users (user.max_user_namespaces, kernel.unprivileged_userns_clone, or a container's filter of "
    "system calls)";

// A real program with its standard output and error in a pipe.
class CProgram {
public:
    explicit CProgram(const std::vector<std::string>& arguments);
    ~CProgram();
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    pid_t Id() const { return process; }
    void Kill(int signal) const;
    // Reads until the output holds `part` or ends. True when it holds it.
    bool WaitForOutput(const std::string& part);
    // Waits for the end and collects the remaining output; the result as for CForkedChild.
    int Wait();
    const std::string& Output() const { return output; }

private:
    bool ReadSome();

    pid_t process = -1;
    int descriptor = -1;
    std::string output;
};

// A role of this test program when a test starts it again as a new process with a fresh image:
// RUN_AGAIN(name) defines one at namespace scope, ThisProgramAs(name, ...) returns the command line
// that runs it.
struct TRole {
    TRole(const char* name, int (*body)(const std::vector<std::string>& arguments));
};
#define RUN_AGAIN(role)                                         \
    static int role(const std::vector<std::string>& arguments); \
    static const TRole gRole_##role(#role, role);               \
    static int role([[maybe_unused]] const std::vector<std::string>& arguments)

std::vector<std::string> ThisProgramAs(const std::string& role,
                                       const std::vector<std::string>& arguments = {});

// Runs the role that the command line names and returns its exit status; -1 when it names none.
int RunRole(int argc, char** argv);

// Polls until `condition` holds, without a limit: the time-out of the test ends a wait for a
// condition that never holds.
void WaitUntil(const std::function<bool()>& condition);

// True when a process is gone or a zombie. Nobody may be there to collect a child that has lost its
// parent.
bool HasEnded(pid_t process);

// The first child of a process, which may have no other threads.
std::optional<pid_t> ChildOf(pid_t process);

// Drops root's capabilities, so that modes of files and semaphores apply to this process even when
// root runs the tests.
bool DropCapabilities();

std::string ReadFile(const std::string& path);

// Whether a process of that short name, which is not running at the moment, is a child of `parent`.
bool HasChild(pid_t parent, const std::string& name);

// The line breaks in a file; 0 if there is no file.
std::size_t CountLines(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
