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

// The loop of the host's main thread while the worker runs: it handles signals, collects programs
// that have ended, and reports to the service manager whether the worker is alive. For the main
// thread only.
class CMainLoop {
public:
    // The caller keeps all arguments alive. `stopEvent` is the event that the worker waits for
    // between ticks. Marks the calling thread as one of the host's own.
    CMainLoop(CSignals& signals, CServiceManager& service, CLaunchedPrograms& programs,
              CEvent& stopEvent);

    // Calls `onReadable` whenever the descriptor is readable, for as long as the loop exists.
    // `onReadable` must read all that there is, or it is called again at once.
    void Watch(int descriptor, std::function<void()> onReadable);

    // Blocks until SIGTERM or SIGINT comes.
    void WaitForStop();

    // Blocks until the worker is idle after a tick, or SIGTERM or SIGINT comes.
    void WaitForTickEnd();

    // Blocks until every launched program has ended and no launch is owed any more, or SIGTERM or
    // SIGINT comes.
    void WaitForPrograms();

    // SIGTERM or SIGINT, if it came.
    std::optional<int> StopSignal() const { return stopSignal; }

private:
    using TClock = std::chrono::steady_clock;
    struct TWatched {
        int descriptor;
        std::function<void()> onReadable;
    };

    TClock::time_point NextCheck() const;
    void WaitOnce(TClock::time_point until);
    void ReadSignals();
    void OnSignal(int number);
    void MonitorWorker();
    void NotifyStatus();

    CSignals& signals;
    CServiceManager& service;
    CLaunchedPrograms& programs;
    CEvent& stopEvent;
    CWorkerWatchdog watchdog;
    // Only if no service manager wants to be notified regularly.
    std::optional<CTickTimer> tickTimer;
    std::vector<TWatched> watched;
    bool isWorkerAlive = true;  // as last logged
    bool wasAlive = true;       // at the last check
    std::optional<int> stopSignal;
};
