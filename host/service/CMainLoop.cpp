#include "host/service/CMainLoop.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "host/CHostLog.h"
#include "host/HostThread.h"
#include "host/programs/COwedLaunches.h"
#include "host/programs/Launch.h"
#include "store/WorkerState.h"

// How long the worker may seem dead if no service manager sets a limit. The log is all that depends
// on it.
static constexpr std::chrono::minutes cDefaultTimeout(2);
// Ticks are a minute apart at most; after one that launches programs, a few seconds more.
static constexpr std::chrono::seconds cLateTick(75);
// The end of a tick is polled for, since no event announces it.
static constexpr std::chrono::milliseconds cTickPollInterval(5);

CMainLoop::CMainLoop(CSignals& hostSignals, CServiceManager& serviceManager,
                     CLaunchedPrograms& launchedPrograms, CEvent& workerStopEvent)
    : signals(hostSignals),
      service(serviceManager),
      programs(launchedPrograms),
      stopEvent(workerStopEvent),
      watchdog(service.WatchdogTimeout().count() > 0 ? service.WatchdogTimeout() : cDefaultTimeout,
               TClock::now()) {
    Watch(signals.Descriptor(), [this] { ReadSignals(); });
    Watch(programs.WakeDescriptor(), [this] {
        programs.CollectFinished();
        RetryLostRuns();
    });
    Watch(COwedLaunches::Instance().Descriptor(), MakeOwedLaunches);
    gIsHostThread = true;
    // For the service manager's watchdog the worker is checked at fixed intervals anyway.
    if (service.WatchdogTimeout().count() > 0)
        return;
    tickTimer.emplace(cLateTick);
    if (tickTimer->Descriptor().IsOpen())
        Watch(tickTimer->Descriptor().Get(), [this] { tickTimer->Restart(); });
}

void CMainLoop::Watch(int descriptor, std::function<void()> onReadable) {
    watched.push_back({.descriptor = descriptor, .onReadable = std::move(onReadable)});
}

void CMainLoop::WaitForStop() {
    NotifyStatus();
    while (!stopSignal) {
        WaitOnce(NextCheck());
        MonitorWorker();
        NotifyStatus();
    }
}

void CMainLoop::WaitForTickEnd() {
    while (!stopSignal && !vxsched::IsWorkerIdle())
        WaitOnce(TClock::now() + cTickPollInterval);
}

void CMainLoop::WaitForPrograms() {
    while (!stopSignal && programs.Count() + COwedLaunches::Instance().Count() > 0)
        WaitOnce(TClock::now() + cDefaultTimeout);
}

// With a tick timer, no check is due while the worker ticks in time, so that the main thread wakes
// less often.
CMainLoop::TClock::time_point CMainLoop::NextCheck() const {
    const bool timerSuffices = tickTimer && tickTimer->Descriptor().IsOpen() && wasAlive;
    return timerSuffices ? TClock::time_point::max() : watchdog.NextCheck();
}

// Waits for a watched descriptor to become readable, at most until `until`, and calls the handlers
// of all that are.
void CMainLoop::WaitOnce(TClock::time_point until) {
    std::vector<pollfd> descriptors;
    for (const TWatched& each : watched)
        descriptors.push_back({.fd = each.descriptor, .events = POLLIN, .revents = 0});
    const auto remaining = std::chrono::ceil<std::chrono::milliseconds>(until - TClock::now());
    const auto milliseconds = until == TClock::time_point::max()
                                  ? -1
                                  : static_cast<int>(std::clamp<std::chrono::milliseconds::rep>(
                                        remaining.count(), 0, 60'000));
    if (poll(descriptors.data(), descriptors.size(), milliseconds) == -1) {
        if (errno == EINTR)
            return;
        throw std::system_error(errno, std::generic_category(), "cannot wait for signals");
    }
    for (std::size_t index = 0; index < descriptors.size(); ++index) {
        if (descriptors[index].revents != 0)
            watched[index].onReadable();
    }
}

// Signals after the one that stops the host are not read.
void CMainLoop::ReadSignals() {
    while (const auto number = stopSignal ? std::nullopt : signals.Next())
        OnSignal(*number);
}

void CMainLoop::OnSignal(int number) {
    switch (number) {
        case SIGTERM:
        case SIGINT:
            stopSignal = number;
            break;
        case SIGHUP:
            CHostLog::Instance().Reopen();
            break;
        case SIGUSR1:
            LogInfo("SIGUSR1: ticking now");
            stopEvent.SetEvent();
            break;
        case SIGCHLD:
            programs.CollectFinished();
            break;
        default:
            break;
    }
}

void CMainLoop::MonitorWorker() {
    const auto verdict =
        watchdog.Check(TClock::now(), vxsched::IsWorkerIdle(), programs.CountLaunches());
    if (verdict == CWorkerWatchdog::cTooEarly)
        return;
    wasAlive = verdict == CWorkerWatchdog::cAlive;
    // A single check of a busy worker may just have met a tick.
    if (verdict == CWorkerWatchdog::cMissed)
        return;
    const bool isAlive = verdict == CWorkerWatchdog::cAlive;
    if (isAlive)
        service.Alive();
    if (isAlive && !isWorkerAlive)
        LogNotice("the worker is alive again");
    if (!isAlive && isWorkerAlive)
        LogWarning(
            "the worker is stuck: it is neither idle nor launching programs. It may be waiting for "
            "the store mutex, or catching up with a due time long past.");
    isWorkerAlive = isAlive;
}

void CMainLoop::NotifyStatus() {
    if (!isWorkerAlive)
        service.Status("the worker is stuck");
    else if (const std::size_t count = programs.Count(); count > 0)
        service.Status(fmt::format("{} program(s) running", count));
    else
        service.Status("waiting for the next task");
}
