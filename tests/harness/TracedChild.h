#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// A child that runs `body` in a copy of this process (fork) and is stopped before and after each of
// its system calls, so that a test can choose the exact call at which it dies, or record every
// call. `prepare` runs first, without stops. The child exits without finalisers, with the result of
// `body` as its exit status.
class CTracedChild {
public:
    CTracedChild(const std::function<void()>& prepare, const std::function<int()>& body);
    ~CTracedChild();  // kills and collects it if it is still there
    CTracedChild(const CTracedChild&) = delete;
    CTracedChild& operator=(const CTracedChild&) = delete;

    pid_t Id() const { return process; }

    // Lets it run to its next stop, alternately before and after a system call. False when it has
    // ended instead.
    bool Step();

    // Whether it is stopped before a call, which was then not made yet.
    bool IsBefore() const { return before; }

    // The call that it is stopped at, as "open files/scheduler.dat RDWR 0". Calls about memory and
    // threads, which depend on the allocator and on the build, are "".
    std::string Call() const;

    // Copies memory of the child at that address.
    void ReadMemory(const void* address, void* copy, std::size_t size) const;

    // Lets it run to its end without stops. Returns what CForkedChild::Wait() does.
    int Finish();

    // Kills it where it is stopped and collects it. When this returns, the kernel has released what
    // the process held.
    void Kill();

private:
    bool Collect(int request, int& status);

    pid_t process = -1;
    bool before = false;
    int result = -1;  // once it has ended
};

// Every call of `body` that is not about memory or threads, in order.
std::vector<std::string> SystemCallsOf(const std::function<void()>& prepare,
                                       const std::function<int()>& body);
