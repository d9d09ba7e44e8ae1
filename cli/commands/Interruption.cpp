#include "cli/commands/Interruption.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <exception>
#include <iostream>
#include <string>

#include "base/SignalName.h"

namespace vxsched {

namespace {

constexpr std::array cSignals = {SIGINT, SIGTERM, SIGHUP};

enum EStage { cCancellable, cBegun, cWaiting };

// Of the handler, which may run at any point.
std::atomic<EStage> gStage{cCancellable};
std::atomic<int> gSignal{0};
std::string gFarewell;  // complete before cWaiting is set

extern "C" void OnSignal(int number) {
    if (gStage == cBegun) {
        gSignal = number;
        return;
    }
    if (gStage == cWaiting) [[maybe_unused]]
        const ssize_t ignored = write(STDERR_FILENO, gFarewell.data(), gFarewell.size());
    // Takes effect when this handler returns. A shell sees that the signal ended the command.
    std::signal(number, SIG_DFL);
    raise(number);
}

// A signal that came since the change began takes effect now.
void RaiseDeferred() {
    if (const int number = gSignal)
        raise(number);
}

}  // namespace

CInterruption::CInterruption() {
    gStage = cCancellable;
    gSignal = 0;
    struct sigaction action {};
    action.sa_handler = OnSignal;
    action.sa_flags = SA_RESTART;
    for (const int number : cSignals) {
        struct sigaction former {};
        // A parent that ignores a signal (nohup) wants it ignored.
        if (sigaction(number, nullptr, &former) == 0 && former.sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    }
}

CInterruption::~CInterruption() {
    // An error message states what became of the change.
    if (const int number = gSignal; number != 0 && std::uncaught_exceptions() == 0)
        std::cerr << "vxsched: " << SignalName(number)
                  << " came after the change had begun; it was not cancelled\n";
}

void CInterruption::ChangeBegins() {
    gStage = cBegun;
}

void CInterruption::ChangeIsRetried() {
    gStage = cCancellable;
    RaiseDeferred();
}

void CInterruption::WaitEnds() {
    gStage = cBegun;
}

void CInterruption::WaitsFor(pid_t program) {
    gFarewell = "vxsched: interrupted; process " + std::to_string(program) + " keeps running\n";
    gStage = cWaiting;
    RaiseDeferred();
}

}  // namespace vxsched
