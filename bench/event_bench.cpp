// Named events, compared with a futex in shared memory and an eventfd: signalling one without
// waiters, testing one, and waking a waiting process that wakes this one in turn.

#include <CEvent.h>
#include <benchmark/benchmark.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <string>

// Each kind of event has the same four operations; Wait() consumes the signal, Test() does not.
// An event created before a fork works in both processes.
namespace {

class CNamedEvent {
public:
    explicit CNamedEvent(const std::string& name) : event(name, false), tested(name, true) {}
    void Set() { event.SetEvent(); }
    void Reset() { event.ResetEvent(); }
    bool Test() { return tested.Wait(0) != 0; }
    void Wait() { event.Wait(-1); }

private:
    CEvent event;
    CEvent tested;  // the same one; the test of a manual-reset event leaves it signalled
};

class CFutexEvent {
public:
    explicit CFutexEvent(const std::string& /*name*/)
        : state(static_cast<std::atomic<std::uint32_t>*>(mmap(
              nullptr, sizeof *state, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
    }
    ~CFutexEvent() { munmap(state, sizeof *state); }
    CFutexEvent(const CFutexEvent&) = delete;
    CFutexEvent& operator=(const CFutexEvent&) = delete;

    void Set() {
        state->store(1);
        syscall(SYS_futex, state, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    }
    void Reset() { state->store(0); }
    bool Test() { return state->load() != 0; }
    void Wait() {
        while (state->exchange(0) == 0)
            syscall(SYS_futex, state, FUTEX_WAIT, 0, nullptr, nullptr, 0);
    }

private:
    std::atomic<std::uint32_t>* const state;
};

class CDescriptorEvent {
public:
    explicit CDescriptorEvent(const std::string& /*name*/) : descriptor(eventfd(0, EFD_CLOEXEC)) {}
    ~CDescriptorEvent() { close(descriptor); }
    CDescriptorEvent(const CDescriptorEvent&) = delete;
    CDescriptorEvent& operator=(const CDescriptorEvent&) = delete;

    void Set() { eventfd_write(descriptor, 1); }
    void Reset() {
        if (Test())
            Wait();
    }
    bool Test() {
        pollfd polled{descriptor, POLLIN, 0};
        return poll(&polled, 1, 0) == 1;
    }
    void Wait() {
        eventfd_t value = 0;
        eventfd_read(descriptor, &value);
    }

private:
    const int descriptor;
};

}  // namespace

template <typename Event>
static void Set(benchmark::State& state) {
    Event event("bench set");
    for (auto _ : state)
        event.Set();
    if (!event.Test())
        state.SkipWithError("the event is not signalled");
}

template <typename Event>
static void Test(benchmark::State& state) {
    Event event("bench test");
    event.Set();
    bool signalled = true;
    for (auto _ : state)
        signalled &= event.Test();
    event.Reset();
    if (!signalled || event.Test())
        state.SkipWithError("the test does not return the event's state");
}

// Pins the process to one processor, if there is a second one: the placement of waker and waiter
// would affect the time more than the kind of event does.
class CProcessor {
public:
    explicit CProcessor(std::size_t number) {
        sched_getaffinity(0, sizeof before, &before);
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(number, &only);
        sched_setaffinity(0, sizeof only, &only);
    }
    ~CProcessor() { sched_setaffinity(0, sizeof before, &before); }
    CProcessor(const CProcessor&) = delete;
    CProcessor& operator=(const CProcessor&) = delete;

private:
    cpu_set_t before;
};

template <typename Event>
static void WakeAndBack(benchmark::State& state) {
    Event there("bench there");
    Event back("bench back");
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        const CProcessor second(1);
        for (;;) {
            there.Wait();
            back.Set();
        }
    }
    if (process == -1) {
        state.SkipWithError("cannot make the process that waits");
        return;
    }
    const CProcessor first(0);
    for (auto _ : state) {
        there.Set();
        back.Wait();
    }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
    if (there.Test() || back.Test())
        state.SkipWithError("a signal was left over");
}

BENCHMARK(Set<CNamedEvent>)->Name("event/set/library");
BENCHMARK(Set<CFutexEvent>)->Name("event/set/futex");
BENCHMARK(Set<CDescriptorEvent>)->Name("event/set/eventfd");
BENCHMARK(Test<CNamedEvent>)->Name("event/test/library");
BENCHMARK(Test<CFutexEvent>)->Name("event/test/futex");
BENCHMARK(Test<CDescriptorEvent>)->Name("event/test/eventfd");
BENCHMARK(WakeAndBack<CNamedEvent>)->Name("event/wake and back/library")->UseRealTime();
BENCHMARK(WakeAndBack<CFutexEvent>)->Name("event/wake and back/futex")->UseRealTime();
BENCHMARK(WakeAndBack<CDescriptorEvent>)->Name("event/wake and back/eventfd")->UseRealTime();
