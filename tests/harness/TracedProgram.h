#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// A real program under ptrace, with all of its threads, so that a test can kill it, or the first
// program that it starts, at an exact system call, or do something else meanwhile. The calls are
// counted before they are made: one at which the victim is killed is not made. The end of a call is no point of its own, since a
// thread does nothing that another process sees between the end of a call and the next one.
//
// A process that the victim starts counts as the victim until it executes its own program. After
// that it is not traced any more.
//
// A process of its own traces the program, since ptrace reports to one thread, by wait().
class CTracedProgram {
public:
    enum EVictim { cProgram, cItsChild };

    struct TOptions {
        EVictim victim = cProgram;
        long killAt = 0;           // the number of the call, from 1; 0: never
        bool countsAtOnce = true;  // else from Count() on
        // Called with the victim at `killAt` instead of the kill, in the tracer's process, before the
        // call is made.
        std::function<void(pid_t)> meanwhile = {};
        std::string input = "/dev/null";
        std::string output = "traced.out";  // of both streams
    };

    CTracedProgram(const std::vector<std::string>& command, const TOptions& options);
    ~CTracedProgram();  // kills it if it is still there
    CTracedProgram(const CTracedProgram&) = delete;
    CTracedProgram& operator=(const CTracedProgram&) = delete;

    pid_t Id() const;
    void Count();

    long Calls() const;      // counted so far
    bool IsKilled() const;   // whether the victim has come to its call
    std::string At() const;  // the last call that was counted

    // Waits for its end and for the end of every process that it has started. The result as for
    // CForkedChild.
    int Wait();

    std::string Output() const;

    struct TShared;  // what the test and the tracer both use

private:
    TShared* shared;
    std::string output;
    pid_t tracer = -1;
};
