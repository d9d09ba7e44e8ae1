#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string>

// The programs that this process has started and not yet seen end. Every end is logged once, with
// how the program ended and how long it ran. Any thread may call any of these.
class CStartedPrograms {
public:
    // The one of this process.
    static CStartedPrograms& Instance();

    CStartedPrograms();

    // A program was started as `process`. Until Asked() it is left alone: whoever started it still
    // asks for it with waitpid, and gets its answer.
    void Started(pid_t process, const std::string& program, const std::string& parameter);

    // waitpid was called for `process` by whoever started it, with `result` and `status`. From now
    // on the program is collected by CollectFinished().
    void Asked(pid_t process, pid_t result, int status);

    // Collects, by its process id, every program that has ended since. Never waits.
    void CollectFinished();

    // Readable when CollectFinished() has something new to look at besides what SIGCHLD tells.
    int WakeDescriptor() const { return wakeDescriptor; }

    std::size_t Count();

private:
    struct TProgram {
        std::string description;
        std::chrono::steady_clock::time_point start;
        bool asked = false;
    };
    using TPrograms = std::map<pid_t, TProgram>;

    static void LogEnd(pid_t process, const TProgram& program, int status);

    std::mutex mutex;
    TPrograms programs;
    int wakeDescriptor;
};
