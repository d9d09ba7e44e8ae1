#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

// A child that runs `body` in a copy of this process (fork) and is held before and after each of
// its system calls, so that a test can say where exactly it dies or what exactly it asked of the
// system. `prepare` runs first, without being held. The child ends without finalisers, with body's
// result as its exit status.
class CTracedChild {
public:
    CTracedChild(const std::function<void()>& prepare, const std::function<int()>& body);
    ~CTracedChild();  // kills and collects it if it is still there
    CTracedChild(const CTracedChild&) = delete;
    CTracedChild& operator=(const CTracedChild&) = delete;

    pid_t Id() const { return process; }

    // Lets it run to its next stop: before a system call or behind it, in turn. False when it has
    // ended instead.
    bool Step();

    // Whether it is held before a call that was not made yet.
    bool IsBefore() const { return before; }

    // The call that it is held at, as text: "open files/scheduler.dat RDWR 0". Calls about memory
    // and threads, which depend on the allocator and on the build, are "".
    std::string Call() const;

    // Copies what the child has at that address.
    void ReadMemory(const void* address, void* copy, std::size_t size) const;

    // Lets it run to its end, without being held again. As CForkedChild::Wait().
    int Finish();

    // Kills it where it is held, and collects it: what the system gives back of a dead process is
    // given back by then.
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
