// In coverage builds, a part of each library and test program: writes down what it has counted when
// its process ends without finalisers, by an abort or (SIGPROF, which CForkedChild raises) by
// _exit. Nothing but a finaliser does so otherwise.

#include <csignal>

extern "C" void __gcov_dump();

static struct TSignal {
    int number;
    struct sigaction before;
} gSignals[] = {{SIGABRT, {}}, {SIGPROF, {}}};

// Hands on to whoever was there before, another library's counterpart or the system; of the system
// only an abort is wanted.
static void OnSignal(int number) {
    __gcov_dump();
    for (const TSignal& signal : gSignals) {
        if (signal.number != number)
            continue;
        sigaction(number, &signal.before, nullptr);
        if (number == SIGABRT || signal.before.sa_handler != SIG_DFL)
            raise(number);
    }
}

[[gnu::constructor]] static void Install() {
    for (TSignal& signal : gSignals) {
        struct sigaction action {};
        action.sa_handler = OnSignal;
        sigaction(signal.number, &action, &signal.before);
    }
}

[[gnu::destructor]] static void Remove() {
    for (const TSignal& signal : gSignals) {
        struct sigaction current {};
        sigaction(signal.number, nullptr, &current);
        if (current.sa_handler == OnSignal)
            sigaction(signal.number, &signal.before, nullptr);
    }
}
