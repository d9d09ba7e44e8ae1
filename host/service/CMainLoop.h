#pragma once

#include <CEvent.h>

#include <chrono>
#include <functional>
#include <optional>
#include <vector>

#include "host/programs/CLaunchedPrograms.h"
#include "host/service/CServiceManager.h"
#include "host/service/CSignals.h"
#include "host/service/CTickTimer.h"
#include "host/service/CWorkerWatchdog.h"

// What the host's main thread does while the worker runs: it answers signals, collects the programs
// that end, and tells the service manager that the worker is alive.
class CMainLoop {
public:
    // All of them are kept by the caller. `stopEvent` is the worker's.
    CMainLoop(CSignals& signals, CServiceManager& service, CLaunchedPrograms& programs,
              CEvent& stopEvent);

    // Calls `onReadable` on the main thread whenever the descriptor is readable, which that has to
    // read empty. For as long as the loop exists.
    void Watch(int descriptor, std::function<void()> onReadable);

    // Until a signal to stop comes.
    void WaitForStop();

    // Until the worker rests behind a tick, or a signal to stop comes.
    void WaitForTickEnd();

    // Until every started program has ended, or a signal to stop comes.
    void WaitForPrograms();

    // The signal to stop that came, if one did.
    std::optional<int> StopSignal() const { return stopSignal; }

private:
    using TClock = std::chrono::steady_clock;
    struct TBackup {
        int descriptor;
        std::function<void()> onReadable;
    };

    TClock::time_point NextCheck() const;
    void Turn(TClock::time_point until);
    void TakeSignals();
    void OnSignal(int number);
    void MonitorWorker();
    void NotifyStatus();

    CSignals& signals;
    CServiceManager& service;
    CLaunchedPrograms& programs;
    CEvent& stopEvent;
    CWorkerWatchdog watch;
    std::optional<CTickTimer> ticks;  // where nobody is to be told regularly
    std::vector<TBackup> sources;
    bool workerLives = true;
    bool wasAlive = true;  // at the last look
    std::optional<int> stopSignal;
};
