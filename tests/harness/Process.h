#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// Child processes of tests.

// A child that runs `body` in a copy of this process (fork) and ends without running finalisers,
// with body's result as its exit status. For children that need nothing of the parent's threads.
class CForkedChild {
public:
    explicit CForkedChild(const std::function<int()>& body);
    ~CForkedChild();  // kills and collects it if nobody waited
    CForkedChild(const CForkedChild&) = delete;
    CForkedChild& operator=(const CForkedChild&) = delete;

    pid_t Id() const { return process; }
    void Kill(int signal) const;
    // Waits for its end; the exit status, or 1000 plus the number of the signal that killed it.
    int Wait();

private:
    pid_t process;
};

// A real program with its standard output and error in a pipe.
class CProgram {
public:
    explicit CProgram(const std::vector<std::string>& arguments);
    ~CProgram();
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    pid_t Id() const { return process; }
    void Kill(int signal) const;
    // Reads on until the output so far holds `text` or ends. True when it does.
    bool WaitForOutput(const std::string& text);
    // Waits for the end and collects the rest of the output; the result as for CForkedChild.
    int Wait();
    const std::string& Output() const { return output; }

private:
    bool ReadSome();

    pid_t process = -1;
    int descriptor = -1;
    std::string output;
};

// A part that this test program plays when a test starts it again as a process of its own, with a
// fresh image: RUN_AGAIN(name) defines one at namespace scope, ThisProgramAs(name, ...) gives the
// command line that plays it.
struct TRole {
    TRole(const char* name, int (*body)(const std::vector<std::string>& arguments));
};
#define RUN_AGAIN(role)                                         \
    static int role(const std::vector<std::string>& arguments); \
    static const TRole gRole_##role(#role, role);               \
    static int role([[maybe_unused]] const std::vector<std::string>& arguments)

std::vector<std::string> ThisProgramAs(const std::string& role,
                                       const std::vector<std::string>& arguments = {});

// Plays the role that the command line names; -1 when it names none.
int RunRole(int argc, char** argv);

// Waits until `condition` holds, looking at it again and again without a limit of its own: the
// time-out of the test ends what never happens.
void WaitUntil(const std::function<bool()>& condition);

// Gives up what root may beyond others: modes of files and semaphores then hold for this process,
// whoever runs it.
bool DropCapabilities();

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& content);
